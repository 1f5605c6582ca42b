// One harness for every /proc text parser: each input goes to all of them, and
// each must keep the properties below. Every fuzz target runs it over the seeds
// of one kind of text. Built with clang it is a libFuzzer target; otherwise
// FuzzDriver.cpp feeds it a bounded set of generated inputs.

#include <Korvo/Exception.h>
#include <Korvo/Mappings.h>

#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>

#include "UtilParse.h"

// A violation is a crash the fuzzer reports.
static void require(bool holds) {
   if (!holds)
      std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string text(reinterpret_cast<const char*>(data), size);
   const auto has = [&](const char* part) { return text.find(part) != std::string::npos; };
   Korvo::throwOnAssertFailIs(true);  // malformed input may end in the library's assertion
   try {  // /proc/<pid>/stat: a non-empty, blank-free word after the name's last ")"
      const std::string start = Korvo::Util::startTimeFromStat(text, "fuzz");
      require(!start.empty() && start.find(' ') == std::string::npos &&
              text.find(start, text.rfind(')')) != std::string::npos);
   } catch (const Korvo::AssertException& e) {
      require(e.message().find("Util::readProcStartTime()") != std::string::npos);
   }
   std::istringstream status(text);  // /proc/<pid>/status: a name without blanks around
   const std::optional<std::string> title = Korvo::Util::titleFromStatus(status);
   require(title.has_value() == has("Name:"));
   const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n'; };
   require(!title || title->empty() ||
           (!blank(title->front()) && !blank(title->back()) && title->find('\n') == title->npos));
   const std::string cmdline = Korvo::Util::cmdlineFromText(text);  // /proc/<pid>/cmdline
   require(cmdline.size() <= size && cmdline.find('\0') == std::string::npos);
   // /proc/net/unix, with the name looked for in the first line; lock lines.
   const std::string name = text.substr(0, has("\n") ? text.find('\n') : 0);
   require(Korvo::Util::socketInodeFromNetUnix(text, name) == 0 || has("@"));
   require(!Korvo::Util::lockTextHasHeldLock(text) || has("OFDLCK") || has("POSIX"));
   const Korvo::MappingInfos infos = Korvo::MappingInfos::parse(text);  // /proc/<pid>/maps
   require(infos.size() <= size / 8 + 1);
   for (const Korvo::MappingInfo& info : infos) {
      const Korvo::MappingInfo found = infos.find(reinterpret_cast<const void*>(info.start));
      require(info.path.size() <= 4096 && infos.find(info.path, info.offset).perms != "---p");
      require(info.start >= info.end || (found.start <= info.start && info.start < found.end));
   }
   std::ostringstream shown;
   shown << infos;
   require(shown.str().rfind("MappingInfos [\n", 0) == 0);
   return 0;
}
