#define KORVO_SOURCE_FILE "Debug"
#include "Korvo/Debug.h"

#include "DebugComponent.h"
#include "Korvo/Allocator.h"
#include "Korvo/Locking.h"
#include "Korvo/Thread.h"

#include "SystemAssert.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <vector>

namespace Korvo {
namespace Nyx {

std::multimap<std::string, DebugHandler*>* DebugHandler::handlerMap_ = nullptr;
DebugControl::DebugsMap* DebugControl::debugsMap_ = nullptr;
DebugControl::WildCardDebugsMap* DebugControl::wildCardDebugsMap_ = nullptr;
bool DebugControl::showDate_ = false;
bool DebugControl::showTime_ = false;
bool DebugControl::showPid_ = false;
bool DebugControl::showTid_ = false;
bool DebugControl::showHandleName_ = false;
bool DebugControl::showLevel_ = false;
bool DebugControl::showLineInfo_ = false;
bool DebugControl::showFuncName_ = false;

namespace {

constexpr uint32_t allLevels = 1023;

bool startsWith(const std::string& s, const std::string& prefix) {
   return s.compare(0, prefix.size(), prefix) == 0;
}

void appendLevels(std::string& out, uint32_t levels) {
   if (levels == allLevels) {
      out += '*';
      return;
   }
   for (unsigned level = 0; level <= 9; ++level) {
      if ((levels >> level) & 1u) {
         out += static_cast<char>('0' + level);
      }
   }
}

// name, a marker ("+" fixed, "*" wildcard), "/", then "*" for all ten levels or
// the digits of the enabled ones.
std::string displayText(const std::string& name, const char* marker, uint32_t levels) {
   std::string out = name + marker + "/";
   appendLevels(out, levels);
   return out;
}

// A title line, then one indented line per entry, in the map's order.
template <typename Map>
void printEntries(const char* title, const Map& entries) {
   std::cout << title << std::endl;
   for (const auto& [key, entry] : entries) {
      std::cout << "    " << entry->displayString() << std::endl;
   }
}

// Every live handler whose name passes `match`; the lock must be held.
template <typename Match>
std::vector<DebugHandler*> handlersWhere(Match match) {
   std::vector<DebugHandler*> found;
   for (auto& [name, handler] : *DebugHandler::handlerMap_) {
      if (match(name) && !handler->levelsFixed) {
         found.push_back(handler);
      }
   }
   return found;
}

}  // namespace

DebugHandler::DebugHandler(const std::string& name, int levels, bool levelsFixed)
    : Platform::DebugHandler(name, static_cast<uint32_t>(levels), levelsFixed) {
   registerSelf();
}

DebugHandler::DebugHandler(const std::string& name, uint32_t* levelsWord, bool levelsFixed)
    : Platform::DebugHandler(name, 0, levelsFixed) {
   levelsPtr = levelsWord;
   registerSelf();
}

void DebugHandler::registerSelf() {
   // The lock is recursive: registry code that already holds it may construct
   // handlers, and so may anyone else.
   Platform::LocoGuard guard;
   KORVO_SYSTEM_ASSERT(Korvo::Platform::loco().owns_lock() &&
                       "DebugHandler::DebugHandler() no loco");
   initialize();
   handlerMap_->emplace(name, this);
}

DebugHandler::~DebugHandler() {
   Platform::LocoGuard guard;
   auto [first, last] = handlerMap_->equal_range(name);
   for (auto it = first; it != last; ++it) {
      if (it->second == this) {
         handlerMap_->erase(it);
         break;
      }
   }
}

void DebugHandler::initialize() {
   if (!Platform::loco().owns_lock()) {
      Platform::DebugStream s;
      s << "DebugHandler::initialize() no loco";
      debugAndThrowAssertException(nullptr, 0, s, "Debug", "initialize", __LINE__);
   }
   if (handlerMap_ == nullptr) {
      handlerMap_ = new std::multimap<std::string, DebugHandler*>();
   }
}

void DebugHandler::enabledIs(unsigned level, bool on) {
   if (levelsPtr != &levels) {
      Platform::DebugStream s;
      s << "Cannot use this with a non-null levelsPtr passed to constructor";
      debugAndThrowAssertException(nullptr, 0, s, "Debug", "enabledIs", __LINE__);
   }
   const uint32_t bit = 1u << (level % 32);
   if (on) {
      levelsOr(bit);
   } else {
      levelsAndNot(bit);
   }
}

}  // namespace Nyx

namespace Platform::Impl {
namespace {

// Trivially destructible, so that it stays readable while the thread's destructors run.
struct ThreadTraceStream {
   DebugStream* stream = nullptr;
   bool busy = false;
   bool gone = false;
};
thread_local constinit ThreadTraceStream threadTraceStream_;

// Frees the thread's stream when the thread ends; touched once, when it is made.
struct ThreadTraceStreamReaper {
   ~ThreadTraceStreamReaper() {
      delete threadTraceStream_.stream;
      threadTraceStream_.stream = nullptr;
      threadTraceStream_.gone = true;
   }
};
thread_local ThreadTraceStreamReaper threadTraceStreamReaper_;

// Back to the state of a new stream, keeping the buffer's capacity (str() of a const
// string assigns into the buffer's string).
void resetStream(DebugStream& stream) {
   static const std::string empty;
   stream.str(empty);
   stream.clear();
   stream.flags(std::ios_base::skipws | std::ios_base::dec);
   stream.width(0);
   stream.precision(6);
   stream.fill(' ');
}

}  // namespace

TraceStream::TraceStream() {
   ThreadTraceStream& mine = threadTraceStream_;
   fresh_ = mine.busy || mine.gone;
   if (fresh_) {
      stream_ = new DebugStream;
      return;
   }
   if (mine.stream == nullptr) {
      mine.stream = new DebugStream;
      static_cast<void>(&threadTraceStreamReaper_);
   }
   mine.busy = true;
   stream_ = mine.stream;
}

TraceStream::~TraceStream() {
   if (fresh_) {
      delete stream_;
      return;
   }
   resetStream(*stream_);
   threadTraceStream_.busy = false;
}

}  // namespace Platform::Impl

namespace Nyx {

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
                        const char* func) const {
   // A view of the stream's buffer: no copy of the message.
   const std::string_view text = stream.view();
   Platform::dumpDebugMsg(text.data(), text.size(), level,
                          static_cast<const Platform::DebugHandler*>(this), file, func, line);
}

std::string DebugHandler::displayString() const {
   return displayText(name, levelsFixed ? "+" : "", levelsNow());
}

void DebugHandler::printAll() {
   Platform::LocoGuard guard;
   initialize();
   printEntries("Handlers:", *handlerMap_);
}

DebugControl::DebugControl(const std::string& name, int levels, bool wildcard)
    : name_(name), levels_(static_cast<uint16_t>(levels)), wildcard_(wildcard) {
   KORVO_SYSTEM_ASSERT(Korvo::Platform::loco().owns_lock() &&
                       "DebugControl::DebugControl() no loco");
   initialize();
   if (wildcard_) {
      (*wildCardDebugsMap_)[name_] = this;
   } else {
      (*debugsMap_)[name_] = this;
   }
}

DebugControl::~DebugControl() {
   KORVO_SYSTEM_ASSERT(Korvo::Platform::loco().owns_lock() &&
                       "DebugControl::~DebugControl() no loco");
   if (wildcard_) {
      wildCardDebugsMap_->erase(name_);
   } else {
      debugsMap_->erase(name_);
   }
}

void DebugControl::initialize() {
   KORVO_SYSTEM_ASSERT(Korvo::Platform::loco().owns_lock() && "DebugControl::initialize() no loco");
   if (debugsMap_ == nullptr) {
      debugsMap_ = new DebugsMap();
      debugsMap_->max_load_factor(1.0);
   }
   if (wildCardDebugsMap_ == nullptr) {
      wildCardDebugsMap_ = new WildCardDebugsMap();
   }
   DebugHandler::initialize();
}

std::string DebugControl::parseName(const std::string& name, bool& wildcard) {
   wildcard = !name.empty() && name.back() == '*';
   return wildcard ? name.substr(0, name.size() - 1) : name;
}

uint32_t DebugControl::parseLevels(const std::string& levels) {
   uint32_t mask = 0;
   for (char c : levels) {
      if (c >= '0' && c <= '9') {
         mask |= 1u << (c - '0');
      } else if (c == '*') {
         mask |= allLevels;
      }
   }
   return mask;
}

DebugControl* DebugControl::findWildcard(std::string name) {
   KORVO_SYSTEM_ASSERT(Korvo::Platform::loco().owns_lock() &&
                       "DebugControl::findWildcard() no loco");
   // Descending order: the first prefix that matches is the longest one.
   for (auto& [prefix, control] : *wildCardDebugsMap_) {
      if (prefix.empty() || startsWith(name, prefix)) {
         return control;
      }
   }
   return nullptr;
}

std::shared_ptr<Platform::DebugHandler> DebugControl::get(const std::string& name, bool) {
   bool wildcard = false;
   const std::string base = parseName(name, wildcard);
   Platform::LocoGuard guard;
   initialize();
   if (wildcard) {
      std::cerr << "Korvo::Debug - Warning"
                << " - Wild card specifier ignored getting handler for " << name << " using "
                << base << std::endl;
   }
   uint32_t levels = 0;
   auto exact = debugsMap_->find(base);
   if (exact != debugsMap_->end()) {
      levels = exact->second->levels_;
   } else if (DebugControl* w = findWildcard(base)) {
      levels = w->levels_;
   }
   return std::allocate_shared<DebugHandler>(Allocator<DebugHandler>(), base,
                                             static_cast<int>(levels), false);
}

// Registry updates. Both walk everything a name or prefix reaches; the registry
// is small and changes rarely, so plain walks beat extra indexes.
class DebugRegistry {
public:
   // Adds `bits` to the entry of a name, or with `wildcard` of a prefix; a new entry
   // starts from what the wildcards gave it. The entry's levels then go into every
   // live handler it reaches and, for a prefix, into every entry below it.
   static void set(const std::string& name, bool wildcard, uint32_t bits) {
      DebugControl* control = find(name, wildcard);
      if (control == nullptr) {
         DebugControl* w = DebugControl::findWildcard(name);
         control = new DebugControl(name, static_cast<int>(w ? w->levels_ : 0), wildcard);
      }
      control->levels_ |= bits;
      const uint16_t levels = control->levels_;
      const auto reaches = [&](const std::string& n) {
         return wildcard ? startsWith(n, name) : n == name;
      };
      if (wildcard) {
         orLevelsWhere(*DebugControl::wildCardDebugsMap_, reaches, levels);
         orLevelsWhere(*DebugControl::debugsMap_, reaches, levels);
      }
      for (DebugHandler* h : handlersWhere(reaches)) {
         h->levelsOr(levels);
      }
   }

