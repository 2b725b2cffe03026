// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_EVENT_H
#define KT_EVENT_H

#include "kt/ktexport.h"

#endif  // KT_EVENT_H
