#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/WaitUntil.h"
#include "kt/MemoryManager.h"

namespace {

using kt::MemoryManager;

// The manager keeps a private tag of this size in front of each record, at the start of the
// system allocation.
constexpr std::size_t kTag = alignof(std::max_align_t);

MemoryManager::Record* RecordOf(void* p) {
  return reinterpret_cast<MemoryManager::Record*>(static_cast<char*>(p) -
                                                  sizeof(MemoryManager::Record));
}

// Collects the list from the head, checking every back link on the way.
std::vector<MemoryManager::Record*> Walk(MemoryManager::Record* head) {
  std::vector<MemoryManager::Record*> records;
  MemoryManager::Record* prev = nullptr;
  for (MemoryManager::Record* r = head; r != nullptr; r = r->next) {
    EXPECT_EQ(r->prev, prev);
    records.push_back(r);
    prev = r;
  }
  return records;
}

TEST(MemoryManager, AllocateFillsHeaderAndPutsNewestFirst) {
  MemoryManager* m = MemoryManager::Instance();
  ASSERT_EQ(m, MemoryManager::Instance());
  const std::size_t before = m->Count();

  void* a = m->Allocate(10, "first", 7);
  void* b = m->Allocate(0, "second", 8);
  void* c = m->Allocate(0, "third", 9);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(b, c) << "zero-sized blocks are still unique";
  EXPECT_EQ(m->Count(), before + 3);

  MemoryManager::Record* r = RecordOf(a);
  EXPECT_EQ(r->magic, MemoryManager::kMagic);
  EXPECT_EQ(r->data, a);
  EXPECT_EQ(r->size, 10u);
  EXPECT_STREQ(r->file, "first");
  EXPECT_EQ(r->line, 7);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a) % alignof(std::max_align_t), 0u);

  // Newest first once gathered: c is the head, then b, then a.
  EXPECT_EQ(m->Gather(), m->head);
  EXPECT_EQ(m->head, RecordOf(c));
  EXPECT_EQ(RecordOf(c)->next, RecordOf(b));
  EXPECT_EQ(RecordOf(b)->next, RecordOf(a));
  EXPECT_EQ(RecordOf(a)->prev, RecordOf(b));

  // Releases keep the gathered list exact.
  m->Free(b, nullptr, 0);
  EXPECT_EQ(m->head, RecordOf(c));
  EXPECT_EQ(RecordOf(c)->next, RecordOf(a));
  EXPECT_EQ(RecordOf(a)->prev, RecordOf(c));
  m->Free(c, nullptr, 0);
  EXPECT_EQ(m->head, RecordOf(a));
  EXPECT_EQ(RecordOf(a)->prev, nullptr);
  m->Free(a, nullptr, 0);
  EXPECT_EQ(m->Count(), before);
}

TEST(MemoryManager, LongFileNameIsCutTo255Characters) {
  MemoryManager* m = MemoryManager::Instance();
  const std::string longName(300, 'f');
  void* p = m->Allocate(1, longName.c_str(), 1);
  EXPECT_EQ(std::string(RecordOf(p)->file), std::string(255, 'f'));
  m->Free(p, "", 0);

  void* q = m->Allocate(1, nullptr, 2);
  EXPECT_STREQ(RecordOf(q)->file, "");
  m->Free(q, "", 0);
}

