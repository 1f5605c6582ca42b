// A plug-in that registers itself when loaded. Built several times under
// different names (KORVO_TEST_PLUGIN_NAME), one shared object each.

#include "TestPlugin.h"

#ifndef KORVO_TEST_PLUGIN_NAME
#error "KORVO_TEST_PLUGIN_NAME names the plug-in"
#endif

namespace {

int loads_ = 0;

class TestPlugin : public TestPluginApi {
 public:
   const char* name() const override { return KORVO_TEST_PLUGIN_NAME; }
   int answer() const override { return 42; }
   int loads() const override { return loads_; }
};

TestPlugin plugin;

struct Registrar {
   Registrar() {
      ++loads_;
      Korvo::Platform::registerPlugin(&plugin);
   }
} registrar;

}  // namespace
