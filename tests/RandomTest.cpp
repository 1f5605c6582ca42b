#include <Korvo/Random.h>

#include <gtest/gtest.h>

#include <random>

// In a forked child: the first setSeed() chooses the seed (from QXTEST_RANDSEED when
// `value` is given); a second one, with the variable changed, keeps it and restarts
// the sequence.
void seedTwiceAndDraw(const char* value) {
   value ? ::setenv("QXTEST_RANDSEED", value, 1) : ::unsetenv("QXTEST_RANDSEED");
   Korvo::Random::setSeed();
   const unsigned seed = Korvo::Random::getSeed();
   ::setenv("QXTEST_RANDSEED", "7", 1);
   Korvo::Random::setSeed();
   std::fprintf(stderr, "same=%d first=%llu\n", seed == Korvo::Random::getSeed(),
                static_cast<unsigned long long>(Korvo::Random::rand64()));
   std::exit(0);
}

TEST(RandomDeathTest, TheSeedComesFromTheEnvironmentOnceAndIsPrinted) {
   EXPECT_EXIT(seedTwiceAndDraw("42"), ::testing::ExitedWithCode(0),
               "Korvo::Random::setSeed\\(\\), setting seed to 42\n"
               "Korvo::Random::setSeed\\(\\), setting seed to 42\nsame=1 first=" +
                   std::to_string(std::mt19937_64(42)()));
}

TEST(RandomTest, RandomStringDrawsFromItsAlphabetAndZero) {
   const std::string s = Korvo::Random::randomString(20000);
   const auto zeros = std::count(s.begin(), s.end(), '\0');  // about one in 63: ~317
   EXPECT_TRUE(s.size() == 20000 && zeros > 150 && zeros < 500) << zeros;
   EXPECT_TRUE(std::all_of(s.begin(), s.end(), [](char c) { return std::isalnum(c) || !c; }));
}
