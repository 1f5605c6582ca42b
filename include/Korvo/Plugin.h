#ifndef KORVO_PLUGIN_H
#define KORVO_PLUGIN_H

// Plug-ins: separately built shared libraries that register a named object with
// the library when they are loaded.
//
// A plug-in named N lives in the file "lib" + N + ".so", found through the
// dynamic loader's usual search (LD_LIBRARY_PATH, the loader cache, the default
// directories). Its load-time initialisation calls registerPlugin() with an
// object that lives as long as the process, typically a static object:
//
//    namespace {
//    struct MyPlugin : Korvo::Platform::Plugin {
//       const char* name() const override { return "MyPlugin"; }
//    } plugin;
//    [[gnu::constructor]] void registerMe() { Korvo::Platform::registerPlugin(&plugin); }
//    }
//
// The registry is process-wide and guarded by the library lock, so plug-ins may be
// registered and loaded from any thread; the objects themselves are used without
// further locking. Plug-ins are never unregistered or unloaded, and the registry
// does not own them. Traces go to the handler "KorvoPlugin".

#include <Korvo/Export.h>

#include <string>

namespace Korvo {
namespace Platform {

class KORVO_EXPORT Plugin {
 public:
   Plugin() = default;
   Plugin(const Plugin&) = delete;
   Plugin& operator=(const Plugin&) = delete;

   // The registry name; the first virtual operation of every plug-in, so that a
   // plug-in's own operations follow it in a fixed order.
   virtual const char* name() const = 0;

 protected:
   // Never deleted through the base: the plug-in library owns its object.
   ~Plugin() = default;
};

// Records `plugin` under plugin->name(). A name registered twice is an assertion
// failure.
KORVO_EXPORT void registerPlugin(Plugin* plugin);

// The plug-in registered under `name`; when there is none, loads "lib" + name +
// ".so" (RTLD_NOW | RTLD_GLOBAL) and returns what it registered. Null, with a
// level-0 trace, when the file cannot be loaded; a later call tries again. A file
// that loads without registering `name` is an assertion failure.
KORVO_EXPORT Plugin* loadPlugin(const char* name);

// The plug-in registered under `name`, or null; never loads anything.
KORVO_EXPORT Plugin* registeredPlugin(const char* name);

// The interface of the counters plug-in "ThrobCountersPlugin", in slot order
// after name(). The library ships no such plug-in; Counters finds one if present.
class KORVO_EXPORT CountersPlugin : public Plugin {
 public:
   // Selects the set of counters the next counter() calls refer to.
   virtual void counterSetIs(const char* setName) = 0;
   // Where the counter `counterName` is to be incremented; may be `fallback`.
   virtual unsigned long* counter(const char* counterName, unsigned long* fallback) = 0;

 protected:
   ~CountersPlugin() = default;
};

}  // namespace Platform

// Counters that a counters plug-in may collect; without one, every counter lives
// in storage the caller provides, so counting code is the same either way:
//
//    Korvo::Counters counters("MyDaemon");
//    unsigned long local = 0;
//    unsigned long* requests = counters.counter("requests", &local);
//    ++*requests;
class KORVO_EXPORT Counters {
 public:
   static constexpr const char* pluginName = "ThrobCountersPlugin";

   // Loads the counters plug-in if it is not loaded yet and, when present and
   // `setName` is not null, selects the set of counters this object stands for.
   explicit Counters(const char* setName);

   // The storage of `counterName`: `fallback` without the plug-in, else what the
   // plug-in gives. Selects this object's set again first, so several Counters
   // objects for different sets may be used side by side.
   unsigned long* counter(const char* counterName, unsigned long* fallback) const;

   // The counters plug-in, or null.
   Platform::CountersPlugin* plugin() const { return plugin_; }
   const std::string& setName() const { return setName_; }

 private:
   Platform::CountersPlugin* plugin_;
   std::string setName_;
   bool hasSet_;
};

}  // namespace Korvo

#endif
