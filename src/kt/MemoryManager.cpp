#include "kt/MemoryManager.h"

#include <pthread.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <thread>
#include <vector>

#if defined(__linux__)
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

// How the record lists are shared between threads
// -----------------------------------------------
// Each thread that allocates gets its own record list (a ThreadList): its allocations are inserted
// there and its releases of its own blocks unlink them there, so two threads never touch the same
// list, lock or cache line in their common path. The public `head` is the merged list: Gather (and
// every report, which starts with it) moves all records of all thread lists onto it, newest first,
// and from then on those records are released from it under its own mutex.
//
// Every system allocation is [Tag][Record][user block]. The tag names the list that holds the
// record and the epoch of its allocation; a merge orders records of different lists by epoch (every
// merge, count and thread exit starts a new one), and keeps each list's own order within an epoch.
//
// The owner of a thread list changes it without a locked instruction: it raises its `busy` flag,
// checks `stop`, changes the list and lowers `busy`. Anyone else (a report, a count, a release
// from another thread) takes the list's mutex, raises `stop`, makes sure the owner sees it (a
// process-wide memory barrier, or a full fence where that is not available), and waits until the
// owner is not busy. An owner that finds `stop` raised takes the mutex instead. The list of a
// thread that ends stays registered with its records and is handed to the next new thread.

