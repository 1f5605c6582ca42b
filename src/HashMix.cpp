#include "Korvo/Hash.h"

namespace Korvo {
namespace Impl {

template <typename State>
HashMix<State>& HashMix<State>::mix(const void* data, unsigned long len) {
   return mixInline(data, len);
}

template class HashMix<unsigned int>;
template class HashMix<unsigned long>;

}  // namespace Impl

namespace Util {

unsigned int hash(const std::string& s) {
   return Impl::HashMix<unsigned int>(hashBasis32).mix(s).value();
}

unsigned int hash(const void* data, unsigned int len) {
   return Impl::HashMix<unsigned int>(hashBasis32).mix(data, len).value();
}

unsigned long hash64(const std::string& s) {
   return Impl::HashMix<unsigned long>(hashBasis64).mix(s).value();
}

unsigned long hash64(const void* data, unsigned int len) {
   return Impl::HashMix<unsigned long>(hashBasis64).mix(data, len).value();
}

std::string base64Encode(unsigned int value) {
   static constexpr char alphabet[] =
       "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
   std::string out(6, 'A');
   for (char& c : out) {
      c = alphabet[value & 63u];
      value >>= 6;
   }
   return out;
}

}  // namespace Util
}  // namespace Korvo
