// A plug-in that registers itself when loaded. Built several times under
// different names (KORVO_TEST_PLUGIN_NAME), one shared object each.

#include "TestPlugin.h"

namespace {

int loads_ = 0;

class TestPlugin : public TestPluginApi {
public:
   TestPlugin() {
      ++loads_;
      Korvo::Platform::registerPlugin(this);
   }
   const char* name() const override { return KORVO_TEST_PLUGIN_NAME; }
   int loads() const override { return loads_; }
} plugin;

}  // namespace
