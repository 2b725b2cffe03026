// The library's one log sink. Every message of the meeting layer goes through loggingCallback at
// level 6 to the session delegate's logMessage; the engines' trace lines can be routed to it as
// well (Convoke::enableInlineAudioVideoLogging). Safe to call from any thread; nothing the delegate
// throws leaves loggingCallback.
#ifndef CONVOKE_MEETING_LOGGING_H
#define CONVOKE_MEETING_LOGGING_H

#include <string>

#include "convoke/export.h"

extern "C" CONVOKE_API void loggingCallback(unsigned int level, const char* text);

namespace Telmora {

// The level of every message the library itself produces.
constexpr unsigned int kLogLevel = 6;

// loggingCallback at kLogLevel.
void logLine(const std::string& text);

}  // namespace Telmora

#endif  // CONVOKE_MEETING_LOGGING_H
