// Both time mappings on a 100-segment timeline: time per call and heap allocations per call.
// The mappings run on every player tick, so they must not allocate.
#include "model/SpeedTimeline.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::uint64_t> g_allocations{0};
}

// Counting replacement of the global allocator for this binary only.
void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace vantrix {
namespace {

// A 20-minute 90000-timescale source with 100 segments of mixed speeds and gaps between them.
SpeedTimeline hundredSegments() {
  constexpr std::int64_t ts = 90000;
  SpeedTimeline t({1200 * ts, ts});
  (void)t.setTrim({ts / 2, ts}, {1190 * ts, ts});
  for (std::int64_t i = 0; i < 100; ++i) {
    const std::int64_t start = (10 + i * 11) * ts;
    (void)t.addSegment({start, ts}, {start + 7 * ts + 1234, ts}, kAllSpeeds[static_cast<std::size_t>(i % 4)]);
  }
  return t;
}

template <typename Map>
void runMapping(benchmark::State& state, Map map) {
  const SpeedTimeline t = hundredSegments();
  std::int64_t tick = 0;
  const std::uint64_t before = g_allocations.load();
  for (auto _ : state) {
    // Walk the whole timeline so early and late segments are both exercised.
    tick = (tick + 3'000'037) % (1200LL * 90000);
    benchmark::DoNotOptimize(map(t, RationalTime{tick, 90000}));
  }
  state.counters["allocs_per_call"] = benchmark::Counter(
      static_cast<double>(g_allocations.load() - before) / static_cast<double>(state.iterations()));
}

void BM_outputTimeForSource(benchmark::State& state) {
  runMapping(state, [](const SpeedTimeline& t, RationalTime x) { return t.outputTimeForSource(x); });
}
void BM_sourceTimeForOutput(benchmark::State& state) {
  runMapping(state, [](const SpeedTimeline& t, RationalTime x) { return t.sourceTimeForOutput(x); });
}
BENCHMARK(BM_outputTimeForSource);
BENCHMARK(BM_sourceTimeForOutput);

}  // namespace
}  // namespace vantrix

BENCHMARK_MAIN();
