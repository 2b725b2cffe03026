// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_MEMORYMANAGER_H
#define KT_MEMORYMANAGER_H

#include "kt/ktexport.h"

#endif  // KT_MEMORYMANAGER_H