TEST(MemoryManager, FreeIgnoresNullForeignAndReleasedPointers) {
  MemoryManager* m = MemoryManager::Instance();
  const std::size_t before = m->Count();

  // A foreign pointer well inside an ordinary heap block, so that the peek in front of it stays
  // inside memory we own even under the address sanitizer.
  auto* foreign = static_cast<char*>(std::calloc(1, 2 * sizeof(MemoryManager::Record)));
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  m->Free(nullptr, "x", 1);
  m->Free(foreign + sizeof(MemoryManager::Record), "x", 2);
  void* p = m->Allocate(16, "twice", 3);
  m->Free(p, "x", 4);
  EXPECT_EQ(m->Count(), before);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  std::free(foreign);

  // A block released twice is released once: the second release neither changes the count nor
  // hands the block out again, whether the record was on the thread's own list, on the gathered
  // list or is released again from another thread.
  for (int where = 0; where < 3; ++where) {
    void* twice = m->Allocate(40, "twice", where);
    if (where == 1) m->Gather();
    m->Free(twice, "x", 5);
    if (where == 2) {
      std::thread([m, twice] { m->Free(twice, "x", 6); }).join();
    } else {
      m->Free(twice, "x", 6);
    }
    EXPECT_EQ(m->Count(), before) << where;
    void* x = m->Allocate(40, "after", 1);
    void* y = m->Allocate(40, "after", 2);
    EXPECT_NE(x, y) << where;
    m->Free(x, "", 0);
    m->Free(y, "", 0);
  }
}

TEST(MemoryManager, EraseKeepsListConsistentAtHeadMiddleAndTail) {
  MemoryManager::Record records[5] = {};
  MemoryManager::Record* head = nullptr;
  for (auto& r : records) MemoryManager::Insert(head, &r);
  ASSERT_EQ(Walk(head).size(), 5u);
  EXPECT_EQ(head, &records[4]);

  MemoryManager::Erase(head, &records[4]);  // the head
  EXPECT_EQ(head, &records[3]);
  MemoryManager::Erase(head, &records[0]);  // the tail
  MemoryManager::Erase(head, &records[2]);  // the middle
  std::vector<MemoryManager::Record*> left = Walk(head);
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0], &records[3]);
  EXPECT_EQ(left[1], &records[1]);

  MemoryManager::Erase(head, &records[3]);
  MemoryManager::Erase(head, &records[1]);
  EXPECT_EQ(head, nullptr);
}

TEST(MemoryManager, DumpSummarisesPerLocationInTextOrder) {
  EXPECT_EQ(MemoryManager::Dump(nullptr), "Used 0 bytes\n\n\n");

  MemoryManager::Record records[4] = {};
  MemoryManager::Record* head = nullptr;
  auto add = [&](MemoryManager::Record& r, const char* file, int line, std::size_t size) {
    std::strcpy(r.file, file);
    r.line = line;
    r.size = size;
    MemoryManager::Insert(head, &r);
  };
  add(records[0], "xml", 620, 112);
  add(records[1], "xml", 620, 112);
  add(records[2], "Event", 9, 1);
  add(records[3], "xml", 1000, 0);
  // "xml:1000" sorts before "xml:620": the map orders the texts, not the line numbers.
  EXPECT_EQ(MemoryManager::Dump(head),
            "Used 225 bytes\n\n"
            "Event:9 1 record 1 byte\n"
            "xml:1000 1 record 0 byte(s)\n"
            "xml:620 2 record(s) 224 byte(s)\n"
            "\n");
}

TEST(MemoryManager, LeakReportShowsHeaderAndBytesInRowsOf64) {
  MemoryManager* m = MemoryManager::Instance();
  if (m->Count() != 0) GTEST_SKIP() << "another record is live; the report would include it";
  EXPECT_EQ(m->LeakReport(), "");

  auto* p = static_cast<char*>(m->Allocate(70, "leak", 42));
  std::memset(p, 'a', 70);
  p[1] = '\n';
  p[69] = 'z';
  std::ostringstream expected;
  expected << static_cast<void*>(p) << " 70 bytes @ leak:42\n"
           << "\n  a." << std::string(62, 'a') << "\n  aaaaaz\n";
  EXPECT_EQ(m->LeakReport(), expected.str());
  EXPECT_EQ(m->Summary(), "Used 70 bytes\n\nleak:42 1 record 70 byte(s)\n\n");
  // PrintLeaks formats the same report and sends it nowhere; the records stay as they were.
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  m->PrintLeaks();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(m->LeakReport(), expected.str());
  m->Free(p, "", 0);
}

