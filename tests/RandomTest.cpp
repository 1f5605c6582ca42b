#include <Korvo/Random.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

namespace {

// In a forked child: seed from QXTEST_RANDSEED=42, print the first draws and exit.
void seedFromEnvironmentAndDraw() {
   setenv("QXTEST_RANDSEED", "42", 1);
   Korvo::Random::setSeed();
   Korvo::Random::setSeed();
   const unsigned long long first = Korvo::Random::rand64();
   const unsigned long long second = Korvo::Random::rand64();
   std::fprintf(stderr, "seed=%u draws=%llu,%llu\n", Korvo::Random::getSeed(), first, second);
   std::exit(0);
}

}  // namespace

TEST(RandomDeathTest, SeedFromEnvironmentIsPrintedAndRepeatsTheSequence) {
   // Reseeding restarts the sequence, so the first two draws after the second
   // setSeed() are the generator's first two for seed 42.
   std::mt19937_64 expected(42);
   const unsigned long long first = expected();
   const unsigned long long second = expected();
   const std::string pattern =
       "Korvo::Random::setSeed\\(\\), setting seed to 42\n"
       "Korvo::Random::setSeed\\(\\), setting seed to 42\n"
       "seed=42 draws=" +
       std::to_string(first) + "," + std::to_string(second);
   // Each child is a fresh run of the program: both produce the same output.
   EXPECT_EXIT(seedFromEnvironmentAndDraw(), ::testing::ExitedWithCode(0), pattern);
   EXPECT_EXIT(seedFromEnvironmentAndDraw(), ::testing::ExitedWithCode(0), pattern);
}

TEST(RandomDeathTest, SeedIsChosenOncePerProcess) {
   EXPECT_EXIT(
       {
          unsetenv("QXTEST_RANDSEED");
          Korvo::Random::setSeed();
          const unsigned first = Korvo::Random::getSeed();
          setenv("QXTEST_RANDSEED", "7", 1);
          Korvo::Random::setSeed();  // the environment is read on the first call only
          std::exit(Korvo::Random::getSeed() == first ? 0 : 1);
       },
       ::testing::ExitedWithCode(0), "setting seed to");
}

TEST(RandomTest, RandomStringHasTheRequestedLengthAndAlphabet) {
   std::srand(1);
   const std::string alphabet =
       std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") + '\0';
   const std::string s = Korvo::Random::randomString(20000);
   ASSERT_EQ(s.size(), 20000u);
   size_t zeros = 0;
   for (char c : s) {
      ASSERT_NE(alphabet.find(c), std::string::npos);
      zeros += c == '\0';
   }
   // About one in 63 is a zero byte (expected ~317).
   EXPECT_GT(zeros, 150u);
   EXPECT_LT(zeros, 500u);
   EXPECT_EQ(Korvo::Random::randomString(0), "");
}
