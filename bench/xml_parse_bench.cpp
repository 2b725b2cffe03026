// Parsing of typical engine event documents, and the cost of one tracked allocation.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "kt/MemoryManager.h"

namespace {

// One Allocate/Free pair of the size of an XML element, against the system heap.
void BM_MemoryManagerAllocateFree(benchmark::State& state) {
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = m->Allocate(size, "xml", 1);
    benchmark::DoNotOptimize(p);
    m->Free(p, "xml", 2);
  }
}
BENCHMARK(BM_MemoryManagerAllocateFree)->Arg(64)->Arg(128)->ThreadRange(1, 2);

void BM_MallocFree(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(128)->ThreadRange(1, 2);

}  // namespace

BENCHMARK_MAIN();
