#ifndef KORVO_TESTS_PLUGINS_TESTPLUGIN_H
#define KORVO_TESTS_PLUGINS_TESTPLUGIN_H

#include <Korvo/Plugin.h>

// What the test plug-ins add after name(): how many times the plug-in library's
// initialisation ran.
class TestPluginApi : public Korvo::Platform::Plugin {
public:
   virtual int loads() const = 0;

protected:
   ~TestPluginApi() = default;
};

#endif
