// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_SOCKET_H
#define KT_SOCKET_H

#include "kt/ktexport.h"

#endif  // KT_SOCKET_H
