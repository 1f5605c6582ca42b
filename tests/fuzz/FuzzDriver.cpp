// Runs a libFuzzer-style harness without libFuzzer: every seed file as it is, then
// a fixed number of inputs mutated from them by a seeded generator, so that a run
// is the same every time. Takes the options CTest passes:
//    <harness> -runs=N [-seed=S] [-max_len=L] [corpus directories...]

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// Pieces that matter to /proc parsers: separators, brackets, markers, numbers.
const char* const tokens[] = {
    " ",     "\t",     "\n",    "(",      ")",          ":",
    "-",     "@",      "0",     "ffffff", "-1",         "Name:",
    "lock:", "OFDLCK", "POSIX", "->",     " (deleted)", "99999999999999999999"};

void run(const std::string& input) {
   LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
   unsigned long runs = 20000, seed = 1, maxLength = 4096;
   std::vector<std::string> seeds;
   for (int i = 1; i < argc; ++i) {
      const std::string arg = argv[i];
      if (std::sscanf(argv[i], "-runs=%lu", &runs) || std::sscanf(argv[i], "-seed=%lu", &seed) ||
          std::sscanf(argv[i], "-max_len=%lu", &maxLength) || arg[0] == '-')
         continue;
      std::error_code ignored;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(arg, ignored)) {
         std::ifstream in(entry.path(), std::ios::binary);
         if (entry.is_regular_file())
            seeds.emplace_back(std::istreambuf_iterator<char>(in),
                               std::istreambuf_iterator<char>());
      }
   }
   for (const std::string& s : seeds)
      run(s);
   run(std::string());
   std::mt19937_64 random(seed);
   auto below = [&](size_t n) { return n == 0 ? 0 : random() % n; };
   for (unsigned long i = 0; i < runs; ++i) {
      std::string s = seeds.empty() ? std::string() : seeds[i % seeds.size()];
      for (int steps = 1 + static_cast<int>(below(4)); steps > 0; --steps) {
         const size_t at = below(s.size() + 1);
         const std::string& other = seeds.empty() ? s : seeds[below(seeds.size())];
         switch (below(6)) {
            case 0:
               if (!s.empty())
                  s[below(s.size())] ^= static_cast<char>(1u << below(8));
               break;
            case 1:
               s.insert(at, 1, static_cast<char>(below(256)));
               break;
            case 2:
               s.insert(at, tokens[below(std::size(tokens))]);
               break;
            case 3:
               s.erase(at, below(16));
               break;
            case 4:
               s.resize(at);
               break;
            default:  // a piece of this or another seed
               s.insert(at, std::string(other).substr(below(other.size() + 1), below(256)));
         }
      }
      s.resize(std::min<size_t>(s.size(), maxLength));
      run(s);
   }
   std::printf("Done %lu runs over %zu seeds\n", runs, seeds.size());
   return 0;
}
