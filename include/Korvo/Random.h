#ifndef KORVO_RANDOM_H
#define KORVO_RANDOM_H

// The library's seeded random numbers.
//
// setSeed() picks the seed once per process: QXTEST_RANDSEED (decimal) when set,
// otherwise the nanoseconds of the monotonic clock. Every call prints
// "Korvo::Random::setSeed(), setting seed to <seed>" on stderr, so a failing test
// run can be repeated with the same seed, and reseeds both srand() and the 64-bit
// Mersenne Twister behind rand64().
//
// Thread: process-wide and unsynchronised; seed and draw from one thread at a time.

#include <Korvo/Export.h>

#include <cstdint>
#include <string>

namespace Korvo {

class KORVO_EXPORT Random {
public:
   static void setSeed();
   static uint32_t getSeed();
   static uint64_t rand64();
   // `length` characters drawn with rand() from the 62 letters and digits plus a
   // zero byte (about one character in 63 is '\0'); the length is always `length`.
   static std::string randomString(unsigned int length);
};

}  // namespace Korvo

#endif
