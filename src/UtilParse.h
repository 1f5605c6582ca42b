#ifndef KORVO_SRC_UTILPARSE_H
#define KORVO_SRC_UTILPARSE_H

// The parsers of the kernel's /proc texts behind the process, socket and lock
// look-ups. Pure functions of their text, so the tests and the fuzz harnesses
// feed them directly. Not installed.

#include <istream>
#include <optional>
#include <string>

namespace Korvo::Util {

// The start time field of one /proc/<pid>/stat line. The process name in
// parentheses may hold blanks and parentheses: fields are counted from the last
// ")". `source` names the line in assertion texts. Assertion failure when the
// line has no ")" followed by at least two characters, or no non-empty field 22.
std::string startTimeFromStat(const std::string& statLine, const std::string& source);

// The name from a status text: the rest of the first line holding "Name:",
// with " \t\n" trimmed from both ends; nullopt when no line holds "Name:".
std::optional<std::string> titleFromStatus(std::istream& status);

// The raw contents of a cmdline file (arguments each ended by a zero byte) as
// one line: trailing zero bytes dropped, the others turned into blanks.
std::string cmdlineFromText(const std::string& raw);

// The inode of the socket bound to the abstract `name` in a /proc/net/unix text,
// or 0. Names with blanks are matched whole.
unsigned long socketInodeFromNetUnix(const std::string& netUnixText, const std::string& name);

// True when a /proc/locks or /proc/<pid>/fdinfo text holds a granted (not
// waiting) OFDLCK or POSIX lock line.
bool lockTextHasHeldLock(const std::string& text);

}  // namespace Korvo::Util

#endif
