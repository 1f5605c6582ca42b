// A counters plug-in: one set of named counters per set name.

#include <Korvo/Plugin.h>

#include <map>
#include <string>

// One module holds the class: its symbols meet no others.
static struct ThrobCounters : Korvo::Platform::CountersPlugin {
   ThrobCounters() { Korvo::Platform::registerPlugin(this); }
   const char* name() const override { return "ThrobCountersPlugin"; }
   void counterSetIs(const char* setName) override { current_ = setName; }
   unsigned long* counter(const char* counterName, unsigned long* fallback) override {
      // std::map nodes never move, so the storage handed out stays valid.
      return counterName ? &sets_[current_][counterName] : fallback;
   }
   std::string current_;
   std::map<std::string, std::map<std::string, unsigned long>> sets_;
} plugin;
