// A plug-in library that forgets to register.

#include <Korvo/Plugin.h>

extern "C" int korvoSilentPluginLoaded() {
   return 1;
}
