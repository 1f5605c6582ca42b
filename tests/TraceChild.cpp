// A small program the tests run in a fresh process, so that what the library
// reads from the environment at load (TRACE, TRACEFORMAT, TRACEFILE, ...) can be
// set per case. Each argument is one command, run in order.

#include <Korvo/Debug.h>
#include <Korvo/Exception.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split(const std::string& s, char sep, size_t parts) {
   std::vector<std::string> out;
   size_t begin = 0;
   while (out.size() + 1 < parts) {
      const size_t end = s.find(sep, begin);
      if (end == std::string::npos)
         break;
      out.push_back(s.substr(begin, end - begin));
      begin = end + 1;
   }
   out.push_back(s.substr(begin));
   return out;
}

void run(const std::string& command) {
   const auto words = split(command, ':', 4);
   const std::string& verb = words[0];
   if (verb == "trace") {  // trace:NAME:LEVEL:MESSAGE
      auto handler = Korvo::Platform::getDebugHandler(words.at(1));
      const unsigned level = static_cast<unsigned>(std::stoul(words.at(2)));
      KORVO_TRACE(handler, level, words.at(3));
   } else if (verb == "levels") {  // levels:NAME
      auto handler = Korvo::Platform::getDebugHandler(words.at(1));
      std::cout << static_cast<Korvo::Nyx::DebugHandler&>(*handler).displayString() << std::endl;
   } else if (verb == "setup") {
      Korvo::Platform::setupKorvoDebug(nullptr);
   } else if (verb == "unsetenv") {
      ::unsetenv(words.at(1).c_str());
   } else if (verb == "format") {
      Korvo::Platform::printAllTraceFormat();
      std::cout << std::endl;
   } else if (verb == "map") {
      Korvo::Platform::dumpKorvoDebugMap();
   } else if (verb == "nullfile") {
      auto handler = Korvo::Platform::getDebugHandler("KorvoChild");
      Korvo::Platform::dumpDebugMsg("tail", 4, 1, handler.get(), nullptr, "func", 7);
   } else if (verb == "throw") {
      throw std::runtime_error("boom");
   } else if (verb == "assert") {
      KORVO_FAIL("bad thing " << 42);
   } else {
      std::cerr << "unknown command " << command << std::endl;
      std::exit(2);
   }
}

}  // namespace

int main(int argc, char** argv) {
   for (int i = 1; i < argc; ++i)
      run(argv[i]);
   return 0;
}
