/* A minimal host: joins a meeting through the installed library and its engines, reports who is
 * there, and leaves. With the simulated engines the meeting runs on this machine alone. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <convoke/convoke.h>

static int joined = -1;
static int participants = 0;

static void onJoined(bool ok) { joined = ok ? 1 : 0; }
static void onParticipantAdded(const char* uuid) {
  ++participants;
  printf("participant added: %s\n", uuid);
}

static void* asPointer(ConvokeParticipantCallback callback) {
  void* pointer;
  memcpy(&pointer, &callback, sizeof pointer);
  return pointer;
}

int main(void) {
  const struct timespec second = {1, 0};
  ConvokeInitialize();
  SetDelegateCallback(DelegateCallbackSlotParticipantAdded, asPointer(onParticipantAdded));
  joinMeeting("localhost", "example", "example-key", "", "Example Host", onJoined);
  if (joined != 1) {
    fprintf(stderr, "join failed\n");
    return 1;
  }
  nanosleep(&second, NULL);
  exitMeeting();
  printf("left the meeting after seeing %d participant(s)\n", participants);
  return participants >= 1 ? 0 : 1;
}