   static void clear(const std::string& name, bool wildcard, uint32_t bits) {
      if (wildcard) {
         clearWildcard(name, bits);
      } else {
         clearExact(name, bits);
      }
   }

private:
   static void clearExact(const std::string& name, uint32_t bits) {
      auto it = DebugControl::debugsMap_->find(name);
      if (it != DebugControl::debugsMap_->end()) {
         clearControl(it->second, bits);
      } else if (DebugControl* w = DebugControl::findWildcard(name)) {
         // Deliberately a stray registered handler and no exact entry: later
         // get() calls still take the wildcard's levels.
         new DebugHandler(name, static_cast<int>(w->levels_ & ~bits), false);
      }
      for (DebugHandler* h : handlersWhere([&](const std::string& n) { return n == name; })) {
         h->levelsAndNot(bits);
      }
   }

   static void clearWildcard(const std::string& prefix, uint32_t bits) {
      // An emptied wildcard entry is kept at zero levels, so that it goes on
      // shadowing shorter prefixes of it.
      for (auto& [p, c] : *DebugControl::wildCardDebugsMap_) {
         if (startsWith(p, prefix)) {
            c->levels_ &= static_cast<uint16_t>(~bits);
         }
      }
      std::vector<DebugControl*> exact;
      for (auto& [n, c] : *DebugControl::debugsMap_) {
         if (startsWith(n, prefix)) {
            exact.push_back(c);
         }
      }
      for (DebugControl* c : exact) {
         clearControl(c, bits);
      }
      for (DebugHandler* h :
           handlersWhere([&](const std::string& n) { return startsWith(n, prefix); })) {
         h->levelsAndNot(bits);
      }
   }

