/* Registering a host callback from C. */
#ifndef CONVOKE_TOOLS_DEMO_REGISTER_H
#define CONVOKE_TOOLS_DEMO_REGISTER_H

#include <string.h>

#include "convoke/convoke.h"

/* ISO C has no cast between function and object pointers: copy the representation. fn is a
 * variable of the slot's callback type. */
#define DEMO_REGISTER(slot, fn)                \
  do {                                         \
    void* pointer_;                            \
    memcpy(&pointer_, &(fn), sizeof pointer_); \
    SetDelegateCallback((slot), pointer_);     \
  } while (0)

#endif /* CONVOKE_TOOLS_DEMO_REGISTER_H */
