// Feeds arbitrary event documents to the engines' event callbacks with every host callback
// registered, each of which queries the library back, then leaves the meeting. The input is one
// document per line; the first byte of a line chooses the engine (odd, like 'a': audio; even, like
// 'v': video). After the leave the registry must be empty and every memory manager record
// released.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "convoke/convoke.h"
#include "kt/MemoryManager.h"
#include "ktsim/ktsim.h"
#include "meeting/AudioEvents.h"
#include "meeting/Convoke.h"
#include "meeting/VideoEvents.h"
#include "meeting/VideoTimerTask.h"

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "router_fuzzer: %s\n", what);
  std::abort();
}

// Every callback asks about what it was told, as a host would.
void askParticipant(const char* uuid) {
  const char* text = nullptr;
  getParticipantString(uuid, InfoKeySite, &text);
  getParticipantAudioInfoStreamId(uuid, &text);
  const unsigned count = getParticipantVideoInfoCount(uuid);
  if (count > 0) getParticipantVideoInfoAt(uuid, count - 1, &text);
  getParticipantBool(uuid, InfoKeyLocal);
}
void askStream(const char* uuid, const char* stream) {
  askParticipant(uuid);
  const char* text = nullptr;
  getVideoInfoString(stream, InfoKeyName, &text);
  getVideoInfoInt(stream, InfoKeyLayout);
  char owner[64];
  findParticipantByVideoStreamId(stream, owner, sizeof owner);
}
void onBuffer(const char* stream, void*) { askStream("", stream); }
void onMeter(unsigned char) { getLastError(); }
void onAmplitude(const char* uuid, unsigned char, bool) { askParticipant(uuid); }
void onPlayback(unsigned long long) {}
void onAudioCondition(int, int, int, int, int, int, int, int, int, int) {}
void onVideoCondition(int, int, int, int, int, int) {}

void setUp() {
  ktsim_reset();  // manual engines: nothing but what this target delivers
  ConvokeInitialize();
  void* table[DelegateCallbackSlotCount] = {
      reinterpret_cast<void*>(askParticipant),   reinterpret_cast<void*>(askParticipant),
      reinterpret_cast<void*>(askParticipant),   reinterpret_cast<void*>(askParticipant),
      reinterpret_cast<void*>(askStream),        reinterpret_cast<void*>(askStream),
      reinterpret_cast<void*>(askStream),        reinterpret_cast<void*>(askStream),
      reinterpret_cast<void*>(onBuffer),         reinterpret_cast<void*>(onBuffer),
      reinterpret_cast<void*>(onMeter),          reinterpret_cast<void*>(onMeter),
      reinterpret_cast<void*>(onAmplitude),      nullptr,
      reinterpret_cast<void*>(onPlayback),       reinterpret_cast<void*>(onPlayback),
      reinterpret_cast<void*>(onAudioCondition), reinterpret_cast<void*>(onVideoCondition),
  };
  for (unsigned slot = 0; slot < DelegateCallbackSlotCount; ++slot) {
    SetDelegateCallback(slot, table[slot]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (setUp(), true);
  (void)ready;
  kt::MemoryManager* memory = kt::MemoryManager::Instance();
  const std::size_t recordsBefore = memory->Count();

  joinMeeting("srv", "room", "key", "host@example.com", "Host", [](bool) {});
  const char* cursor = reinterpret_cast<const char*>(data);
  const char* const end = cursor + size;
  while (cursor < end) {
    const char* newline = static_cast<const char*>(std::memchr(cursor, '\n', end - cursor));
    const char* lineEnd = newline != nullptr ? newline : end;
    if (lineEnd > cursor) {
      const bool video = (static_cast<unsigned char>(*cursor) & 1) == 0;
      const std::string document(cursor + 1, lineEnd);
      if (video) {
        videoCallback(nullptr, document.c_str());
      } else {
        audioCallback(nullptr, document.c_str());
      }
    }
    cursor = lineEnd + 1;
  }
  exitMeeting();
  ktsim_log_clear();
  // No timer thread outlives its input: the leak check that follows each input sees only what
  // the input itself left behind.
  if (Telmora::VideoTimerTask::drainStoppedThreads() != 0) Fail("timer threads left");

  if (Telmora::Convoke::sharedInstance()->participants.size() != 0) Fail("participants left");
  if (Telmora::VideoEvents::sharedInstance()->taskCount() != 0) Fail("timer tasks left");
  if (memory->Count() != recordsBefore) Fail("memory manager records left");
  return 0;
}
