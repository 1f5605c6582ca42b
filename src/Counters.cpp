#include "Korvo/Plugin.h"

namespace Korvo {

Counters::Counters(const char* setName)
    // Found by name, so the object is the counters plug-in by contract.
    : plugin_(static_cast<Platform::CountersPlugin*>(Platform::loadPlugin(pluginName))),
      setName_(setName ? setName : ""),
      hasSet_(setName != nullptr) {
   if (plugin_ != nullptr && hasSet_) {
      plugin_->counterSetIs(setName_.c_str());
   }
}

unsigned long* Counters::counter(const char* counterName, unsigned long* fallback) const {
   if (plugin_ == nullptr) {
      return fallback;
   }
   // The plug-in has one current set; another Counters object may have switched it.
   if (hasSet_) {
      plugin_->counterSetIs(setName_.c_str());
   }
   return plugin_->counter(counterName, fallback);
}

}  // namespace Korvo
