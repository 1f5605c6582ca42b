// Naming the dynamic type behind a virtual table pointer that may be garbage.
#define KORVO_SOURCE_FILE "UtilCpp"
#include "Korvo/Debug.h"
#include "Korvo/Exception.h"
#include "Korvo/Util.h"
#include "UtilImpl.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace Korvo::Util {
namespace {

constexpr size_t maxTypeNameLength = 1024;
constexpr uintptr_t pageSize = 4096;

// Copies `n` bytes from `address` of this process, or fails instead of faulting.
// process_vm_readv() reports an unmapped source as an error; where it is not
// allowed (seccomp, old kernels) a pipe write does the same check.
bool safeRead(const void* address, void* out, size_t n) {
   iovec local{out, n};
   iovec remote{const_cast<void*>(address), n};
   const ssize_t got = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
   if (got == static_cast<ssize_t>(n)) {
      return true;
   }
   if (got >= 0 || (errno != ENOSYS && errno != EPERM)) {
      return false;
   }
   int pipeFds[2];
   if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
      return false;
   }
   const bool ok = ::write(pipeFds[1], address, n) == static_cast<ssize_t>(n) &&
                   ::read(pipeFds[0], out, n) == static_cast<ssize_t>(n);
   ::close(pipeFds[0]);
   ::close(pipeFds[1]);
   return ok;
}

bool safeReadWord(uintptr_t address, uintptr_t& word) {
   return address % alignof(uintptr_t) == 0 &&
          safeRead(reinterpret_cast<const void*>(address), &word, sizeof(word));
}

// A NUL-terminated string of at most maxTypeNameLength characters, read in
// pieces that never cross a page the string does not reach.
bool safeReadString(uintptr_t address, std::string& out) {
   while (out.size() < maxTypeNameLength) {
      char chunk[64];
      const size_t n = std::min<size_t>(sizeof(chunk), pageSize - address % pageSize);
      if (!safeRead(reinterpret_cast<const void*>(address), chunk, n)) {
         return false;
      }
      const size_t length = strnlen(chunk, n);
      out.append(chunk, length);
      if (length < n) {
         return true;
      }
      address += n;
   }
   return false;
}

// True when `address` lies in the virtual table of one of the C++ runtime's
// type_info classes, which every type_info object's first word points into.
bool isTypeInfoVtable(uintptr_t address) {
   Dl_info info;
   if (::dladdr(reinterpret_cast<const void*>(address), &info) == 0 || info.dli_sname == nullptr) {
      return false;
   }
   return std::string_view(info.dli_sname).substr(0, 17) == "_ZTVN10__cxxabiv1";
}

// Itanium C++ ABI: the word before the address point of a virtual table holds
// the type_info pointer; a type_info holds its own vptr, then the mangled name.
bool mangledNameFromVptr(const void* vptr, std::string& mangled) {
   const auto address = reinterpret_cast<uintptr_t>(vptr);
   uintptr_t typeInfo = 0;
   uintptr_t typeInfoVptr = 0;
   uintptr_t name = 0;
   if (address < sizeof(uintptr_t) || !safeReadWord(address - sizeof(uintptr_t), typeInfo) ||
       !safeReadWord(typeInfo, typeInfoVptr) || !isTypeInfoVtable(typeInfoVptr) ||
       !safeReadWord(typeInfo + sizeof(uintptr_t), name) || !safeReadString(name, mangled)) {
      return false;
   }
   // Types with internal linkage carry a leading "*" in their name.
   if (!mangled.empty() && mangled[0] == '*') {
      mangled.erase(0, 1);
   }
   return !mangled.empty();
}

}  // namespace

std::string typenameFromVptr(const void* vptr) {
   std::string mangled;
   if (!mangledNameFromVptr(vptr, mangled)) {
      std::string text = "Bad vptr:" + DisplayPointer(vptr).toString();
      KORVO_TRACE(Impl::utilHandler(), 1, "Util::typenameFromVptr() " << text);
      return text;
   }
   return typeName(mangled.c_str());
}

}  // namespace Korvo::Util
