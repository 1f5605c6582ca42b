#include <Korvo/Hash.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using Korvo::Impl::HashMix;

namespace {

// Word-wise FNV-1a written out byte by byte: each full word is assembled
// little-endian; a tail of r bytes lands in the top r bytes of a zero word.
template <typename State>
State referenceHash(State state, const unsigned char* p, size_t len) {
   constexpr size_t W = sizeof(State);
   constexpr State prime = sizeof(State) == 4 ? State(0x01000193u) : State(0x100000001B3ull);
   size_t i = 0;
   for (; i + W <= len; i += W) {
      State word = 0;
      for (size_t b = 0; b < W; ++b) {
         word |= State(p[i + b]) << (8 * b);
      }
      state = (state ^ word) * prime;
   }
   const size_t r = len - i;
   if (r > 0) {
      State word = 0;
      for (size_t b = 0; b < r; ++b) {
         word |= State(p[i + b]) << (8 * (W - r + b));
      }
      state = (state ^ word) * prime;
   }
   return state;
}

}  // namespace

TEST(HashTest, KnownValues) {
   EXPECT_EQ(Korvo::Util::hash(std::string()), 0x811C9DC5u);
   EXPECT_EQ(Korvo::Util::hash64(std::string()), 0xCBF29CE484222325ul);
   // Three bytes make one word with a, b, c in its top three bytes.
   const unsigned int word = (unsigned('a') << 8) | (unsigned('b') << 16) | (unsigned('c') << 24);
   EXPECT_EQ(Korvo::Util::hash("abc"), (0x811C9DC5u ^ word) * 0x01000193u);
   EXPECT_EQ(Korvo::Util::hash("abc", 3), Korvo::Util::hash(std::string("abc")));
   // Not the byte-wise FNV-1a value of "a" (0xE40C292C).
   EXPECT_NE(Korvo::Util::hash("a"), 0xE40C292Cu);
   const unsigned long word64 = 0x6162636465666768ul;  // "hgfedcba" read little-endian
   EXPECT_EQ(Korvo::Util::hash64("hgfedcba"), (0xCBF29CE484222325ul ^ word64) * 0x100000001B3ul);
}

TEST(HashTest, MatchesReferenceForEveryLengthAndAlignment) {
   std::mt19937 gen(7);
   std::vector<unsigned char> buffer(300);
   for (auto& b : buffer) {
      b = static_cast<unsigned char>(gen());
   }
   for (size_t offset = 0; offset < 8; ++offset) {
      for (size_t len = 0; len + offset <= buffer.size(); len += (len < 40 ? 1 : 13)) {
         const unsigned char* p = buffer.data() + offset;
         ASSERT_EQ(Korvo::Util::hash(p, static_cast<unsigned>(len)),
                   referenceHash<unsigned int>(0x811C9DC5u, p, len))
             << "len " << len << " offset " << offset;
         ASSERT_EQ(Korvo::Util::hash64(p, static_cast<unsigned>(len)),
                   referenceHash<unsigned long>(0xCBF29CE484222325ul, p, len))
             << "len " << len << " offset " << offset;
      }
   }
}

TEST(HashTest, FixedLengthAndChainedMixesAgreeWithTheGeneralRule) {
   const unsigned char data[8] = {0x01, 0x82, 0x03, 0x84, 0x05, 0x86, 0x07, 0x88};
   auto fixed32 = [&](auto n) {
      return HashMix<unsigned int>(0x811C9DC5u).mixFixedLen<decltype(n)::value>(data).value();
   };
   auto fixed64 = [&](auto n) {
      return HashMix<unsigned long>(0xCBF29CE484222325ul)
          .mixFixedLen<decltype(n)::value>(data)
          .value();
   };
   auto inline32 = [&](unsigned long n) {
      return HashMix<unsigned int>(0x811C9DC5u).mixInline(data, n).value();
   };
   auto inline64 = [&](unsigned long n) {
      return HashMix<unsigned long>(0xCBF29CE484222325ul).mixInline(data, n).value();
   };
   using One = std::integral_constant<unsigned, 1>;
   using Two = std::integral_constant<unsigned, 2>;
   using Four = std::integral_constant<unsigned, 4>;
   using Eight = std::integral_constant<unsigned, 8>;
   EXPECT_EQ(fixed32(One{}), inline32(1));
   EXPECT_EQ(fixed32(Two{}), inline32(2));
   EXPECT_EQ(fixed32(Four{}), inline32(4));
   EXPECT_EQ(fixed32(Eight{}), inline32(8));
   EXPECT_EQ(fixed64(One{}), inline64(1));
   EXPECT_EQ(fixed64(Two{}), inline64(2));
   EXPECT_EQ(fixed64(Four{}), inline64(4));
   EXPECT_EQ(fixed64(Eight{}), inline64(8));
   // One byte sits at the top of the word: shifted by 24 (32-bit) or 56 (64-bit).
   EXPECT_EQ(fixed32(One{}), (0x811C9DC5u ^ (0x01u << 24)) * 0x01000193u);
   EXPECT_EQ(fixed64(One{}), (0xCBF29CE484222325ul ^ (0x01ul << 56)) * 0x100000001B3ul);

   // Mixing pieces chains: whole words split at word boundaries give the same state.
   const std::string s = "0123456789abcdef";
   EXPECT_EQ(HashMix<unsigned int>(0x811C9DC5u).mix(s.data(), 8).mix(s.data() + 8, 8).value(),
             Korvo::Util::hash(s));
   EXPECT_EQ(HashMix<unsigned long>(0xCBF29CE484222325ul).mix(s).value(), Korvo::Util::hash64(s));
}

TEST(HashTest, Base64Encode) {
   EXPECT_EQ(Korvo::Util::base64Encode(0), "AAAAAA");
   EXPECT_EQ(Korvo::Util::base64Encode(63), "=AAAAA");
   EXPECT_EQ(Korvo::Util::base64Encode(62), "_AAAAA");
   EXPECT_EQ(Korvo::Util::base64Encode(64), "ABAAAA");
   // The sixth character carries the top two bits only.
   EXPECT_EQ(Korvo::Util::base64Encode(0xFFFFFFFFu), "=====D");
   EXPECT_EQ(Korvo::Util::base64Encode(0x40000000u), "AAAAAB");
   for (unsigned v : {1u, 12345u, 0xDEADBEEFu}) {
      EXPECT_EQ(Korvo::Util::base64Encode(v).size(), 6u);
   }
}
