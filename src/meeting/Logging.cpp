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
    // The first line creates the session when it does not exist yet, on purpose: creating it
    // hands the engines their event callbacks (audio first, then video), so a host whose first
    // call is a log line, or an engine that traces before any other call, finds them bound. The
    // session's constructor logs nothing, so this cannot recurse into its own creation.
    const Telmora::Convoke* session = Telmora::Convoke::sharedInstance();
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
