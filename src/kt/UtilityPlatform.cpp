// Sleeping and the fixed answers to platform queries.
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <list>

#include "kt/Utility.h"

namespace kt {

bool __os_Sleep(unsigned ms) {
  struct timespec request;
  request.tv_sec = ms / 1000;
  request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return nanosleep(&request, nullptr) == 0;
}

void Suspend(unsigned ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

int GetNumCores() { return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)); }

bool IsWindows7orLater() { return false; }

bool IsWindows8orLater() { return false; }

uint32_t TestForAvailableMemory() {
  const size_t kBlock = 20000000;
  std::list<void*> blocks;
  uint32_t total = 0;
  for (;;) {
    void* block = malloc(kBlock);
    if (block == nullptr) break;
    blocks.push_back(block);
    total += static_cast<uint32_t>(kBlock);
  }
  for (void* block : blocks) free(block);
  return total / 1000000;
}

}  // namespace kt
