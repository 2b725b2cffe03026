// Number reading for every engine family: the numbers of command documents (volumes, window sizes)
// and of a meeting's options (participants=6, seed=4294967295).
#ifndef KTENGINE_NUMBERS_H
#define KTENGINE_NUMBERS_H

#include <string>

namespace ktengine {

// Reads a whole decimal number: one or more digits and nothing else (no sign, no spaces), leading
// zeros allowed, any length. True with the value in *value when it lies within [low, high];
// otherwise false, *value unchanged. REQUIRES: 0 <= low <= high.
bool ReadInt(const std::string& text, long low, long high, long* value);

}  // namespace ktengine

#endif  // KTENGINE_NUMBERS_H
