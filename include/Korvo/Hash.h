#ifndef KORVO_HASH_H
#define KORVO_HASH_H

// Word-at-a-time FNV-1a hashing and a compact text form of 32-bit values.
//
// The hash consumes one machine word (4 bytes for 32-bit state, 8 for 64-bit) per
// multiply instead of one byte, so its values differ from the published byte-wise
// FNV values. A trailing partial word is placed in the high bytes of a zeroed word.
// Results are stable across runs and processes; they are not for security use.

#include <Korvo/Export.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace Korvo {
namespace Impl {

static_assert(std::endian::native == std::endian::little,
              "the hash reads words in little-endian order");

template <typename State>
struct HashPrime;
template <>
struct HashPrime<unsigned int> {
   static constexpr unsigned int value = 0x01000193u;
};
template <>
struct HashPrime<unsigned long> {
   static constexpr unsigned long value = 0x100000001B3ul;
};

// A running hash state. Each mix returns the state for chaining:
//    HashMix<unsigned long>(basis).mix(a, n).mixFixedLen<4>(&b).value()
template <typename State>
class HashMix {
public:
   static constexpr unsigned wordBytes = sizeof(State);
   static constexpr State prime = HashPrime<State>::value;

   explicit HashMix(State state) : state_(state) {}

   State value() const { return state_; }

   // Out of line: the library's own entry points use these.
   HashMix& mix(const void* data, unsigned long len);
   HashMix& mix(const std::string& s) { return mix(s.data(), s.size()); }

   HashMix& mixInline(const void* data, unsigned long len) {
      const unsigned char* p = static_cast<const unsigned char*>(data);
      for (; len >= wordBytes; p += wordBytes, len -= wordBytes) {
         State word;
         std::memcpy(&word, p, wordBytes);
         mixWord(word);
      }
      if (len > 0) {
         State word = 0;
         std::memcpy(reinterpret_cast<unsigned char*>(&word) + (wordBytes - len), p, len);
         mixWord(word);
      }
      return *this;
   }

   // The same rule for a length known at compile time: N = 1, 2, 4 or 8.
   template <unsigned N>
   HashMix& mixFixedLen(const void* data) {
      static_assert(N == 1 || N == 2 || N == 4 || N == 8, "mixFixedLen takes 1, 2, 4 or 8 bytes");
      if constexpr (N >= wordBytes) {
         const unsigned char* p = static_cast<const unsigned char*>(data);
         for (unsigned i = 0; i < N; i += wordBytes) {
            State word;
            std::memcpy(&word, p + i, wordBytes);
            mixWord(word);
         }
      } else {
         using Part =
             std::conditional_t<N == 1, uint8_t, std::conditional_t<N == 2, uint16_t, uint32_t>>;
         Part part;
         std::memcpy(&part, data, N);
         mixWord(static_cast<State>(part) << (8 * (wordBytes - N)));
      }
      return *this;
   }

private:
   void mixWord(State word) { state_ = (state_ ^ word) * prime; }

   State state_;
};

extern template class KORVO_EXPORT HashMix<unsigned int>;
extern template class KORVO_EXPORT HashMix<unsigned long>;

}  // namespace Impl

namespace Util {

constexpr unsigned int hashBasis32 = 0x811C9DC5u;
constexpr unsigned long hashBasis64 = 0xCBF29CE484222325ul;

KORVO_EXPORT unsigned int hash(const std::string& s);
KORVO_EXPORT unsigned int hash(const void* data, unsigned int len);
KORVO_EXPORT unsigned long hash64(const std::string& s);
KORVO_EXPORT unsigned long hash64(const void* data, unsigned int len);

// Six characters, least significant 6 bits first, from the alphabet A-Z a-z 0-9 _ =
// (deliberately not the standard base64 pair). The last carries only the top two bits.
KORVO_EXPORT std::string base64Encode(unsigned int value);

}  // namespace Util
}  // namespace Korvo

#endif
