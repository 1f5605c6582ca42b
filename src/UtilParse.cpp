// Parsers of /proc texts. Kept free of I/O so that a saved snapshot, a test or a
// fuzzer feeds them exactly what the live readers do.
#define KORVO_SOURCE_FILE "UtilCpp"
#include "UtilParse.h"

#include "Korvo/Util.h"

#include "Korvo/Exception.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <string_view>
#include <vector>

namespace Korvo::Util {
namespace {

// Field 22 of a stat line is the 20th blank-separated word after the name.
constexpr size_t startTimeFieldPos = 19;

// Splits at single blanks, as the kernel writes the line: two blanks in a row
// give an empty word, which the caller treats as malformed. Stops once `limit`
// words are in hand.
std::vector<std::string_view> splitBlanks(std::string_view text, size_t limit) {
   std::vector<std::string_view> words;
   while (words.size() < limit) {
      const size_t blank = text.find(' ');
      words.push_back(text.substr(0, blank));
      if (blank == std::string_view::npos) {
         break;
      }
      text.remove_prefix(blank + 1);
   }
   return words;
}

// Whitespace-separated words of one line.
std::vector<std::string_view> words(std::string_view line) {
   std::vector<std::string_view> out;
   size_t i = 0;
   while (i < line.size()) {
      while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
         ++i;
      }
      const size_t start = i;
      while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
         ++i;
      }
      if (i > start) {
         out.push_back(line.substr(start, i - start));
      }
   }
   return out;
}

template <typename F>
void forEachLine(std::string_view text, F&& f) {
   while (!text.empty()) {
      const size_t newline = text.find('\n');
      f(text.substr(0, newline));
      if (newline == std::string_view::npos) {
         break;
      }
      text.remove_prefix(newline + 1);
   }
}

// The abstract name as /proc/net/unix shows it: "@" first, zero bytes as "@",
// cut where the address cuts it.
std::string netUnixPath(const std::string& name) {
   std::string path = "@" + name.substr(0, maxSocketNameLength);
   std::replace(path.begin() + 1, path.end(), '\0', '@');
   return path;
}

bool heldLockLine(std::string_view line) {
   // fdinfo prefixes each lock line with "lock:" and a tab; /proc/locks does not.
   constexpr std::string_view fdinfoTag = "lock:";
   if (line.substr(0, fdinfoTag.size()) == fdinfoTag) {
      line.remove_prefix(fdinfoTag.size());
   }
   const std::vector<std::string_view> w = words(line);
   // "<n>: [-> ]<type> ..."; "->" marks a request still waiting for the lock.
   if (w.size() < 2 || w[0].empty() || w[0].back() != ':' || w[1] == "->") {
      return false;
   }
   return w[1] == "OFDLCK" || w[1] == "POSIX";
}

}  // namespace

std::string startTimeFromStat(const std::string& statLine, const std::string& source) {
   // The name in parentheses may hold anything, blanks and ")" included, so the
   // fields are counted from the last ")".
   const size_t close = statLine.rfind(')');
   KORVO_ASSERT(close != std::string::npos && statLine.size() - close - 1 >= 2,
                "Util::readProcStartTime() input not long enough to contain "
                    << "start time. file: " << source << " line: \"" << statLine << "\"");
   const std::vector<std::string_view> fields =
       splitBlanks(std::string_view(statLine).substr(close + 2), startTimeFieldPos + 1);
   const bool found = fields.size() > startTimeFieldPos && !fields[startTimeFieldPos].empty();
   KORVO_ASSERT(found, "Util::readProcStartTime() Failed to parse start time from file: "
                           << source << " line: \"" << statLine << "\""
                           << " procStartTime.size():" << statLine.size() << " tokPos:"
                           << fields.size() << " startTimeFieldPos:" << startTimeFieldPos);
   return std::string(fields[startTimeFieldPos]);
}

std::optional<std::string> titleFromStatus(std::istream& status) {
   constexpr std::string_view tag = "Name:";
   constexpr const char* blanks = " \t\n";
   std::string line;
   while (std::getline(status, line)) {
      const size_t at = line.find(tag);
      if (at == std::string::npos) {
         continue;
      }
      std::string title = line.substr(at + tag.size());
      const size_t first = title.find_first_not_of(blanks);
      if (first == std::string::npos) {
         return std::string();
      }
      title.erase(title.find_last_not_of(blanks) + 1);
      title.erase(0, first);
      return title;
   }
   return std::nullopt;
}

std::string cmdlineFromText(const std::string& raw) {
   std::string line = raw;
   while (!line.empty() && line.back() == '\0') {
      line.pop_back();
   }
   std::replace(line.begin(), line.end(), '\0', ' ');
   return line;
}

unsigned long socketInodeFromNetUnix(const std::string& netUnixText, const std::string& name) {
   // "Num RefCount Protocol Flags Type St Inode Path": seven columns, then one
   // blank and the path to the end of the line (an abstract name may hold blanks).
   const std::string wanted = netUnixPath(name);
   unsigned long inode = 0;
   forEachLine(netUnixText, [&](std::string_view line) {
      if (inode != 0) {
         return;
      }
      const std::vector<std::string_view> w = words(line);
      if (w.size() < 8) {
         return;
      }
      const size_t pathAt = static_cast<size_t>(w[7].data() - line.data());
      if (line.substr(pathAt) != wanted) {
         return;
      }
      unsigned long value = 0;
      auto [ptr, ec] = std::from_chars(w[6].data(), w[6].data() + w[6].size(), value);
      if (ec == std::errc() && ptr == w[6].data() + w[6].size()) {
         inode = value;
      }
   });
   return inode;
}

bool lockTextHasHeldLock(const std::string& text) {
   bool held = false;
   forEachLine(text, [&](std::string_view line) { held = held || heldLockLine(line); });
   return held;
}

}  // namespace Korvo::Util
