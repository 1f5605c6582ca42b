#ifndef KORVO_INTROSPECTIONMAP_H
#define KORVO_INTROSPECTIONMAP_H

// How values of named types look in traces.
//
// A component that traces opaque values (Platform::ValuePrinter) asks the process-wide
// introspection map for a printer registered under the value's type name, and falls
// back to dumpHex() when there is none. Applications register printers for their own
// types, usually at start-up:
//
//    Korvo::IntrospectionMap::printerIs("Money", [](const void* v, int) {
//       return std::to_string(static_cast<const Money*>(v)->cents) + " cents";
//    });

#include <Korvo/Export.h>

#include <functional>
#include <string>

namespace Korvo {

class KORVO_EXPORT IntrospectionMap {
public:
   // Renders the `size` bytes at `value`. An empty result means "nothing to say": the
   // caller then shows the hex dump.
   using Printer = std::function<std::string(const void* value, int size)>;

   // Registers `printer` for `typeName`, replacing the one registered before; an empty
   // printer removes the entry. Any thread (takes the library lock).
   static void printerIs(const std::string& typeName, Printer printer);
   // The printer registered for `typeName`, or an empty function. Any thread; the
   // printer is called by the caller, outside the lock, so it may trace.
   static Printer printer(const std::string& typeName);
   // Number of registered printers.
   static size_t printers();
};

// The `size` bytes at `data` in memory order, each as two lower-case hex digits,
// separated by single blanks: "de ad be ef". A size of 0 or less gives the empty
// string; a null `data` with a positive size gives "NULL".
KORVO_EXPORT std::string dumpHex(const void* data, int size);

}  // namespace Korvo

#endif
