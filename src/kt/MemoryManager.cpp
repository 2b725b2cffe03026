#include "kt/MemoryManager.h"

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
  auto* r = static_cast<Record*>(std::malloc(sizeof(Record) + size));
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
  std::free(r);
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
