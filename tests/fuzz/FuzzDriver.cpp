// Runs a libFuzzer-style harness without libFuzzer: every seed file as it is,
// then a fixed number of inputs mutated from them by a seeded generator, so that
// a run is the same every time. Accepts the libFuzzer options CTest passes:
//    <harness> -runs=N [-seed=S] [-max_len=L] [corpus directories...]

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

struct Options {
   unsigned long runs = 20000;
   unsigned long seed = 1;
   size_t maxLength = 4096;
   std::vector<std::string> corpora;
};

bool option(const char* arg, const char* name, unsigned long& value) {
   const size_t length = std::strlen(name);
   if (std::strncmp(arg, name, length) != 0) {
      return false;
   }
   value = std::strtoul(arg + length, nullptr, 10);
   return true;
}

Options parse(int argc, char** argv) {
   Options options;
   for (int i = 1; i < argc; ++i) {
      unsigned long maxLength = 0;
      if (option(argv[i], "-runs=", options.runs) || option(argv[i], "-seed=", options.seed)) {
         continue;
      }
      if (option(argv[i], "-max_len=", maxLength)) {
         options.maxLength = maxLength;
      } else if (argv[i][0] != '-') {
         options.corpora.push_back(argv[i]);
      }
   }
   return options;
}

std::vector<std::string> readSeeds(const std::vector<std::string>& corpora) {
   std::vector<std::string> seeds;
   for (const std::string& corpus : corpora) {
      std::error_code ignored;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(corpus, ignored)) {
         if (entry.is_regular_file()) {
            std::ifstream in(entry.path(), std::ios::binary);
            seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
         }
      }
   }
   return seeds;
}

// Pieces that matter to /proc parsers: separators, brackets, markers, numbers.
const char* const tokens[] = {" ",      "  ",    "\t",     "\n",  "(",     ")",      ") (",
                              ":",      "-",     "@",      "\0",  "0",     "ffffffff", "-1",
                              "Name:",  "lock:", "OFDLCK", "POSIX", "->",  "---p",   "r-xp",
                              "[heap]", " (deleted)", "99999999999999999999999"};

class Mutator {
 public:
   Mutator(unsigned long seed, size_t maxLength) : random_(seed), maxLength_(maxLength) {}

   std::string mutate(std::string input, const std::vector<std::string>& seeds) {
      const int steps = 1 + static_cast<int>(below(4));
      for (int i = 0; i < steps; ++i) {
         step(input, seeds);
      }
      if (input.size() > maxLength_) {
         input.resize(maxLength_);
      }
      return input;
   }

 private:
   size_t below(size_t n) { return n == 0 ? 0 : random_() % n; }

   void step(std::string& s, const std::vector<std::string>& seeds) {
      const size_t at = below(s.size() + 1);
      switch (below(7)) {
         case 0:
            if (!s.empty()) {
               s[below(s.size())] ^= static_cast<char>(1u << below(8));
            }
            break;
         case 1:
            s.insert(at, 1, static_cast<char>(below(256)));
            break;
         case 2: {
            const std::string token = tokens[below(std::size(tokens))];
            s.insert(at, token.empty() ? std::string(1, '\0') : token);
            break;
         }
         case 3:
            s.erase(at, below(16));
            break;
         case 4:
            s.resize(at);
            break;
         case 5:
            s.insert(at, s.substr(below(s.size() + 1), below(64)));
            break;
         default:
            if (!seeds.empty()) {
               const std::string& other = seeds[below(seeds.size())];
               s.insert(at, other.substr(below(other.size() + 1), below(256)));
            }
            break;
      }
   }

   std::mt19937_64 random_;
   size_t maxLength_;
};

void run(const std::string& input) {
   LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
   const Options options = parse(argc, argv);
   const std::vector<std::string> seeds = readSeeds(options.corpora);
   for (const std::string& seed : seeds) {
      run(seed);
   }
   run(std::string());
   Mutator mutator(options.seed, options.maxLength);
   for (unsigned long i = 0; i < options.runs; ++i) {
      const std::string base = seeds.empty() ? std::string() : seeds[i % seeds.size()];
      run(mutator.mutate(base, seeds));
   }
   std::printf("Done %lu runs over %zu seeds\n", options.runs, seeds.size());
   return 0;
}
