// Runs a libFuzzer-style harness without libFuzzer: each seed file as it is, then
// inputs mutated from them by a seeded generator, the same on every run. Takes the
// options CTest passes: -runs=N [other -options] [corpus directories...]

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
   unsigned long runs = 20000;
   std::vector<std::string> seeds(1);  // and the empty input
   for (int i = 1; i < argc; ++i) {
      if (std::sscanf(argv[i], "-runs=%lu", &runs) || argv[i][0] == '-')
         continue;
      std::error_code ignored;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i], ignored)) {
         std::ifstream in(entry.path(), std::ios::binary);
         seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      }
   }
   // Each mutation replaces a few bytes by a random one or by a piece of a seed
   // (which holds the separators, brackets, markers and numbers of /proc texts).
   std::mt19937_64 random(1);
   for (unsigned long i = 0; i < seeds.size() + runs; ++i) {
      std::string s = seeds[i % seeds.size()];
      for (unsigned long steps = i < seeds.size() ? 0 : 1 + random() % 4; steps > 0; --steps) {
         const std::string& other = seeds[random() % seeds.size()];
         const std::string piece = random() % 3
                                       ? other.substr(random() % (other.size() + 1), random() % 64)
                                       : std::string(1, static_cast<char>(random()));
         s.replace(random() % (s.size() + 1), random() % 16, piece);
      }
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()),
                             std::min<size_t>(s.size(), 4096));
   }
   std::printf("Done %lu runs over %zu seeds\n", runs, seeds.size() - 1);
}
