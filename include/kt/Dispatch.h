// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_DISPATCH_H
#define KT_DISPATCH_H

#include "kt/ktexport.h"

#endif  // KT_DISPATCH_H
