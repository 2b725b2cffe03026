#include "kt/MemoryManager.h"

#include <pthread.h>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace kt {

namespace {

// The user block follows the header directly, so the header keeps it aligned for any type.
static_assert(sizeof(MemoryManager::Record) % alignof(std::max_align_t) == 0,
              "the user block must stay aligned");

constexpr std::size_t kLeakReportRecords = 100;
constexpr std::size_t kLeakReportRow = 64;

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Reads the header in front of a pointer that may not come from this manager, or that may already
// have been returned to the system heap. The memory is readable (see Free's contract) but belongs
// to someone else, so the address sanitizer must not instrument this one read.
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("address")))
#endif
bool IsLiveBlock(const void* p) {
  const auto* r = reinterpret_cast<const MemoryManager::Record*>(static_cast<const char*>(p) -
                                                                 sizeof(MemoryManager::Record));
  return r->magic == MemoryManager::kMagic && r->data == p;
}

// Released blocks of small sizes wait in a per-thread cache for the next allocation of their size
// class on that thread, which then costs no trip to the system heap. Each size class keeps a few
// blocks at most; the rest go back to the heap at once, and a thread's cache is emptied when the
// thread ends. Sanitizer builds skip the cache, so that the address sanitizer sees every block
// returned and catches any use after release.
#if defined(__SANITIZE_ADDRESS__)
#define KT_BLOCK_CACHE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define KT_BLOCK_CACHE 0
#endif
#endif
#ifndef KT_BLOCK_CACHE
#define KT_BLOCK_CACHE 1
#endif

#if KT_BLOCK_CACHE

constexpr std::size_t kGranule = 16;        // user sizes are rounded up to this for reuse
constexpr std::size_t kCachedClasses = 17;  // user sizes up to 256 bytes
constexpr unsigned kBlocksPerClass = 16;

inline std::size_t SizeClass(std::size_t size) { return (size + kGranule - 1) / kGranule; }

struct BlockCache {
  void* blocks[kCachedClasses][kBlocksPerClass];
  unsigned count[kCachedClasses];
};

// The calling thread's cache: null before its first use, kRetired once the thread's cache has
// been emptied at its end (a release after that goes straight to the heap). Initial-exec TLS keeps
// the access to one instruction; the pointer is all the static TLS this needs.
BlockCache* const kRetired = reinterpret_cast<BlockCache*>(1);
__thread BlockCache* tls_cache __attribute__((tls_model("initial-exec"))) = nullptr;

void RetireCache(void* cache) {
  auto* c = static_cast<BlockCache*>(cache);
  for (std::size_t k = 0; k < kCachedClasses; ++k) {
    for (unsigned i = 0; i < c->count[k]; ++i) std::free(c->blocks[k][i]);
  }
  std::free(c);
  tls_cache = kRetired;
}

pthread_key_t CacheKey() {
  static const pthread_key_t key = [] {
    pthread_key_t k;
    pthread_key_create(&k, RetireCache);
    return k;
  }();
  return key;
}

BlockCache* ThreadCache() {
  BlockCache* c = tls_cache;
  if (c != nullptr) return c == kRetired ? nullptr : c;
  c = static_cast<BlockCache*>(std::calloc(1, sizeof(BlockCache)));
  if (c == nullptr) return nullptr;
  tls_cache = c;
  pthread_setspecific(CacheKey(), c);
  return c;
}

void* TakeBlock(std::size_t size) {
  const std::size_t k = SizeClass(size);
  if (k < kCachedClasses) {
    BlockCache* c = ThreadCache();
    if (c != nullptr && c->count[k] != 0) return c->blocks[k][--c->count[k]];
    return std::malloc(sizeof(MemoryManager::Record) + k * kGranule);
  }
  return std::malloc(sizeof(MemoryManager::Record) + size);
}

void GiveBlock(void* block, std::size_t size) {
  const std::size_t k = SizeClass(size);
  if (k < kCachedClasses) {
    BlockCache* c = ThreadCache();
    if (c != nullptr && c->count[k] < kBlocksPerClass) {
      c->blocks[k][c->count[k]++] = block;
      return;
    }
  }
  std::free(block);
}

#else

void* TakeBlock(std::size_t size) { return std::malloc(sizeof(MemoryManager::Record) + size); }
void GiveBlock(void* block, std::size_t /*size*/) { std::free(block); }

#endif

}  // namespace

// Holds the manager's spin lock for a scope. The critical sections are a handful of pointer
// stores, far shorter than a futex round trip, so a spinning waiter yields only when the holder
// has been descheduled.
class MemoryManager::Lock {
 public:
  explicit Lock(const MemoryManager* m) : flag_(m->lock_flag_) {
    for (unsigned spins = 0; flag_.exchange(true, std::memory_order_acquire);) {
      while (flag_.load(std::memory_order_relaxed)) {
        if (++spins < 64) {
          CpuRelax();
        } else {
          std::this_thread::yield();
        }
      }
    }
  }
  ~Lock() { flag_.store(false, std::memory_order_release); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  std::atomic<bool>& flag_;
};

MemoryManager::MemoryManager() : head(nullptr), count_(0), lock_flag_(false) {}

MemoryManager* MemoryManager::Instance() {
  // Never destroyed: blocks may be released during static destruction of other objects.
  static MemoryManager* const instance = new MemoryManager();
  return instance;
}

void* MemoryManager::Allocate(std::size_t size, const char* file, int line) {
  auto* r = static_cast<Record*>(TakeBlock(size));
  if (r == nullptr) return nullptr;
  r->magic = kMagic;
  r->data = r + 1;
  r->size = size;
  // Source tags are short; a plain loop beats two library calls here.
  std::size_t n = 0;
  if (file != nullptr) {
    for (; n < sizeof(r->file) - 1 && file[n] != '\0'; ++n) r->file[n] = file[n];
  }
  r->file[n] = '\0';
  r->file[sizeof(r->file) - 1] = '\0';
  r->line = line;
  {
    Lock lock(this);
    Insert(head, r);
    ++count_;
  }
  return r->data;
}

void MemoryManager::Free(void* p, const char* /*file*/, int /*line*/) {
  if (p == nullptr || !IsLiveBlock(p)) return;
  Record* r = reinterpret_cast<Record*>(static_cast<char*>(p) - sizeof(Record));
  {
    Lock lock(this);
    // Checked again under the lock: two threads releasing the same block must not both unlink it.
    if (r->magic != kMagic) return;
    r->magic = 0;
    Erase(head, r);
    --count_;
  }
  GiveBlock(r, r->size);
}

void MemoryManager::Insert(Record*& head, Record* r) {
  r->prev = nullptr;
  r->next = head;
  if (head != nullptr) head->prev = r;
  head = r;
}

void MemoryManager::Erase(Record*& head, Record* r) {
  if (r->prev != nullptr) {
    r->prev->next = r->next;
  } else {
    head = r->next;
  }
  if (r->next != nullptr) r->next->prev = r->prev;
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
  Lock lock(this);
  return count_;
}

std::string MemoryManager::LeakReport() const {
  Lock lock(this);
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
  Lock lock(this);
  return Dump(head);
}

}  // namespace kt
