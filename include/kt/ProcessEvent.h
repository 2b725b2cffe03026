// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_PROCESSEVENT_H
#define KT_PROCESSEVENT_H

#include "kt/ktexport.h"

#endif  // KT_PROCESSEVENT_H
