// Throughput of the word-wise FNV hashes for small, medium and page-sized inputs,
// beside the standard library's string hash on the same bytes.

#include <Korvo/Hash.h>

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <string_view>

namespace {

std::string input(int64_t size) {
   std::string s(static_cast<size_t>(size), '\0');
   for (size_t i = 0; i < s.size(); ++i) {
      s[i] = static_cast<char>(i * 131 + 7);
   }
   return s;
}

template <typename Hash>
void hashBytes(benchmark::State& state, Hash hash) {
   const std::string s = input(state.range(0));
   for (auto _ : state) {
      benchmark::DoNotOptimize(s.data());
      benchmark::DoNotOptimize(hash(s));
   }
   state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_UtilHash64(benchmark::State& state) {
   hashBytes(state, [](const std::string& s) {
      return Korvo::Util::hash64(s.data(), static_cast<unsigned>(s.size()));
   });
}
BENCHMARK(BM_UtilHash64)->Arg(8)->Arg(64)->Arg(4096);

void BM_UtilHash32(benchmark::State& state) {
   hashBytes(state, [](const std::string& s) {
      return Korvo::Util::hash(s.data(), static_cast<unsigned>(s.size()));
   });
}
BENCHMARK(BM_UtilHash32)->Arg(8)->Arg(64)->Arg(4096);

void BM_StdHashStringView(benchmark::State& state) {
   hashBytes(state, [](const std::string& s) { return std::hash<std::string_view>()(s); });
}
BENCHMARK(BM_StdHashStringView)->Arg(8)->Arg(64)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
