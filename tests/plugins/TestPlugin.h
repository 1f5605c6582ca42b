#ifndef KORVO_TESTS_PLUGINS_TESTPLUGIN_H
#define KORVO_TESTS_PLUGINS_TESTPLUGIN_H

#include <Korvo/Plugin.h>

// The operations the test plug-ins add after name().
class TestPluginApi : public Korvo::Platform::Plugin {
 public:
   virtual int answer() const = 0;
   // How many times the plug-in library's initialisation ran.
   virtual int loads() const = 0;

 protected:
   ~TestPluginApi() = default;
};

#endif
