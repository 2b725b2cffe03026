// Allocate/Free pairs of the tracked memory manager against malloc/free, side by side.
//
// Linked against the shared library, as a host links it, so every call goes through the dynamic
// linker's tables. By default each figure is the best of three runs of 5,000,000 pairs per thread,
// in nanoseconds per pair; "two threads" runs two threads at once and reports the slower thread's
// time per pair. Two tables: the threads' own CPU time, which stays meaningful on a machine busy
// with other work, and the elapsed time, which is what counts on an idle one. Sizes are either 64
// bytes every time or taken in turn from a fixed pseudo-random table of sizes between 48 and 111
// bytes.
//
//   memory_manager_bench [pairs per thread [runs]]
//
// On a busy machine, many short runs (say 200000 30) find the undisturbed figures better.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "kt/MemoryManager.h"

namespace {

constexpr int kDefaultRuns = 3;
int g_runs = kDefaultRuns;
constexpr long kDefaultPairs = 5'000'000;
constexpr std::size_t kFixedSize = 64;
constexpr std::size_t kMixedSizes = 1024;  // a power of two: the loop masks the index

// Keeps the compiler from pairing up and removing an allocation and its release.
inline void Escape(void* p) { asm volatile("" : : "g"(p) : "memory"); }

struct Sizes {
  std::array<std::size_t, kMixedSizes> table;
  bool mixed;
};

Sizes MakeSizes(bool mixed) {
  Sizes s{};
  s.mixed = mixed;
  unsigned state = 12345;
  for (std::size_t& size : s.table) {
    state = state * 1103515245u + 12345u;
    size = mixed ? 48 + (state >> 16) % 64 : kFixedSize;
  }
  return s;
}

void MallocPairs(const Sizes& sizes, long pairs) {
  for (long i = 0; i < pairs; ++i) {
    void* p = std::malloc(sizes.table[static_cast<std::size_t>(i) & (kMixedSizes - 1)]);
    Escape(p);
    std::free(p);
  }
}

void ManagerPairs(const Sizes& sizes, long pairs) {
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  for (long i = 0; i < pairs; ++i) {
    void* p =
        m->Allocate(sizes.table[static_cast<std::size_t>(i) & (kMixedSizes - 1)], "xml", __LINE__);
    Escape(p);
    m->Free(p, "xml", __LINE__);
  }
}

using Loop = void (*)(const Sizes&, long);

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Figure {
  double cpu;   // ns per pair of the thread's own CPU time
  double wall;  // ns per pair elapsed
};

// One run on `threads` threads started together; the slowest thread decides.
Figure RunOnce(Loop loop, const Sizes& sizes, long pairs, int threads) {
  std::vector<double> seconds(static_cast<std::size_t>(threads));
  std::vector<double> cpu(static_cast<std::size_t>(threads));
  std::vector<std::thread> workers;
  std::atomic<int> ready{0};
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < threads) std::this_thread::yield();
      const auto start = std::chrono::steady_clock::now();
      const double cpuStart = ThreadCpuSeconds();
      loop(sizes, pairs);
      cpu[static_cast<std::size_t>(t)] = ThreadCpuSeconds() - cpuStart;
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      seconds[static_cast<std::size_t>(t)] = took.count();
    });
  }
  for (std::thread& w : workers) w.join();
  const double n = static_cast<double>(pairs);
  return {*std::max_element(cpu.begin(), cpu.end()) * 1e9 / n,
          *std::max_element(seconds.begin(), seconds.end()) * 1e9 / n};
}

struct Figures {
  Figure manager;
  Figure heap;
};

Figure Min(Figure a, Figure b) { return {std::min(a.cpu, b.cpu), std::min(a.wall, b.wall)}; }

// The best of kRuns runs each, the manager's and malloc's runs taking turns so that both see the
// same machine load.
Figures Best(const Sizes& sizes, long pairs, int threads) {
  Figures best{{1e30, 1e30}, {1e30, 1e30}};
  for (int run = 0; run < g_runs; ++run) {
    best.manager = Min(best.manager, RunOnce(ManagerPairs, sizes, pairs, threads));
    best.heap = Min(best.heap, RunOnce(MallocPairs, sizes, pairs, threads));
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  const long pairs = argc > 1 ? std::atol(argv[1]) : kDefaultPairs;
  g_runs = argc > 2 ? std::atoi(argv[2]) : kDefaultRuns;
  if (pairs <= 0 || g_runs <= 0) {
    std::fprintf(stderr, "usage: %s [pairs per thread [runs]]\n", argv[0]);
    return 2;
  }
  std::printf("%ld pairs per thread, best of %d, ns per pair\n\n", pairs, g_runs);
  std::printf("%-26s %9s %9s %7s   %9s %9s %7s\n", "", "cpu:", "", "", "elapsed:", "", "");
  std::printf("%-26s %9s %9s %7s   %9s %9s %7s\n", "case", "manager", "malloc", "ratio", "manager",
              "malloc", "ratio");
  for (int threads : {1, 2}) {
    for (bool mixed : {false, true}) {
      const Figures f = Best(MakeSizes(mixed), pairs, threads);
      const std::string name = std::string(threads == 1 ? "one thread" : "two threads") +
                               (mixed ? ", sizes 48-111" : ", size 64");
      std::printf("%-26s %9.2f %9.2f %6.2fx   %9.2f %9.2f %6.2fx\n", name.c_str(), f.manager.cpu,
                  f.heap.cpu, f.manager.cpu / f.heap.cpu, f.manager.wall, f.heap.wall,
                  f.manager.wall / f.heap.wall);
    }
  }
  const std::size_t live = kt::MemoryManager::Instance()->Count();
  if (live != 0) {
    std::fprintf(stderr, "%zu record(s) left live\n", live);
    return 1;
  }
  return 0;
}
