// Plug-ins loaded by name, with real shared objects built next to this test.

#include <Korvo/Plugin.h>

#include <dlfcn.h>

#include <filesystem>
#include <thread>

#include "TestSupport.h"

using Korvo::Platform::loadPlugin;
using Korvo::Platform::registeredPlugin;
using Korvo::Platform::registerPlugin;

const std::string lateDir = std::string(KORVO_TEST_LATE_PLUGIN_DIR) + "/live";

class InProcessPlugin : public Korvo::Platform::Plugin {
public:
   const char* name() const override { return "KorvoInProcessPlugin"; }
} inProcess;

TEST(PluginTest, ConcurrentLoadsLoadAPluginOnce) {
   Korvo::Platform::Plugin* theirs = nullptr;
   std::thread other([&] { theirs = loadPlugin("KorvoTestPlugin"); });
   Korvo::Platform::Plugin* mine = loadPlugin("KorvoTestPlugin");
   other.join();
   ASSERT_NE(mine, nullptr);
   EXPECT_STREQ(mine->name(), "KorvoTestPlugin");
   EXPECT_TRUE(theirs == mine && registeredPlugin("KorvoTestPlugin") == mine);
}

TEST(PluginTest, ARegisteredNameNeedsNoFileAndIsRegisteredOnce) {
   if (registeredPlugin("KorvoInProcessPlugin") == nullptr)
      registerPlugin(&inProcess);
   EXPECT_TRUE(loadPlugin("KorvoInProcessPlugin") == &inProcess && !registeredPlugin(nullptr));
   EXPECT_NE(KorvoTest::assertionText([] { registerPlugin(&inProcess); })
                 .find("Korvo::Platform::registerPlugin() Plugin KorvoInProcessPlugin already "
                       "registered"),
             std::string::npos);
}

TEST(PluginTest, AMissingPluginIsNullAndTriedAgainLater) {
   const std::string live = lateDir + "/libKorvoLatePlugin.so";
   std::filesystem::remove(live);
   if (registeredPlugin("KorvoLatePlugin") != nullptr)
      GTEST_SKIP() << "already loaded in this process";
   EXPECT_EQ(loadPlugin("KorvoLatePlugin"), nullptr);
   std::filesystem::copy_file(std::string(KORVO_TEST_LATE_PLUGIN_DIR) + "/libKorvoLatePlugin.so",
                              live);
   Korvo::Platform::Plugin* plugin = loadPlugin("KorvoLatePlugin");
   std::filesystem::remove(live);
   ASSERT_NE(plugin, nullptr) << "the file that appeared is loaded";
   EXPECT_STREQ(plugin->name(), "KorvoLatePlugin");
}

TEST(PluginTest, APluginThatDoesNotRegisterIsAnAssertionFailure) {
   EXPECT_NE(KorvoTest::assertionText([] { loadPlugin("KorvoSilentPlugin"); })
                 .find("Korvo::Platform::loadPlugin() Phooey -- plugin KorvoSilentPlugin failed "
                       "to register"),
             std::string::npos);
   EXPECT_NE(::dlsym(RTLD_DEFAULT, "korvoSilentPluginLoaded"), nullptr) << "loaded, globally";
}

TEST(PluginTest, TwoPluginsClaimingOneNameAbort) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   ASSERT_NE(loadPlugin("KorvoTestPlugin"), nullptr);
   EXPECT_DEATH(loadPlugin("KorvoDuplicateOfTestPlugin"),
                "Korvo::Assert aborting because: .*Korvo::Platform::registerPlugin\\(\\) Plugin "
                "KorvoTestPlugin already registered");
}

TEST(PluginTest, CountersReachTheCountersPlugin) {
   Korvo::Counters a("SetA"), b("SetB");
   ASSERT_EQ(a.plugin(), registeredPlugin(Korvo::Counters::pluginName));
   unsigned long fallback = 0;
   unsigned long* requests = a.counter("requests", &fallback);
   EXPECT_NE(requests, &fallback);
   EXPECT_NE(b.counter("requests", &fallback), requests) << "each object stands for its own set";
   EXPECT_EQ(a.counter("requests", &fallback), requests) << "even after b selected its set";
   EXPECT_EQ(a.counter(nullptr, &fallback), &fallback) << "the plug-in may hand back the fallback";
   EXPECT_EQ(a.setName(), "SetA");
   EXPECT_NE(Korvo::Counters(nullptr).counter("requests", &fallback), &fallback);
}