   static DebugControl* find(const std::string& name, bool wildcard) {
      if (wildcard) {
         auto it = DebugControl::wildCardDebugsMap_->find(name);
         return it == DebugControl::wildCardDebugsMap_->end() ? nullptr : it->second;
      }
      auto it = DebugControl::debugsMap_->find(name);
      return it == DebugControl::debugsMap_->end() ? nullptr : it->second;
   }

   template <typename Map, typename Where>
   static void orLevelsWhere(Map& map, const Where& where, uint16_t levels) {
      for (auto& [n, c] : map) {
         if (where(n)) {
            c->levels_ |= levels;
         }
      }
   }

   // An exact entry emptied of levels goes, unless a wildcard would then give
   // the name levels it was cleared of: then it stays and shadows the wildcard.
   static void clearControl(DebugControl* control, uint32_t bits) {
      control->levels_ &= static_cast<uint16_t>(~bits);
      if (control->levels_ == 0 && DebugControl::findWildcard(control->name_) == nullptr) {
         delete control;
      }
   }
};

namespace {
// Parses a registry change ("Name" or "Prefix*", and level characters) and applies it
// under the library lock.
void changeRegistry(const std::string& name, const std::string& levels,
                    void (*change)(const std::string&, bool, uint32_t)) {
   bool wildcard = false;
   const std::string base = DebugControl::parseName(name, wildcard);
   const uint32_t bits = DebugControl::parseLevels(levels);
   Platform::LocoGuard guard;
   DebugControl::initialize();
   change(base, wildcard, bits);
}
}  // namespace

void DebugControl::set(const std::string& name, const std::string& levels) {
   changeRegistry(name, levels, &DebugRegistry::set);
}

void DebugControl::clear(const std::string& name, const std::string& levels) {
   changeRegistry(name, levels, &DebugRegistry::clear);
}

std::string DebugControl::displayString() const {
   return displayText(name_, wildcard_ ? "*" : "", levels_);
}

void DebugControl::printAll() {
   Platform::LocoGuard guard;
   initialize();
   printEntries("Specific:", *debugsMap_);
   printEntries("Wildcard:", *wildCardDebugsMap_);
}

}  // namespace Nyx

