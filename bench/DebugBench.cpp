// Cost of trace sites: a disabled site against an empty loop, and an enabled
// line written to a file against fprintf + fflush of the same text.

#include <Korvo/Debug.h>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void BM_EmptyLoop(benchmark::State& state) {
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(i);
      ++i;
   }
}
BENCHMARK(BM_EmptyLoop);

void BM_DisabledTraceSite(benchmark::State& state) {
   auto handler = Korvo::Platform::getDebugHandler("BenchDisabled");
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(i);
      KORVO_TRACE(handler, 5, "value " << i);
      ++i;
   }
}
BENCHMARK(BM_DisabledTraceSite);

void BM_DisabledFmtTraceSite(benchmark::State& state) {
   auto handler = Korvo::Platform::getDebugHandler("BenchDisabled");
   int i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(i);
      KORVO_FMTRACE(handler, 5, "value {}", i);
      ++i;
   }
}
BENCHMARK(BM_DisabledFmtTraceSite);

std::string scratchFile(const char* name) {
   return std::string("/tmp/korvo-bench-") + std::to_string(::getpid()) + "-" + name;
}

// The line our default format writes: date, time, tid, handler, level, message.
void BM_FprintfFflush(benchmark::State& state) {
   const std::string path = scratchFile("fprintf");
   FILE* f = std::fopen(path.c_str(), "w");
   int i = 0;
   for (auto _ : state) {
      std::fprintf(f, "2026-11-21 12:00:00.123456 4242 BenchEnabled 5 value %d\n", i++);
      std::fflush(f);
   }
   std::fclose(f);
   std::remove(path.c_str());
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FprintfFflush);

// Traces every iteration on an enabled handler whose lines go to a scratch file.
template <typename Trace>
void traceToFile(benchmark::State& state, const char* file, Trace trace) {
   const std::string path = scratchFile(file);
   ::setenv("TRACEFILE", path.c_str(), 1);
   Korvo::Platform::setupKorvoDebug("BenchEnabled/5");
   auto handler = Korvo::Platform::getDebugHandler("BenchEnabled");
   int i = 0;
   for (auto _ : state) {
      trace(*handler, i++);
   }
   ::unsetenv("TRACEFILE");
   Korvo::Platform::setupKorvoDebug("");
   std::remove(path.c_str());
   state.SetItemsProcessed(state.iterations());
}

void BM_EnabledTraceToFile(benchmark::State& state) {
   traceToFile(state, "trace",
               [](auto& handler, int i) { KORVO_TRACE(handler, 5, "value " << i); });
}
BENCHMARK(BM_EnabledTraceToFile);

void BM_EnabledFmtTraceToFile(benchmark::State& state) {
   traceToFile(state, "fmtrace",
               [](auto& handler, int i) { KORVO_FMTRACE(handler, 5, "value {}", i); });
}
BENCHMARK(BM_EnabledFmtTraceToFile);

}  // namespace

BENCHMARK_MAIN();