TEST(MemoryManager, LeakReportStopsAfter100Records) {
  MemoryManager* m = MemoryManager::Instance();
  const std::size_t before = m->Count();
  std::vector<void*> blocks;
  for (int i = 0; i < 150 - static_cast<int>(before); ++i) {
    blocks.push_back(m->Allocate(0, "many", i));
  }
  const std::string report = m->LeakReport();
  std::size_t lines = 0;
  for (std::size_t at = 0; (at = report.find(" bytes @ ", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 100u);
  for (void* p : blocks) m->Free(p, "", 0);
}

TEST(MemoryManager, TwoThreadsAllocatingAndFreeingKeepTheAccounts) {
  MemoryManager* m = MemoryManager::Instance();
  const std::size_t before = m->Count();
  constexpr int kRounds = 20000;
  constexpr int kStride = 500;
  // The workers go in step: neither gets more than two strides ahead of the other, so their
  // allocations and releases interleave however the threads are scheduled.
  std::atomic<int> progress[2] = {{0}, {0}};
  bool inStep = true;
  auto worker = [&, m](int id, std::vector<void*>* kept) {
    std::vector<void*> live;
    std::atomic<int>& mine = progress[id - 1];
    std::atomic<int>& other = progress[2 - id];
    for (int i = 0; i < kRounds; ++i) {
      if (i % kStride == 0) {
        mine.store(i);
        if (!convoke_test_support::waitUntil([&] { return other.load() >= i - kStride; })) {
          inStep = false;
        }
      }
      live.push_back(m->Allocate(static_cast<std::size_t>(i % 50), "thread", id));
      if (i % 3 != 0) {
        m->Free(live.back(), "", 0);
        live.pop_back();
      }
      if (live.size() > 64) {
        m->Free(live.front(), "", 0);
        live.erase(live.begin());
      }
    }
    mine.store(kRounds);
    *kept = live;
  };
  std::vector<void*> keptA, keptB;
  std::thread a(worker, 1, &keptA);
  std::thread b(worker, 2, &keptB);
  a.join();
  b.join();
  EXPECT_TRUE(inStep) << "a worker stopped making progress";

  EXPECT_EQ(m->Count(), before + keptA.size() + keptB.size());
  std::set<MemoryManager::Record*> listed;
  for (MemoryManager::Record* r : Walk(m->Gather())) listed.insert(r);
  EXPECT_EQ(listed.size(), m->Count());
  for (void* p : keptA) EXPECT_EQ(listed.count(RecordOf(p)), 1u);
  for (void* p : keptB) EXPECT_EQ(listed.count(RecordOf(p)), 1u);

  for (void* p : keptA) m->Free(p, "", 0);
  for (void* p : keptB) m->Free(p, "", 0);
  EXPECT_EQ(m->Count(), before);
}

TEST(MemoryManager, ReusedBlocksAreLargeEnoughForEverySizeOfTheirClass) {
  MemoryManager* m = MemoryManager::Instance();
  // Released blocks may be reused for the next request of a similar size; whichever block comes
  // back must hold the header and the whole request.
  for (std::size_t first : {0u, 1u, 17u, 100u, 250u}) {
    for (std::size_t second = first; second < first + 20; ++second) {
      void* a = m->Allocate(first, "reuse", 1);
      m->Free(a, "", 0);
      auto* b = static_cast<char*>(m->Allocate(second, "reuse", 2));
      EXPECT_GE(malloc_usable_size(static_cast<char*>(static_cast<void*>(RecordOf(b))) - kTag),
                kTag + sizeof(MemoryManager::Record) + second);
      std::memset(b, 0x5a, second);
      EXPECT_EQ(RecordOf(b)->size, second);
      m->Free(b, "", 0);
    }
  }
}

// Releases a block while the thread ends, after the thread has used the manager.
struct ReleasesAtThreadExit {
  void* block = nullptr;
  ~ReleasesAtThreadExit() {
    MemoryManager::Instance()->Free(block, "", 0);
    MemoryManager::Instance()->Free(MemoryManager::Instance()->Allocate(8, "exit", 2), "", 0);
  }
};

TEST(MemoryManager, ThreadsMayAllocateAndReleaseUntilTheyEnd) {
  MemoryManager* m = MemoryManager::Instance();
  const std::size_t before = m->Count();
  void* handedOver = nullptr;
  std::thread worker([&handedOver, m] {
    thread_local ReleasesAtThreadExit atExit;
    atExit.block = m->Allocate(32, "exit", 1);
    for (int i = 0; i < 100; ++i) m->Free(m->Allocate(static_cast<std::size_t>(i), "t", i), "", 0);
    handedOver = m->Allocate(24, "handed", 3);
  });
  worker.join();
  EXPECT_EQ(m->Count(), before + 1);
  EXPECT_NE(m->Summary().find("handed:3 1 record 24 byte(s)"), std::string::npos);
  m->Free(handedOver, "", 0);  // released by another thread than the one that allocated it
  EXPECT_EQ(m->Count(), before);

  // Records of an ended thread that were never gathered are released from here just as well.
  std::thread([&handedOver, m] { handedOver = m->Allocate(24, "handed", 4); }).join();
  EXPECT_EQ(m->Count(), before + 1);
  m->Free(handedOver, "", 0);
  EXPECT_EQ(m->Count(), before);
}

TEST(MemoryManager, GatherPutsAllThreadsNewestFirst) {
  MemoryManager* m = MemoryManager::Instance();
  void* a = m->Allocate(1, "order", 1);
  void* b = nullptr;
  void* c = nullptr;
  std::thread([&] {
    b = m->Allocate(2, "order", 2);
    c = m->Allocate(3, "order", 3);
  }).join();
  void* d = m->Allocate(4, "order", 4);
  std::vector<MemoryManager::Record*> order;
  for (MemoryManager::Record* r : Walk(m->Gather())) {
    if (std::string(r->file) == "order") order.push_back(r);
  }
  EXPECT_EQ(order, (std::vector<MemoryManager::Record*>{RecordOf(d), RecordOf(c), RecordOf(b),
                                                        RecordOf(a)}));
  for (void* p : {a, b, c, d}) m->Free(p, "", 0);
}

TEST(MemoryManager, ConcurrentReportsAndCrossThreadReleasesKeepTheAccounts) {
  MemoryManager* m = MemoryManager::Instance();
  const std::size_t before = m->Count();
  constexpr int kRounds = 20000;
  std::mutex passedMutex;
  std::vector<void*> passed;  // blocks one worker allocated for the other to release
  std::atomic<int> running{2};
  std::atomic<std::size_t> reports{0};
  bool overlapped = true;
  auto worker = [&](int id) {
    const std::size_t reportsAtStart = reports.load();
    for (int i = 0; i < kRounds; ++i) {
      // Halfway, a whole report made while this worker runs has to have happened: the reports
      // and the releases overlap however fast either side is.
      if (i == kRounds / 2 &&
          !convoke_test_support::waitUntil([&] { return reports.load() >= reportsAtStart + 2; })) {
        overlapped = false;
      }
      void* own = m->Allocate(static_cast<std::size_t>(48 + i % 64), "cross", id);
      void* theirs = nullptr;
      {
        std::lock_guard<std::mutex> lock(passedMutex);
        if (i % 2 == 0) {
          passed.push_back(m->Allocate(16, "passed", id));
        } else if (!passed.empty()) {
          theirs = passed.back();
          passed.pop_back();
        }
      }
      m->Free(theirs, "", 0);
      m->Free(own, "", 0);
    }
    running.fetch_sub(1);
  };
  std::thread a(worker, 1);
  std::thread b(worker, 2);
  do {
    const std::size_t count = m->Count();
    EXPECT_GE(count, before);
    EXPECT_LE(count, before + 2 + kRounds);
    EXPECT_EQ(m->Summary().rfind("Used ", 0), 0u);
    reports.fetch_add(1);
  } while (running.load() != 0);
  a.join();
  b.join();
  EXPECT_TRUE(overlapped) << "no report ran while a worker did";
  EXPECT_EQ(m->Count(), before + passed.size());
  EXPECT_EQ(Walk(m->Gather()).size(), m->Count());
  for (void* p : passed) m->Free(p, "", 0);
  EXPECT_EQ(m->Count(), before);
}

}  // namespace
