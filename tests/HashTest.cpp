#include <Korvo/Hash.h>

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

namespace {

using Korvo::Impl::HashMix;
constexpr unsigned basis32 = 0x811C9DC5u;
constexpr unsigned long basis64 = 0xCBF29CE484222325ul;

// Word-wise FNV-1a written out byte by byte: a word is read little-endian, and a
// tail of n bytes lands in the top n bytes of a zero word.
template <typename State>
State referenceHash(State state, const unsigned char* p, size_t len) {
   constexpr size_t W = sizeof(State);
   constexpr State prime = W == 4 ? State(0x01000193u) : State(0x100000001B3ull);
   for (size_t i = 0; i < len; i += W) {
      const size_t n = std::min(W, len - i);
      State word = 0;
      for (size_t b = 0; b < n; ++b)
         word |= State(p[i + b]) << (8 * (W - n + b));
      state = (state ^ word) * prime;
   }
   return state;
}

template <unsigned N, typename State>
void expectFixedLen(State basis, const unsigned char* p) {
   EXPECT_EQ(HashMix<State>(basis).template mixFixedLen<N>(p).value(), referenceHash(basis, p, N))
       << N << " bytes";
}

TEST(HashTest, EveryEntryPointMatchesTheReference) {
   std::mt19937 gen(7);
   std::vector<unsigned char> buffer(300);
   for (auto& b : buffer)
      b = static_cast<unsigned char>(gen());
   for (size_t offset = 0; offset < 8; ++offset) {
      const unsigned char* p = buffer.data() + offset;
      for (size_t len = 0; len + offset <= buffer.size(); len += (len < 40 ? 1 : 13)) {
         SCOPED_TRACE("len " + std::to_string(len) + " offset " + std::to_string(offset));
         const unsigned n = static_cast<unsigned>(len);
         ASSERT_EQ(Korvo::Util::hash(p, n), referenceHash(basis32, p, len));
         ASSERT_EQ(Korvo::Util::hash64(p, n), referenceHash(basis64, p, len));
      }
      // The fixed lengths, and chaining a fixed word after a general mix.
      [&]<unsigned... N>(std::integer_sequence<unsigned, N...>) {
         (expectFixedLen<N>(basis32, p), ...);
         (expectFixedLen<N>(basis64, p), ...);
      }
      (std::integer_sequence<unsigned, 1, 2, 4, 8>{});
      EXPECT_EQ(HashMix<unsigned long>(basis64).mix(p, 8).mixFixedLen<8>(p + 8).value(),
                referenceHash(basis64, p, 16));
   }
   const std::string abc = "abc";
   EXPECT_EQ(Korvo::Util::hash(abc), referenceHash(basis32, (const unsigned char*)"abc", 3));
   EXPECT_EQ(Korvo::Util::hash64(abc), referenceHash(basis64, (const unsigned char*)"abc", 3));
   EXPECT_EQ(Korvo::Util::hash(std::string()), basis32);
   EXPECT_NE(Korvo::Util::hash("a"), 0xE40C292Cu) << "not the byte-wise FNV-1a value";
}

TEST(HashTest, Base64EncodeLeastSignificantFirst) {
   const std::pair<unsigned, const char*> cases[] = {
       {0, "AAAAAA"},  {62, "_AAAAA"},          {63, "=AAAAA"},
       {64, "ABAAAA"}, {0xFFFFFFFFu, "=====D"}, {0x40000000u, "AAAAAB"}};
   for (const auto& [value, text] : cases)
      EXPECT_EQ(Korvo::Util::base64Encode(value), text) << value;
}

}  // namespace
