// Utility functions of the base library: sleeping, random values, UUIDs and more.
// Every function here is safe to call from any thread unless its comment says otherwise.
#ifndef KT_UTILITY_H
#define KT_UTILITY_H

#include <string>

#include "kt/ktexport.h"

namespace kt {

// Sleeps for ms milliseconds with nanosleep. Returns false when a signal interrupted the sleep.
KT_EXPORT bool __os_Sleep(unsigned ms);

// Sleeps for ms milliseconds with usleep.
KT_EXPORT void Suspend(unsigned ms);

// A new random UUID (uuid_generate) in the 36-character 8-4-4-4-12 text form of uuid_unparse.
KT_EXPORT std::string GenerateUUID();

}  // namespace kt

#endif  // KT_UTILITY_H
