#include "meeting/Logging.h"

#include "meeting/Convoke.h"
#include "meeting/MeetingDelegate.h"

extern "C" void loggingCallback(unsigned int level, const char* text) {
  // Engines call this on their own threads: nothing may escape into them, so whatever the
  // delegate throws (or a failed copy of the text) ends here and the line is dropped.
  try {
    // Logging never creates the session (which would bind the engines as a side effect): before
    // the session exists there is no delegate to hear the line.
    const Telmora::Convoke* session = Telmora::Convoke::existingInstance();
    if (session == nullptr) return;
    MeetingDelegate* delegate = session->delegate.load();
    if (delegate == nullptr) return;
    const std::string message(text != nullptr ? text : "");
    delegate->logMessage(level, message);
  } catch (...) {
  }
}

namespace Telmora {

void logLine(const std::string& text) { loggingCallback(kLogLevel, text.c_str()); }

}  // namespace Telmora