namespace kt {

namespace {

using Record = MemoryManager::Record;

// The user block follows the header directly, so the header keeps it aligned for any type.
static_assert(sizeof(Record) % alignof(std::max_align_t) == 0, "the user block must stay aligned");

constexpr std::size_t kLeakReportRecords = 100;
constexpr std::size_t kLeakReportRow = 64;
constexpr std::size_t kCacheLine = 64;

struct ThreadList;

// The hidden part of the header, in front of the Record.
struct alignas(std::max_align_t) Tag {
  std::atomic<ThreadList*> list;  // the thread list holding the record; null for the merged list
  std::uint64_t epoch;            // the epoch of the allocation
};
static_assert(sizeof(Tag) % alignof(std::max_align_t) == 0, "the record must stay aligned");

constexpr std::size_t kHeader = sizeof(Tag) + sizeof(Record);

inline Record* RecordOf(void* block) {
  return reinterpret_cast<Record*>(static_cast<char*>(block) + sizeof(Tag));
}
inline Tag* TagOf(Record* r) {
  return reinterpret_cast<Tag*>(reinterpret_cast<char*>(r) - sizeof(Tag));
}
inline void* BlockOf(Record* r) { return TagOf(r); }

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Reads the header in front of a pointer that may not come from this manager, or that may already
// have been returned to the system heap. The memory is readable (see Free's contract) but belongs
// to someone else, so the sanitizers must not instrument this one read.
#if defined(__clang__)
__attribute__((no_sanitize("address", "thread")))
#elif defined(__GNUC__)
__attribute__((no_sanitize("address")))
#endif
bool IsLiveBlock(const void* p) {
  const auto* r = reinterpret_cast<const Record*>(static_cast<const char*>(p) - sizeof(Record));
  return r->magic == MemoryManager::kMagic && r->data == p;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || \
    __has_feature(thread_sanitizer)
#define KT_SANITIZED 1
#endif
#endif
#ifndef KT_SANITIZED
#define KT_SANITIZED 0
#endif

// The owner's side of a thread list needs no locked instruction where the other side can make it
// see `stop` by a process-wide barrier. The thread sanitizer cannot follow that barrier, so its
// builds fence both sides.
#if defined(__linux__) && defined(__NR_membarrier) && !KT_SANITIZED
constexpr bool kAsymmetricPossible = true;
#else
constexpr bool kAsymmetricPossible = false;
#endif

bool RegisterAsymmetricFence() {
#if defined(__linux__) && defined(__NR_membarrier)
  if (!kAsymmetricPossible) return false;
  const long commands = syscall(__NR_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
  if (commands < 0 || (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
  return syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
#else
  return false;
#endif
}

// Set once, before any thread list exists.
bool g_asymmetric = false;

// Makes every earlier store of the calling thread visible to every running owner before that
// owner's next load.
void HeavyFence() {
#if defined(__linux__) && defined(__NR_membarrier)
  if (g_asymmetric) {
    syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
    return;
  }
#endif
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

// Released blocks of small sizes wait in the releasing thread's cache for the next allocation of
// their size class on that thread, which then costs no trip to the system heap. Each size class
// keeps a few blocks at most; the rest go back to the heap at once, and a thread's cache is emptied
// when the thread ends. Sanitizer builds skip the cache, so that the address sanitizer sees every
// block returned and catches any use after release.
constexpr bool kBlockCache = !KT_SANITIZED;
constexpr std::size_t kGranule = 16;        // user sizes are rounded up to this for reuse
constexpr std::size_t kCachedClasses = 17;  // user sizes up to 256 bytes
constexpr unsigned kBlocksPerClass = 16;

inline std::size_t SizeClass(std::size_t size) { return (size + kGranule - 1) / kGranule; }

struct BlockCache {
  void* blocks[kCachedClasses][kBlocksPerClass];
  unsigned count[kCachedClasses];
};

// One thread's records. `head` and `count` change only under the protocol described at the top;
// `cache` belongs to the owning thread alone.
struct alignas(kCacheLine) ThreadList {
  std::atomic<bool> busy{false};  // the owner is inside an unlocked change
  std::atomic<bool> stop{false};  // someone holding `mutex` wants the list
  Record* head = nullptr;
  std::size_t count = 0;
  BlockCache cache{};
  alignas(kCacheLine) std::mutex mutex;  // held by everyone but the owner's unlocked changes
  bool orphaned = false;                 // the owner ended; guarded by the registry mutex
};

// Shared state: the registry of thread lists and the merged list behind the public `head`.
struct Shared {
  std::mutex registry;             // guards `lists` and every list's `orphaned`
  std::vector<ThreadList*> lists;  // every thread list ever made, live or orphaned
  std::mutex merged;               // guards the public `head` and `mergedCount`
  std::size_t mergedCount = 0;
  std::atomic<std::uint64_t> epoch{1};
};

Shared& State() {
  // Never destroyed: blocks may be released during static destruction of other objects.
  static Shared* const shared = new Shared();
  return *shared;
}

// The same, for the paths that run only once Instance has been called (it sets this first).
Shared* g_shared = nullptr;

// The list primitives, inlined into the common paths.
inline void LinkFront(Record*& head, Record* r) {
  r->prev = nullptr;
  r->next = head;
  if (head != nullptr) head->prev = r;
  head = r;
}

inline void Unlink(Record*& head, Record* r) {
  if (r->prev != nullptr) {
    r->prev->next = r->next;
  } else {
    head = r->next;
  }
  if (r->next != nullptr) r->next->prev = r->prev;
}

// The calling thread's list: null before its first use, kRetired once the thread has ended (its
// allocations after that go to the merged list). Initial-exec TLS keeps the access to one
// instruction.
ThreadList* const kRetired = reinterpret_cast<ThreadList*>(1);
__thread ThreadList* tls_list __attribute__((tls_model("initial-exec"))) = nullptr;

void EmptyCache(BlockCache& c) {
  for (std::size_t k = 0; k < kCachedClasses; ++k) {
    for (unsigned i = 0; i < c.count[k]; ++i) std::free(c.blocks[k][i]);
    c.count[k] = 0;
  }
}

void RetireList(void* list) {
  auto* l = static_cast<ThreadList*>(list);
  EmptyCache(l->cache);
  Shared& s = State();
  {
    std::lock_guard<std::mutex> registry(s.registry);
    l->orphaned = true;
  }
  s.epoch.fetch_add(1);
  tls_list = kRetired;
}

pthread_key_t ListKey() {
  static const pthread_key_t key = [] {
    pthread_key_t k;
    pthread_key_create(&k, RetireList);
    return k;
  }();
  return key;
}

ThreadList* AttachList() {
  Shared& s = State();
  ThreadList* list = nullptr;
  {
    std::lock_guard<std::mutex> registry(s.registry);
    for (ThreadList* l : s.lists) {
      if (l->orphaned) {
        l->orphaned = false;
        list = l;
        break;
      }
    }
    if (list == nullptr) {
      list = new (std::nothrow) ThreadList();
      if (list == nullptr) return nullptr;
      s.lists.push_back(list);
    }
  }
  // A new thread starts a new epoch, so that its records sort after those made before it began.
  s.epoch.fetch_add(1);
  tls_list = list;
  pthread_setspecific(ListKey(), list);
  return list;
}

// The calling thread's list, or null when it has none (the thread has ended).
inline ThreadList* OwnList() {
  ThreadList* l = tls_list;
  if (l == nullptr) return AttachList();
  return l == kRetired ? nullptr : l;
}

// The owner's side: true when the list is its own until EndChange; false when someone else wants
// it, in which case the owner takes the mutex instead.
inline bool BeginChange(ThreadList* l) {
  if (kAsymmetricPossible && g_asymmetric) {
    l->busy.store(true, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    l->busy.store(true, std::memory_order_seq_cst);
  }
  if (!l->stop.load(std::memory_order_seq_cst)) return true;
  l->busy.store(false, std::memory_order_release);
  return false;
}
inline void EndChange(ThreadList* l) { l->busy.store(false, std::memory_order_release); }

// Everyone else's side, for a set of lists whose mutexes the caller holds.
void StopOwners(ThreadList* const* lists, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) lists[i]->stop.store(true, std::memory_order_seq_cst);
  HeavyFence();
  for (std::size_t i = 0; i < n; ++i) {
    for (unsigned spins = 0; lists[i]->busy.load(std::memory_order_seq_cst);) {
      if (++spins < 64) {
        CpuRelax();
      } else {
        std::this_thread::yield();
      }
    }
  }
}
void ResumeOwners(ThreadList* const* lists, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) lists[i]->stop.store(false, std::memory_order_release);
}

// Holds every list and the merged list, in the one order every path takes them: registry, merged,
// thread lists.
class AllLists {
 public:
  AllLists() : s_(State()), registry_(s_.registry), merged_(s_.merged) {
    for (ThreadList* l : s_.lists) l->mutex.lock();
    StopOwners(s_.lists.data(), s_.lists.size());
  }
  ~AllLists() {
    ResumeOwners(s_.lists.data(), s_.lists.size());
    for (ThreadList* l : s_.lists) l->mutex.unlock();
    s_.epoch.fetch_add(1);
  }
  AllLists(const AllLists&) = delete;
  AllLists& operator=(const AllLists&) = delete;

  const std::vector<ThreadList*>& lists() const { return s_.lists; }
  Shared& shared() { return s_; }

 private:
  Shared& s_;
  std::lock_guard<std::mutex> registry_;
  std::lock_guard<std::mutex> merged_;
};

void* TakeBlock(ThreadList* own, std::size_t size) {
  if (kBlockCache) {
    const std::size_t k = SizeClass(size);
    if (k < kCachedClasses) {
      if (own != nullptr && own->cache.count[k] != 0)
        return own->cache.blocks[k][--own->cache.count[k]];
      return std::malloc(kHeader + k * kGranule);
    }
  }
  return std::malloc(kHeader + size);
}

void GiveBlock(ThreadList* own, void* block, std::size_t size) {
  if (kBlockCache) {
    const std::size_t k = SizeClass(size);
    if (k < kCachedClasses && own != nullptr && own->cache.count[k] < kBlocksPerClass) {
      own->cache.blocks[k][own->cache.count[k]++] = block;
      return;
    }
  }
  std::free(block);
}

}  // namespace

MemoryManager::MemoryManager() : head(nullptr) {}

MemoryManager* MemoryManager::Instance() {
  // Never destroyed: blocks may be released during static destruction of other objects.
  static MemoryManager* const instance = [] {
    g_asymmetric = RegisterAsymmetricFence();
    g_shared = &State();
    return new MemoryManager();
  }();
  return instance;
}

void* MemoryManager::Allocate(std::size_t size, const char* file, int line) {
  ThreadList* own = OwnList();
  void* block = TakeBlock(own, size);
  if (block == nullptr) return nullptr;
  Record* r = RecordOf(block);
  r->magic = kMagic;
  r->data = r + 1;
  r->size = size;
  // Source tags are short; a plain loop beats two library calls. The rest of the field is left as
  // it is: nothing reads past the terminator.
  std::size_t n = 0;
  if (file != nullptr) {
    for (; n < sizeof(r->file) - 1 && file[n] != '\0'; ++n) r->file[n] = file[n];
  }
  r->file[n] = '\0';
  r->file[sizeof(r->file) - 1] = '\0';
  r->line = line;
  Tag* tag = TagOf(r);
  Shared& s = *g_shared;
  tag->epoch = s.epoch.load(std::memory_order_relaxed);
  if (own == nullptr) {
    tag->list.store(nullptr, std::memory_order_relaxed);
    std::lock_guard<std::mutex> merged(s.merged);
    LinkFront(head, r);
    ++s.mergedCount;
    return r->data;
  }
  tag->list.store(own, std::memory_order_relaxed);
  if (BeginChange(own)) {
    LinkFront(own->head, r);
    ++own->count;
    EndChange(own);
  } else {
    std::lock_guard<std::mutex> lock(own->mutex);
    LinkFront(own->head, r);
    ++own->count;
  }
  return r->data;
}

void MemoryManager::Free(void* p, const char* /*file*/, int /*line*/) {
  if (p == nullptr || !IsLiveBlock(p)) return;
  Record* r = reinterpret_cast<Record*>(static_cast<char*>(p) - sizeof(Record));
  Tag* tag = TagOf(r);
  ThreadList* own = OwnList();
  const std::size_t size = r->size;

  // The common case: the caller's own block, still on its own list.
  if (own != nullptr && BeginChange(own)) {
    const bool mine = tag->list.load(std::memory_order_relaxed) == own && r->magic == kMagic;
    if (mine) {
      r->magic = 0;
      Unlink(own->head, r);
      --own->count;
    }
    EndChange(own);
    if (mine) {
      GiveBlock(own, BlockOf(r), size);
      return;
    }
  }

  // Another thread's list or the merged one. A merge may move the record meanwhile, so the holder
  // is read again under its lock.
  Shared& s = *g_shared;
  for (;;) {
    ThreadList* holder = tag->list.load(std::memory_order_relaxed);
    if (holder == nullptr) {
      std::lock_guard<std::mutex> merged(s.merged);
      if (tag->list.load(std::memory_order_relaxed) != nullptr) continue;
      // Checked again under the lock: two threads releasing the same block must not both unlink it.
      if (r->magic != kMagic) return;
      r->magic = 0;
      Unlink(head, r);
      --s.mergedCount;
      break;
    }
    std::lock_guard<std::mutex> lock(holder->mutex);
    if (holder != own) StopOwners(&holder, 1);
    const bool moved = tag->list.load(std::memory_order_relaxed) != holder;
    const bool live = r->magic == kMagic;
    if (!moved && live) {
      r->magic = 0;
      Unlink(holder->head, r);
      --holder->count;
    }
    if (holder != own) ResumeOwners(&holder, 1);
    if (moved) continue;
    if (!live) return;
    break;
  }
  GiveBlock(own, BlockOf(r), size);
}

void MemoryManager::Insert(Record*& head, Record* r) { LinkFront(head, r); }

void MemoryManager::Erase(Record*& head, Record* r) { Unlink(head, r); }

MemoryManager::Record* MemoryManager::Gather() {
  AllLists all;
  MergeLocked();
  return head;
}

// Moves every thread list onto the merged list. The caller holds all lists (AllLists).
void MemoryManager::MergeLocked() {
  Shared& s = State();
  const std::vector<ThreadList*>& lists = s.lists;
  // The cursors of a k-way merge: the merged list first, then each thread list. Each source is
  // newest first already; of the heads, the newest epoch goes next, and on a tie a thread list
  // before the merged list (its records were inserted later) and a later thread list before an
  // earlier one.
  std::vector<Record*> cursor;
  cursor.reserve(lists.size() + 1);
  cursor.push_back(head);
  bool any = false;
  for (ThreadList* l : lists) {
    cursor.push_back(l->head);
    any = any || l->head != nullptr;
    s.mergedCount += l->count;
    l->head = nullptr;
    l->count = 0;
  }
  if (!any) return;
  Record* merged = nullptr;
  Record* tail = nullptr;
  for (;;) {
    std::size_t best = cursor.size();
    for (std::size_t i = cursor.size(); i-- > 0;) {
      if (cursor[i] == nullptr) continue;
      if (best == cursor.size() || TagOf(cursor[i])->epoch > TagOf(cursor[best])->epoch ||
          (TagOf(cursor[i])->epoch == TagOf(cursor[best])->epoch && best == 0)) {
        best = i;
      }
    }
    if (best == cursor.size()) break;
    Record* r = cursor[best];
    cursor[best] = r->next;
    TagOf(r)->list.store(nullptr, std::memory_order_relaxed);
    r->prev = tail;
    r->next = nullptr;
    if (tail != nullptr) {
      tail->next = r;
    } else {
      merged = r;
    }
    tail = r;
  }
  head = merged;
}

void MemoryManager::PrintSummary() {}

void MemoryManager::PrintLeaks() { (void)LeakReport(); }

std::string MemoryManager::Dump(const Record* head) {
  std::map<std::string, SummaryEntry> locations;
  std::uint32_t total = 0;
  for (const Record* r = head; r != nullptr; r = r->next) {
    std::ostringstream location;
    location << r->file << ":" << r->line;
    const auto size = static_cast<std::uint32_t>(r->size);
    total += size;
    auto found = locations.find(location.str());
    if (found == locations.end()) {
      locations.emplace(location.str(), SummaryEntry{1, size});
    } else {
      ++found->second.count;
      found->second.bytes += size;
    }
  }
  std::ostringstream out;
  out << "Used " << total << " bytes\n\n";
  for (const auto& [location, entry] : locations) {
    out << location << " " << entry.count << (entry.count == 1 ? " record " : " record(s) ")
        << entry.bytes << (entry.bytes == 1 ? " byte" : " byte(s)") << "\n";
  }
  out << "\n";
  return out.str();
}

std::size_t MemoryManager::Count() const {
  AllLists all;
  std::size_t count = all.shared().mergedCount;
  for (const ThreadList* l : all.lists()) count += l->count;
  return count;
}

std::string MemoryManager::LeakReport() const {
  // The instance is never const (Instance creates it), so the merge may relink its list.
  auto* self = const_cast<MemoryManager*>(this);
  AllLists all;
  self->MergeLocked();
  std::ostringstream out;
  std::size_t records = 0;
  for (const Record* r = head; r != nullptr && records < kLeakReportRecords; r = r->next) {
    ++records;
    out << r->data << " " << r->size << " bytes @ " << r->file << ":" << r->line << "\n";
    const auto* bytes = static_cast<const unsigned char*>(r->data);
    for (std::size_t i = 0; i < r->size; ++i) {
      if (i % kLeakReportRow == 0) out << "\n  ";
      out << (std::isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.');
    }
    out << "\n";
  }
  return out.str();
}

std::string MemoryManager::Summary() const {
  auto* self = const_cast<MemoryManager*>(this);
  AllLists all;
  self->MergeLocked();
  return Dump(head);
}

}  // namespace kt
