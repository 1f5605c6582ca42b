// A small program the tests run in a fresh process, so that what the library
// reads from the environment at load (TRACE, TRACEFORMAT, TRACEFILE, ...) can be
// set per case. Each argument is one command, run in order.

#include <Korvo/Debug.h>

#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

using Korvo::Platform::getDebugHandler;

void run(const std::string& command) {
   std::istringstream in(command);
   std::string verb, name, level, message;
   std::getline(in, verb, ':');
   std::getline(in, name, ':');
   std::getline(in, level, ':');
   std::getline(in, message);
   if (verb == "trace") {  // trace:NAME:LEVEL:MESSAGE
      const auto traced = getDebugHandler(name);
      KORVO_TRACE(traced, std::stoul(level), message);
   } else if (verb == "levels") {  // levels:NAME
      std::cout << static_cast<Korvo::Nyx::DebugHandler&>(*getDebugHandler(name)).displayString()
                << std::endl;
   } else if (verb == "setup") {
      Korvo::Platform::setupKorvoDebug(nullptr);
   } else if (verb == "unsetenv") {  // unsetenv:NAME
      ::unsetenv(name.c_str());
   } else if (verb == "format") {
      Korvo::Platform::printAllTraceFormat();
      std::cout << std::endl;
   } else if (verb == "map") {
      Korvo::Platform::dumpKorvoDebugMap();
   } else if (verb == "nullfile") {
      Korvo::Platform::dumpDebugMsg("tail", 4, 1, getDebugHandler("KorvoChild").get(), nullptr,
                                    "func", 7);
   } else if (verb == "throw") {
      throw std::runtime_error("boom");
   }
}

int main(int argc, char** argv) {
   for (int i = 1; i < argc; ++i)
      run(argv[i]);
   return 0;
}
