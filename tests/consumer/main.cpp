// Built against an installed libKorvo by find_package(Korvo) and by pkg-config.
#include <Korvo/Korvo.h>

#include <iostream>

int main() {
   auto handler = Korvo::Platform::getDebugHandler("KorvoConsumer");
   KORVO_TRACE(handler, 0, "consumer linked");
   Korvo::eventLoopTimeout(0.0);
   std::cout << "consumer ok " << handler->name << std::endl;
   return handler->enabled(0) ? 0 : 1;
}
