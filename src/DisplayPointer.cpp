#include "Korvo/Debug.h"

#include <iomanip>
#include <sstream>

namespace Korvo {

std::ostream& operator<<(std::ostream& os, const DisplayPointer& p) {
   if (p.toValue() == nullptr) {
      return os << "NULL";
   }
   // Save and restore the caller's formatting so hex does not leak into the rest
   // of the message.
   const std::ios_base::fmtflags flags = os.flags();
   const char fill = os.fill();
   os << "0x" << std::hex << std::nouppercase << std::setfill('0') << std::setw(16)
      << reinterpret_cast<uintptr_t>(p.toValue());
   os.flags(flags);
   os.fill(fill);
   return os;
}

std::string DisplayPointer::toString() const {
   std::ostringstream os;
   os << *this;
   return os.str();
}

namespace Impl {

void DisplaySubStringBase::addToStream(std::ostream& os, const char* s, size_t offset,
                                       size_t length) {
   os.write(s + offset, static_cast<std::streamsize>(length));
}

std::string DisplaySubStringBase::toString(const char* s, size_t offset, size_t length) {
   return std::string(s + offset, length);
}

}  // namespace Impl
}  // namespace Korvo
