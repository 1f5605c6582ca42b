#include <Korvo/Hash.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using Korvo::Impl::HashMix;
constexpr unsigned basis32 = 0x811C9DC5u;
constexpr unsigned long basis64 = 0xCBF29CE484222325ul;

// Word-wise FNV-1a written out byte by byte: a word is read little-endian, and a
// tail of n bytes lands in the top n bytes of a zero word.
template <typename State>
State referenceHash(State state, const unsigned char* p, size_t len) {
   constexpr size_t W = sizeof(State);
   for (size_t i = 0; i < len; i += W) {
      const size_t n = std::min(W, len - i);
      State word = 0;
      for (size_t b = 0; b < n; ++b)
         word |= State(p[i + b]) << (8 * (W - n + b));
      state = (state ^ word) * (W == 4 ? State(0x01000193u) : State(0x100000001B3ull));
   }
   return state;
}

TEST(HashTest, EveryEntryPointMatchesTheReference) {
   std::mt19937 gen(7);
   std::string buffer(300, '\0');
   std::generate(buffer.begin(), buffer.end(), [&] { return static_cast<char>(gen()); });
   const auto* bytes = reinterpret_cast<const unsigned char*>(buffer.data());
   for (size_t offset = 0; offset < 8; ++offset) {
      const unsigned char* p = bytes + offset;
      for (size_t len = 0; len + offset <= buffer.size(); len += (len < 40 ? 1 : 13)) {
         const unsigned n = static_cast<unsigned>(len);
         ASSERT_EQ(Korvo::Util::hash(p, n), referenceHash(basis32, p, len)) << len << "@" << offset;
         ASSERT_EQ(Korvo::Util::hash64(p, n), referenceHash(basis64, p, len))
             << len << "@" << offset;
      }
      // The fixed lengths: a part of a word, or whole words; and chained.
      EXPECT_EQ(HashMix<unsigned>(basis32).mixFixedLen<2>(p).value(), referenceHash(basis32, p, 2));
      EXPECT_EQ(HashMix<unsigned>(basis32).mixFixedLen<8>(p).value(), referenceHash(basis32, p, 8));
      EXPECT_EQ(HashMix<unsigned long>(basis64).mix(p, 8).mixFixedLen<4>(p + 8).value(),
                referenceHash(basis64, p, 12));
   }
   EXPECT_TRUE(Korvo::Util::hash(buffer) == Korvo::Util::hash(bytes, 300) &&
               Korvo::Util::hash64(buffer) == Korvo::Util::hash64(bytes, 300));
   // Six characters, least significant six bits first, from A-Z a-z 0-9 _ =.
   EXPECT_EQ(Korvo::Util::base64Encode(62) + Korvo::Util::base64Encode(~0u), "_AAAAA=====D");
}
