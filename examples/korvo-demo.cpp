// The demonstration daemon: shows tracing under TRACE / TRACEFORMAT.
//
//   TRACE=KorvoDemo/0125 TRACEFORMAT=time,handle,level,line-info build/examples/korvo-demo

#include <Korvo/Korvo.h>

#include <unistd.h>

#include <iostream>

int main() {
   auto log = Korvo::Platform::getDebugHandler("KorvoDemo");
   KORVO_TRACE(log, 0, "korvo-demo starting, pid " << ::getpid());
   KORVO_FMTRACE(log, 5, "routine progress is traced at level {}", 5);
   KORVO_TRACE(log, 9, "fine detail (level 9) shows only when TRACE asks for it");
   std::cout << "Trace registry:" << std::endl;
   Korvo::Platform::dumpKorvoDebugMap();
   KORVO_TRACE(log, 0, "korvo-demo done");
   return 0;
}
