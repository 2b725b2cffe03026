// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_TIMER_H
#define KT_TIMER_H

#include "kt/ktexport.h"

#endif  // KT_TIMER_H
