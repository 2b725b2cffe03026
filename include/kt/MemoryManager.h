// The process-wide tracked allocator of the base library.
//
// Every block handed out by kt::MemoryManager is preceded, in the same system allocation, by a
// Record that names the source file and line of the allocating statement, so that outstanding
// allocations can be counted, summarised per source location and dumped. The XML library allocates
// every node and attribute through it, and the dispatcher releases owned callbacks through it.
//
// Where the records live: each thread files its allocations on a list of its own, so that threads
// allocating at the same time never contend. The public `head` is the merged list of all records,
// newest first. Gather, Summary, LeakReport and PrintLeaks move every record of every thread onto
// it; records are then released from it wherever they are released. So `head`:
//   - lists exactly the live records, newest first, right after one of those calls, and stays exact
//     until the next Allocate from any thread (releases keep it exact: a released record leaves
//     it);
//   - is walked safely only while no other thread allocates or releases (a release unlinks);
//   - orders records of one thread by allocation; records of different threads by the last merge,
//     count or thread end that separates their allocations, and those of threads running between
//     the same two such events by thread.
// Count is exact at any time. Blocks may be released from any thread, also after the allocating
// thread has ended; the records of an ended thread stay counted and listed.
//
// Thread safety: every member function may be called from any thread at any time. Reading `head`
// directly is meaningful as described above.
#ifndef KT_MEMORYMANAGER_H
#define KT_MEMORYMANAGER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "convoke/export.h"

namespace kt {

class CONVOKE_API MemoryManager {
 public:
  // The header in front of each user block. The user block starts right after it.
  struct Record {
    std::uint32_t magic;  // kMagic while the block is live, 0 once released
    void* data;           // the user block
    std::size_t size;     // requested size in bytes
    char file[256];       // source tag, at most 255 characters, always NUL-terminated
    std::int32_t line;    // source line
    Record* prev;         // toward the head (newer); null for the head
    Record* next;         // toward older records; null for the last
  };

  // Per source location totals of a summary.
  struct SummaryEntry {
    std::uint32_t count;
    std::uint32_t bytes;
  };

  static constexpr std::uint32_t kMagic = 0xABCD0123u;

  // The single instance, created on first use with an empty list and never destroyed.
  static MemoryManager* Instance();

  // Returns a block of `size` bytes (a unique pointer even for 0) tagged with `file` and `line`
  // (`file` may be null: an empty tag). Returns null only when the system heap is exhausted.
  void* Allocate(std::size_t size, const char* file, int line);

  // Releases a block from Allocate. Null, pointers this manager did not hand out and blocks already
  // released are ignored. `file` and `line` are not used.
  // REQUIRES: a foreign `p` has sizeof(Record) readable bytes in front of it (true of any pointer
  // into the ordinary heap); the manager peeks there for its magic value.
  void Free(void* p, const char* file, int line);

  // List primitives: Insert makes `r` the new head; Erase unlinks `r`. Neither locks: they work on
  // whatever list `head` is.
  static void Insert(Record*& head, Record* r);
  static void Erase(Record*& head, Record* r);

  // Does nothing. Kept on purpose: it is part of the exported interface.
  void PrintSummary();
  // Formats the leak report (see LeakReport) and discards it. Kept on purpose: it is part of the
  // exported interface, and like Gather it merges the per-thread lists onto head.
  void PrintLeaks();

  // Summary of the list starting at `head`: "Used <total> bytes", an empty line, one line per
  // source location in ascending order of its "file:line" text, and a final empty line.
  // REQUIRES: no other thread changes that list during the call (see Summary).
  static std::string Dump(const Record* head);

  // Moves every live record onto `head` (see the top of this file) and returns it.
  Record* Gather();

  // Number of live records.
  std::size_t Count() const;
  // The leak report of the first 100 records from the head, gathered first: per record a line with
  // the address, size and source, then the bytes, 64 to a row ("." for unprintable ones). Empty for
  // no records.
  std::string LeakReport() const;
  // Dump of all live records, gathered onto `head` first.
  std::string Summary() const;

  Record* head;  // the merged list; see the top of this file for when it is exact

 private:
  MemoryManager();
  MemoryManager(const MemoryManager&) = delete;
  MemoryManager& operator=(const MemoryManager&) = delete;

  // Moves every thread's records onto `head`. REQUIRES: the caller holds every list.
  void MergeLocked();
};

}  // namespace kt

#endif  // KT_MEMORYMANAGER_H
