// A plug-in that registers itself when loaded. Built several times under
// different names (KORVO_TEST_PLUGIN_NAME), one shared object each.

#include <Korvo/Plugin.h>

namespace {

class TestPlugin : public Korvo::Platform::Plugin {
public:
   TestPlugin() { Korvo::Platform::registerPlugin(this); }
   const char* name() const override { return KORVO_TEST_PLUGIN_NAME; }
} plugin;

}  // namespace
