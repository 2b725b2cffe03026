/* Compiled as C99 with -pedantic: the host header must stay plain C. */
#include "convoke/convoke.h"

#include <string.h>

static void onParticipantAdded(const char* uuid) { (void)uuid; }

/* Called from the C++ tests so that this translation unit is linked and run. */
int convoke_c_header_check(void);
int convoke_c_header_check(void) {
  ConvokeParticipantCallback callback = onParticipantAdded;
  void* function;
  /* ISO C has no conversion between function and object pointers; copy the representation. */
  memcpy(&function, &callback, sizeof function);
  SetDelegateCallback(DelegateCallbackSlotParticipantAdded, function);
  SetDelegateCallback(DelegateCallbackSlotParticipantAdded, 0);
  return (int)DelegateCallbackSlotCount + (int)InfoKeyHeight;
}
