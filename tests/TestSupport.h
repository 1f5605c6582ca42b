#ifndef KORVO_TESTS_TESTSUPPORT_H
#define KORVO_TESTS_TESTSUPPORT_H

// Helpers shared by the tests: running a program in a fresh process with a
// chosen environment (for behaviour the library reads at load), temporary
// directories, and throwing assertions with their texts.

#include <Korvo/Debug.h>
#include <Korvo/Exception.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace KorvoTest {

struct ProcessResult {
   int exitCode = -1;  // -1 when killed by a signal
   int signal = 0;
   std::string out;
   std::string err;
};

inline std::string slurp(const std::string& path) {
   std::ifstream in(path);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

// A fresh directory, removed with everything in it at the end of the scope.
class TempDir {
public:
   TempDir() {
      const char* base = std::getenv("TMPDIR");
      std::string pattern = std::string(base && *base ? base : "/tmp") + "/korvo-test-XXXXXX";
      path_ = ::mkdtemp(pattern.data()) ? pattern : std::string();
      EXPECT_FALSE(path_.empty()) << "mkdtemp failed";
   }
   ~TempDir() {
      std::error_code ignored;
      // A test may have left directories without permissions behind.
      for (auto it = std::filesystem::recursive_directory_iterator(path_, ignored);
           it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
         if (it->is_directory(ignored)) {
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ignored);
         }
      }
      std::filesystem::remove_all(path_, ignored);
   }
   TempDir(const TempDir&) = delete;
   TempDir& operator=(const TempDir&) = delete;

   const std::string& path() const { return path_; }
   std::string file(const std::string& name) const { return path_ + "/" + name; }
   std::string operator/(const std::string& name) const { return file(name); }

private:
   std::string path_;
};

// Makes assertion failures throw AssertException for the life of the object.
class ThrowOnAssert {
public:
   ThrowOnAssert() : previous_(Korvo::throwOnAssertFail()) { Korvo::throwOnAssertFailIs(true); }
   ~ThrowOnAssert() { Korvo::throwOnAssertFailIs(previous_); }
   ThrowOnAssert(const ThrowOnAssert&) = delete;
   ThrowOnAssert& operator=(const ThrowOnAssert&) = delete;

private:
   bool previous_;
};

// The text of the assertion that `call` raises, or "" when it raises none.
template <typename Call>
std::string assertionText(Call&& call) {
   ThrowOnAssert throwing;
   try {
      call();
   } catch (const Korvo::AssertException& e) {
      return e.message();
   }
   return std::string();
}

// Runs `program` with `args` and exactly the environment `env` ("NAME=value"),
// capturing its standard output and error.
inline ProcessResult runProgram(const std::string& program, const std::vector<std::string>& args,
                                const std::vector<std::string>& env) {
   TempDir dir;
   const std::string outPath = dir.file("out");
   const std::string errPath = dir.file("err");
   const pid_t pid = ::fork();
   if (pid == 0) {
      const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(out, 1);
      ::dup2(err, 2);
      std::vector<char*> argv{const_cast<char*>(program.c_str())};
      for (const auto& a : args)
         argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      std::vector<char*> envp;
      for (const auto& e : env)
         envp.push_back(const_cast<char*>(e.c_str()));
      envp.push_back(nullptr);
      ::execve(program.c_str(), argv.data(), envp.data());
      ::_exit(127);
   }
   int status = 0;
   ::waitpid(pid, &status, 0);
   ProcessResult result;
   if (WIFEXITED(status)) {
      result.exitCode = WEXITSTATUS(status);
   } else if (WIFSIGNALED(status)) {
      result.signal = WTERMSIG(status);
   }
   result.out = slurp(outPath);
   result.err = slurp(errPath);
   return result;
}

// The environment a child needs to find the library when run from the build tree.
inline std::vector<std::string> baseEnvironment() {
   std::vector<std::string> env;
   for (const char* name : {"LD_LIBRARY_PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "PATH"}) {
      if (const char* value = std::getenv(name))
         env.push_back(std::string(name) + "=" + value);
   }
   return env;
}

}  // namespace KorvoTest

#endif
