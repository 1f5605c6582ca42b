// Plug-ins loaded by name, with real shared objects built next to this test.

#include <Korvo/Exception.h>
#include <Korvo/Plugin.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "TestPlugin.h"
#include "UtilTestSupport.h"

#if !defined(KORVO_TEST_PLUGIN_DIR) || !defined(KORVO_TEST_LATE_PLUGIN_DIR)
#error "tests/Plugin.cmake names the plug-in directories"
#endif

namespace {

using Korvo::Platform::loadPlugin;
using Korvo::Platform::registeredPlugin;
using Korvo::Platform::registerPlugin;

// Constructors run before this file's other globals are made, so no std::string
// globals here.
std::string lateDir() {
   return std::string(KORVO_TEST_LATE_PLUGIN_DIR) + "/live";
}

// The loader reads LD_LIBRARY_PATH once, at start: so before main() this program
// puts its plug-in directories there and starts itself again. glibc hands
// constructors the program's arguments. The loader also remembers directories
// that did not exist, so the late one is made before the loader first looks.
__attribute__((constructor)) void putPluginsOnTheSearchPath(int, char** argv, char**) {
   ::mkdir(lateDir().c_str(), 0755);
   const char* current = std::getenv("LD_LIBRARY_PATH");
   const std::string wanted = std::string(KORVO_TEST_PLUGIN_DIR) + ":" + lateDir();
   if (current != nullptr && std::string(current).rfind(wanted, 0) == 0) {
      return;
   }
   const std::string value = wanted + (current && *current ? ":" + std::string(current) : "");
   ::setenv("LD_LIBRARY_PATH", value.c_str(), 1);
   ::execv("/proc/self/exe", argv);
   std::perror("PluginTest: re-exec with LD_LIBRARY_PATH failed");
   std::_Exit(1);
}

const TestPluginApi* testApi(Korvo::Platform::Plugin* plugin) {
   return static_cast<const TestPluginApi*>(plugin);
}

class InProcessPlugin : public Korvo::Platform::Plugin {
public:
   const char* name() const override { return "KorvoInProcessPlugin"; }
};
InProcessPlugin inProcess;

TEST(PluginTest, LoadsAPluginThatRegistersItselfOnce) {
   Korvo::Platform::Plugin* plugin = loadPlugin("KorvoTestPlugin");
   ASSERT_NE(plugin, nullptr);
   EXPECT_STREQ(plugin->name(), "KorvoTestPlugin");
   EXPECT_EQ(testApi(plugin)->answer(), 42);
   EXPECT_EQ(registeredPlugin("KorvoTestPlugin"), plugin);
   EXPECT_EQ(loadPlugin("KorvoTestPlugin"), plugin);
   EXPECT_EQ(testApi(plugin)->loads(), 1) << "a loaded plug-in is not loaded again";
}

TEST(PluginTest, ARegisteredNameNeedsNoFile) {
   if (registeredPlugin("KorvoInProcessPlugin") == nullptr) {
      registerPlugin(&inProcess);
   }
   EXPECT_EQ(loadPlugin("KorvoInProcessPlugin"), &inProcess)
       << "there is no libKorvoInProcessPlugin.so, so no file was opened";
   const std::string twice = KorvoTest::assertionText([] { registerPlugin(&inProcess); });
   EXPECT_NE(twice.find("Korvo::Platform::registerPlugin() Plugin KorvoInProcessPlugin already "
                        "registered"),
             std::string::npos)
       << twice;
   EXPECT_EQ(registeredPlugin("KorvoInProcessPlugin"), &inProcess);
   EXPECT_EQ(registeredPlugin(nullptr), nullptr);
}

TEST(PluginTest, AMissingPluginIsNullAndTriedAgainLater) {
   std::error_code ignored;
   const std::string live = lateDir() + "/libKorvoLatePlugin.so";
   std::filesystem::remove(live, ignored);
   if (registeredPlugin("KorvoLatePlugin") != nullptr) {
      GTEST_SKIP() << "already loaded in this process";
   }
   EXPECT_EQ(loadPlugin("KorvoLatePlugin"), nullptr);
   EXPECT_EQ(registeredPlugin("KorvoLatePlugin"), nullptr);
   EXPECT_EQ(loadPlugin("KorvoLatePlugin"), nullptr);

   std::filesystem::copy_file(std::string(KORVO_TEST_LATE_PLUGIN_DIR) + "/libKorvoLatePlugin.so",
                              live, std::filesystem::copy_options::overwrite_existing);
   Korvo::Platform::Plugin* plugin = loadPlugin("KorvoLatePlugin");
   std::filesystem::remove(live, ignored);
   ASSERT_NE(plugin, nullptr) << "the file that appeared is loaded";
   EXPECT_STREQ(plugin->name(), "KorvoLatePlugin");
   EXPECT_EQ(loadPlugin("KorvoNoSuchPluginAnywhere"), nullptr);
}

TEST(PluginTest, APluginThatDoesNotRegisterIsAnAssertionFailure) {
   const std::string text = KorvoTest::assertionText([] { loadPlugin("KorvoSilentPlugin"); });
   EXPECT_NE(text.find("Korvo::Platform::loadPlugin() Phooey -- plugin KorvoSilentPlugin failed to "
                       "register"),
             std::string::npos)
       << text;
   EXPECT_NE(::dlsym(RTLD_DEFAULT, "korvoSilentPluginLoaded"), nullptr)
       << "it was loaded, globally";
}

TEST(PluginTest, TwoPluginsClaimingOneNameAbort) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   ASSERT_NE(loadPlugin("KorvoTestPlugin"), nullptr);
   EXPECT_DEATH(loadPlugin("KorvoDuplicateOfTestPlugin"),
                "Korvo::Assert aborting because: .*Korvo::Platform::registerPlugin\\(\\) Plugin "
                "KorvoTestPlugin already registered");
}

