// A counters plug-in: one set of named counters per set name.

#include <Korvo/Plugin.h>

#include <map>
#include <string>

namespace {

class ThrobCounters : public Korvo::Platform::CountersPlugin {
 public:
   const char* name() const override { return "ThrobCountersPlugin"; }
   void counterSetIs(const char* setName) override { current_ = setName; }
   unsigned long* counter(const char* counterName, unsigned long* fallback) override {
      if (counterName == nullptr) {
         return fallback;
      }
      // std::map nodes never move, so the storage handed out stays valid.
      return &sets_[current_][counterName];
   }

 private:
   std::string current_;
   std::map<std::string, std::map<std::string, unsigned long>> sets_;
};

ThrobCounters plugin;

struct Registrar {
   Registrar() { Korvo::Platform::registerPlugin(&plugin); }
} registrar;

}  // namespace
