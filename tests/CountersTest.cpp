// Counters without a counters plug-in on the search path: every counter lives in
// the caller's storage.

#include <Korvo/Plugin.h>

#include <gtest/gtest.h>

TEST(CountersTest, WithoutThePluginEveryCounterIsTheFallback) {
   Korvo::Counters counters("Daemon");
   unsigned long requests = 0;
   EXPECT_TRUE(!counters.plugin() && counters.counter("requests", &requests) == &requests);
   EXPECT_EQ(Korvo::Counters(nullptr).counter("requests", nullptr), nullptr);
   EXPECT_EQ(Korvo::Platform::registeredPlugin(Korvo::Counters::pluginName), nullptr)
       << "a failed load registers nothing";
}
