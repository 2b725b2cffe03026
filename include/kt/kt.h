// The base library in one include: XML, memory manager, timers, utilities, events, dispatcher and
// sockets.
#ifndef KT_KT_H
#define KT_KT_H

#include "kt/Dispatch.h"
#include "kt/Event.h"
#include "kt/MemoryManager.h"
#include "kt/ProcessEvent.h"
#include "kt/Socket.h"
#include "kt/Timer.h"
#include "kt/Utility.h"
#include "kt/xml.h"

#endif  // KT_KT_H
