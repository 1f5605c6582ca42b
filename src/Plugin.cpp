#define KORVO_SOURCE_FILE "PluginCpp"
#include "Korvo/Plugin.h"

#include "DebugComponent.h"
#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/Locking.h"

#include <dlfcn.h>

#include <map>
#include <memory>
#include <string>

namespace Korvo::Platform {
namespace {

using Registry = std::map<std::string, Plugin*>;

// Never destroyed: plug-ins live until the process ends, and their
// objects may be looked up from exit-time code. Guarded by loco().
Registry& registry() {
   static auto* plugins = new Registry();
   return *plugins;
}

KORVO_COMPONENT_DEBUG(pluginHandler, "KorvoPlugin");

Plugin* find(const std::string& name) {
   const auto it = registry().find(name);
   return it == registry().end() ? nullptr : it->second;
}

}  // namespace

void registerPlugin(Plugin* plugin) {
   KORVO_ASSERT(plugin != nullptr, "Korvo::Platform::registerPlugin() null plugin");
   LocoGuard guard;
   const std::string name = plugin->name();
   KORVO_ASSERT(find(name) == nullptr,
                "Korvo::Platform::registerPlugin() Plugin " << name << " already registered");
   KORVO_TRACE(pluginHandler(), 2, "Korvo::Platform::registerPlugin() adding plugin " << name);
   registry().emplace(name, plugin);
}

Plugin* loadPlugin(const char* name) {
   KORVO_ASSERT(name != nullptr, "Korvo::Platform::loadPlugin() null name");
   // Held across dlopen(): the plug-in registers from inside it, on this thread,
   // and the lock is recursive.
   LocoGuard guard;
   if (Plugin* plugin = find(name)) {
      KORVO_TRACE(pluginHandler(), 3,
                  "Korvo::Platform::loadPlugin() " << name << " already loaded");
      return plugin;
   }
   const std::string file = std::string("lib") + name + ".so";
   if (::dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr) {
      const char* error = ::dlerror();
      KORVO_TRACE(pluginHandler(), 0,
                  "Korvo::Platform::loadPlugin() Failed to load plugin " << file << ": "
                                                                         << (error ? error : ""));
      return nullptr;
   }
   Plugin* plugin = find(name);
   KORVO_ASSERT(plugin != nullptr,
                "Korvo::Platform::loadPlugin() Phooey -- plugin " << name << " failed to register");
   KORVO_TRACE(pluginHandler(), 2,
               "Korvo::Platform::loadPlugin() Yay!  Plugin " << name << " loaded");
   return plugin;
}

Plugin* registeredPlugin(const char* name) {
   if (name == nullptr) {
      return nullptr;
   }
   LocoGuard guard;
   return find(name);
}

}  // namespace Korvo::Platform