Debuggable::Debuggable(const std::string& name) : debug_(Platform::getDebugHandler(name)) {}

namespace Platform {
namespace {

// The trace destination, made at load and never destroyed so that lines traced
// during exit still have somewhere to go.
struct TraceFile {
   std::ofstream stream;
   std::string name;
};

TraceFile& traceFile() {
   static TraceFile* const file = new TraceFile();
   return *file;
}

// Keep, close or open the trace file after TRACEFILE; the lock must be held.
void applyTraceFile() {
   TraceFile& tf = traceFile();
   const char* wanted = std::getenv("TRACEFILE");
   if (wanted != nullptr && tf.stream.is_open() && tf.name == wanted) {
      return;
   }
   if (tf.stream.is_open()) {
      tf.stream.close();
   }
   tf.stream.clear();
   tf.name.clear();
   if (wanted == nullptr) {
      return;
   }
   tf.name = wanted;
   tf.stream.open(wanted, std::ios::out | std::ios::trunc);
   if (!tf.stream.is_open()) {
      std::cerr << "Error opening TRACEFILE=" << wanted << std::endl
                << "Defaulting to std::cerr for trace output." << std::endl;
      tf.stream.clear();
      tf.name.clear();
   }
}

template <typename Apply>
void forEachTraceItem(const char* list, Apply apply) {
   const std::string text(list);
   size_t begin = 0;
   // A trailing comma ends the walk: it adds no empty item.
   while (begin < text.size()) {
      size_t end = text.find(',', begin);
      if (end == std::string::npos) {
         end = text.size();
      }
      const std::string item = text.substr(begin, end - begin);
      const size_t slash = item.find('/');
      if (slash == std::string::npos) {
         apply(item, std::string());
      } else {
         apply(item.substr(0, slash), item.substr(slash + 1));
      }
      begin = end + 1;
   }
}

constexpr const char* fieldNames[] = {"date",   "time",  "pid",       "tid",
                                      "handle", "level", "line-info", "func-name"};
bool* const fieldSwitches[] = {
    &Nyx::DebugControl::showDate_,       &Nyx::DebugControl::showTime_,
    &Nyx::DebugControl::showPid_,        &Nyx::DebugControl::showTid_,
    &Nyx::DebugControl::showHandleName_, &Nyx::DebugControl::showLevel_,
    &Nyx::DebugControl::showLineInfo_,   &Nyx::DebugControl::showFuncName_};
constexpr size_t fieldCount = sizeof(fieldNames) / sizeof(fieldNames[0]);

int fieldIndex(const std::string& piece) {
   for (size_t i = 0; i < fieldCount; ++i) {
      if (piece == fieldNames[i]) {
         return static_cast<int>(i);
      }
   }
   return -1;
}

void printTraceFormatUsage() {
   std::cerr << "Usage:" << std::endl << "  TRACEFORMAT=field,field,..." << std::endl;
   std::cerr << "List of possible fields:" << std::endl;
   for (const char* name : fieldNames) {
      std::cerr << "  " << name << std::endl;
   }
}

const char* lastPathComponent(const char* file) {
   const char* slash = std::strrchr(file, '/');
   return slash ? slash + 1 : file;
}

// Local time of `seconds`, converted once per second per thread: the conversion
// is the dearest part of a line's prefix. Null when it fails.
const tm* localTime(time_t seconds) {
   thread_local time_t cachedSeconds = -1;
   thread_local tm cached;
   thread_local bool valid = false;
   if (seconds != cachedSeconds) {
      valid = localtime_r(&seconds, &cached) != nullptr;
      cachedSeconds = seconds;
   }
   return valid ? &cached : nullptr;
}

// The line prefix. A missing file or function name with its field on stops the
// prefix there, as a failed stream would.
// Appends text, or a number in decimal, then one blank. The prefix is built on
// every enabled line, so it avoids parsing format strings, and writes through a bare
// cursor into room reserved beforehand (see prefixBound).
struct PrefixWriter {
   char* cur;
   void put(const char* p, size_t n) {
      std::memcpy(cur, p, n);
      cur += n;
   }
   void text(std::string_view s) { put(s.data(), s.size()); }
   void number(long value) {
      const fmt::format_int digits(value);
      put(digits.data(), digits.size());
   }
   void twoDigits(int value) {
      const char digits[2] = {static_cast<char>('0' + value / 10),
                              static_cast<char>('0' + value % 10)};
      put(digits, 2);
   }
   void field(std::string_view s) {
      text(s);
      text(" ");
   }
   void field(long value) {
      number(value);
      text(" ");
   }
};

// Room for any prefix: every number field fits in 21 characters with its blank, the
// date and time in twice that; the names as long as they are.
size_t prefixBound(const DebugHandler* handler, const char* file, const char* func) {
   return 8 * 24 + (handler ? handler->name.size() : 0) + (file ? std::strlen(file) : 0) +
          (func ? std::strlen(func) : 0);
}

// Writes the prefix at `out`, which has prefixBound() characters of room, and returns
// where it ends.
char* buildPrefix(char* out, uint32_t level, const DebugHandler* handler, const char* file,
                  const char* func, int line) {
   using Nyx::DebugControl;
   PrefixWriter w{out};
   timeval now;
   gettimeofday(&now, nullptr);
   const tm* local = localTime(now.tv_sec);
   // The same text as strftime's "%Y-%m-%d " and "%H:%M:%S", without its cost.
   if (DebugControl::showDate_ && local) {
      w.number(local->tm_year + 1900);
      w.text("-");
      w.twoDigits(local->tm_mon + 1);
      w.text("-");
      w.twoDigits(local->tm_mday);
      w.text(" ");
   }
   if (DebugControl::showTime_ && local) {
      w.twoDigits(local->tm_hour);
      w.text(":");
      w.twoDigits(local->tm_min);
      w.text(":");
      w.twoDigits(local->tm_sec);
      // Microseconds without leading zeros: 12:00:01 and 5000 us is 12:00:01.5000.
      w.text(".");
      w.field(now.tv_usec);
   }
   if (DebugControl::showPid_)
      w.field(::getpid());
   if (DebugControl::showTid_)
      w.field(Korvo::gettid());
   if (DebugControl::showHandleName_)
      w.field(handler ? std::string_view(handler->name) : "");
   if (DebugControl::showLevel_)
      w.field(static_cast<long>(level));
   if (DebugControl::showLineInfo_) {
      if (file == nullptr)
         return w.cur;
      w.text(lastPathComponent(file));
      w.text(":");
      w.field(line);
   }
   if (DebugControl::showFuncName_) {
      if (func == nullptr)
         return w.cur;
      w.field(func);
   }
   return w.cur;
}

}  // namespace

std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name) noexcept {
   return Nyx::DebugControl::get(name);
}

}  // namespace Platform

