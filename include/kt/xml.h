// Placeholder: filled in by the issue that builds this part of the base library.
#ifndef KT_XML_H
#define KT_XML_H

#include "kt/ktexport.h"

#endif  // KT_XML_H
