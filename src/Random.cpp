#include "Korvo/Random.h"

#include <time.h>

#include <cstdlib>
#include <iostream>
#include <random>

namespace Korvo {
namespace {

uint32_t seed_ = 0;
bool seedChosen_ = false;
std::mt19937_64 generator_;

uint32_t chooseSeed() {
   if (const char* env = std::getenv("QXTEST_RANDSEED")) {
      return static_cast<uint32_t>(std::strtoul(env, nullptr, 10));
   }
   timespec now{};
   clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<uint32_t>(now.tv_nsec);
}

}  // namespace

void Random::setSeed() {
   // The seed is chosen once, so that every reseed of a process repeats one sequence.
   if (!seedChosen_) {
      seed_ = chooseSeed();
      seedChosen_ = true;
   }
   std::cerr << "Korvo::Random::setSeed(), setting seed to " << seed_ << std::endl;
   std::srand(seed_);
   generator_.seed(seed_);
}

uint32_t Random::getSeed() {
   return seed_;
}

uint64_t Random::rand64() {
   return generator_();
}

std::string Random::randomString(unsigned int length) {
   // The terminating zero of the alphabet is a 63rd character on purpose: callers
   // rely on random strings that sometimes carry embedded zero bytes.
   static constexpr char alphabet[] =
       "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
   static_assert(sizeof(alphabet) == 63);
   std::string out(length, '\0');
   for (char& c : out) {
      c = alphabet[std::rand() % sizeof(alphabet)];
   }
   return out;
}

}  // namespace Korvo