Platform::DebugHandler& Impl::ComponentDebug::make() const {
   Platform::LocoGuard guard;
   if (handler_.load(std::memory_order_relaxed) == nullptr) {
      holder_ = new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler(name_));
      handler_.store(holder_->get(), std::memory_order_release);
   }
   return **holder_;
}

namespace Platform {

void destroyDebugHandler(DebugHandler* handler) noexcept {
   LocoGuard guard;
   delete handler;
}

void setupKorvoDebug(const char* list) noexcept {
   {
      LocoGuard guard;
      applyTraceFile();
   }
   const char* text = list ? list : std::getenv("TRACE");
   if (text == nullptr) {
      return;
   }
   forEachTraceItem(text, [](const std::string& name, const std::string& levels) {
      Nyx::DebugControl::set(name, levels);
   });
}

void clearKorvoDebug(const char* list) noexcept {
   if (list == nullptr) {
      return;
   }
   forEachTraceItem(list, [](const std::string& name, const std::string& levels) {
      Nyx::DebugControl::clear(name, levels);
   });
}

void dumpKorvoDebugMap() noexcept {
   Nyx::DebugControl::printAll();
   Nyx::DebugHandler::printAll();
}

void dumpDebugMsg(const char* msg, size_t len, uint32_t level, const void* handler,
                  const char* file, const char* func, int line) noexcept {
   // The prefix is built under the lock too: setTraceFormat() changes its fields.
   LocoGuard guard;
   // The whole line goes to the stream in one write: each stream call has its own
   // sentry and virtual calls, dearer than copying the message once.
   const auto* h = static_cast<const DebugHandler*>(handler);
   fmt::memory_buffer text;
   text.resize(prefixBound(h, file, func) + len + 1);
   char* end = buildPrefix(text.data(), level, h, file, func, line);
   std::memcpy(end, msg, len);
   end += len;
   *end++ = '\n';
   text.resize(static_cast<size_t>(end - text.data()));
   TraceFile& tf = traceFile();
   std::ostream& out = tf.stream.is_open() ? static_cast<std::ostream&>(tf.stream) : std::cerr;
   // Straight to the stream's buffer: the line is complete, so the stream's own
   // formatting layer (a sentry per call) has nothing left to do.
   std::streambuf* buffer = out.rdbuf();
   buffer->sputn(text.data(), static_cast<std::streamsize>(text.size()));
   buffer->pubsync();
}

void setTraceFormat(const char* fields) noexcept {
   const char* text = fields ? fields : std::getenv("TRACEFORMAT");
   if (text == nullptr) {
      return;
   }
   const std::string value(text);
   if (value == "help") {
      printTraceFormatUsage();
      return;
   }
   bool wanted[fieldCount] = {};
   size_t begin = 0;
   while (begin <= value.size()) {
      size_t end = value.find(',', begin);
      if (end == std::string::npos) {
         end = value.size();
      }
      const std::string piece = value.substr(begin, end - begin);
      if (!piece.empty()) {
         const int index = fieldIndex(piece);
         if (index < 0) {
            std::cerr << piece << " is an invalid field in TRACEFORMAT" << std::endl
                      << "Set TRACEFORMAT=help for more information." << std::endl;
            return;
         }
         wanted[index] = true;
      }
      begin = end + 1;
   }
   LocoGuard guard;
   for (size_t i = 0; i < fieldCount; ++i) {
      *fieldSwitches[i] = wanted[i];
   }
}

void clearTraceFormat() noexcept {
   LocoGuard guard;
   for (bool* field : fieldSwitches) {
      *field = false;
   }
}

void printAllTraceFormat() noexcept {
   LocoGuard guard;
   for (bool* field : fieldSwitches) {
      std::cout << (*field ? 1 : 0) << ' ';
   }
   std::cout << std::flush;
}

namespace {
// After the fork handler and the terminate handler, before any component makes
// its handler: the "Korvo*/01" default, then what the environment asks for.
__attribute__((constructor(104))) void setupTracingAtLoad() {
   // We run before ordinary static initialisers, so the standard streams may not
   // be set up yet; complaints about TRACE* values are written to them.
   static std::ios_base::Init streams;
   setupKorvoDebug("Korvo*/01");
   setupKorvoDebug(nullptr);
   setTraceFormat("date,time,tid,handle,level");
   setTraceFormat(nullptr);
}
}  // namespace

}  // namespace Platform
}  // namespace Korvo
