#include "kt/Utility.h"

#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>

namespace kt {

bool __os_Sleep(unsigned ms) {
  struct timespec request;
  request.tv_sec = ms / 1000;
  request.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return nanosleep(&request, nullptr) == 0;
}

void Suspend(unsigned ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

std::string GenerateUUID() {
  uuid_t uuid;
  uuid_generate(uuid);
  char text[37];
  uuid_unparse(uuid, text);
  return std::string(text);
}

}  // namespace kt