TEST(PluginTest, ConcurrentLoadsGiveOnePlugin) {
   std::vector<Korvo::Platform::Plugin*> found(4, nullptr);
   std::vector<std::thread> threads;
   for (size_t i = 0; i < found.size(); ++i) {
      threads.emplace_back([&found, i] { found[i] = loadPlugin("KorvoThreadPlugin"); });
   }
   for (std::thread& t : threads) {
      t.join();
   }
   ASSERT_NE(found[0], nullptr);
   for (Korvo::Platform::Plugin* plugin : found) {
      EXPECT_EQ(plugin, found[0]);
   }
   EXPECT_EQ(testApi(found[0])->loads(), 1);
}

TEST(PluginTest, CountersReachTheCountersPlugin) {
   Korvo::Counters a("SetA");
   Korvo::Counters b("SetB");
   ASSERT_NE(a.plugin(), nullptr);
   EXPECT_EQ(a.plugin(), registeredPlugin(Korvo::Counters::pluginName));
   unsigned long fallbackA = 0, fallbackB = 0;
   unsigned long* requestsA = a.counter("requests", &fallbackA);
   unsigned long* requestsB = b.counter("requests", &fallbackB);
   EXPECT_NE(requestsA, &fallbackA);
   EXPECT_NE(requestsA, requestsB) << "each object stands for its own set";
   ++*requestsA;
   EXPECT_EQ(a.counter("requests", &fallbackA), requestsA) << "even after b selected its set";
   EXPECT_EQ(*requestsA, 1u);
   EXPECT_EQ(*requestsB, 0u);
   EXPECT_EQ(Korvo::Counters("SetA").counter("requests", nullptr), requestsA);
   EXPECT_EQ(a.counter(nullptr, &fallbackA), &fallbackA)
       << "the plug-in may hand back the fallback";
   EXPECT_EQ(a.setName(), "SetA");

   Korvo::Counters unnamed(nullptr);
   EXPECT_NE(unnamed.counter("requests", &fallbackA), &fallbackA);
}

}  // namespace
