#include <Korvo/Random.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <random>
#include <string>

namespace {

// In a forked child: the first setSeed() chooses the seed (from QXTEST_RANDSEED when
// `value` is given); a second one, with the variable changed, keeps it and restarts
// the sequence.
void seedTwiceAndDraw(const char* value) {
   value ? ::setenv("QXTEST_RANDSEED", value, 1) : ::unsetenv("QXTEST_RANDSEED");
   Korvo::Random::setSeed();
   const unsigned seed = Korvo::Random::getSeed();
   ::setenv("QXTEST_RANDSEED", "7", 1);
   Korvo::Random::setSeed();
   const unsigned long long first = Korvo::Random::rand64(), second = Korvo::Random::rand64();
   std::fprintf(stderr, "same=%d draws=%llu,%llu\n", seed == Korvo::Random::getSeed(), first,
                second);
   std::exit(0);
}

TEST(RandomDeathTest, TheSeedComesFromTheEnvironmentOnceAndIsPrinted) {
   std::mt19937_64 expected(42);
   const unsigned long long first = expected(), second = expected();
   EXPECT_EXIT(seedTwiceAndDraw("42"), ::testing::ExitedWithCode(0),
               "Korvo::Random::setSeed\\(\\), setting seed to 42\n"
               "Korvo::Random::setSeed\\(\\), setting seed to 42\n"
               "same=1 draws=" +
                   std::to_string(first) + "," + std::to_string(second));
   EXPECT_EXIT(seedTwiceAndDraw(nullptr), ::testing::ExitedWithCode(0), "same=1 draws=");
}

TEST(RandomTest, RandomStringDrawsFromItsAlphabetAndZero) {
   std::srand(1);
   const std::string s = Korvo::Random::randomString(20000);
   ASSERT_EQ(s.size(), 20000u);
   size_t zeros = 0;
   for (char c : s) {
      ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '\0');
      zeros += c == '\0';
   }
   // About one in 63 is a zero byte (expected ~317).
   EXPECT_GT(zeros, 150u);
   EXPECT_LT(zeros, 500u);
}

}  // namespace
