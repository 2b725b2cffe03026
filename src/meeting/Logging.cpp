#include "meeting/Logging.h"

#include "meeting/Convoke.h"
#include "meeting/MeetingDelegate.h"

namespace {

// Hands one line to the session's delegate. Engines log on their own threads: nothing may escape
// into them, so whatever the delegate throws (or a failed copy of the text) ends here and the line
// is dropped.
template <class Line>
void deliver(unsigned int level, const Line& line) noexcept {
  try {
    // Logging never creates the session (which would bind the engines as a side effect): before
    // the session exists there is no delegate to hear the line.
    const Telmora::Convoke* session = Telmora::Convoke::existingInstance();
    if (session == nullptr) return;
    MeetingDelegate* delegate = session->delegate.load();
    if (delegate == nullptr) return;
    delegate->logMessage(level, line());
  } catch (...) {
  }
}

}  // namespace

extern "C" void loggingCallback(unsigned int level, const char* text) {
  deliver(level, [text] { return std::string(text != nullptr ? text : ""); });
}

namespace Telmora {

// The library's own lines are strings already: they reach the delegate without another copy.
void logLine(const std::string& text) {
  deliver(kLogLevel, [&text]() -> const std::string& { return text; });
}

}  // namespace Telmora
