#include "meeting/Logging.h"

#include "meeting/Convoke.h"
#include "meeting/MeetingDelegate.h"

void MeetingDelegate::logMessage(unsigned int, const std::string&) {}

extern "C" void loggingCallback(unsigned int level, const char* text) {
  // Engines call this on their own threads: nothing may escape into them, so whatever the
  // delegate throws (or a failed copy of the text) ends here and the line is dropped.
  try {
    MeetingDelegate* delegate = Telmora::Convoke::sharedInstance()->delegate.load();
    if (delegate == nullptr) return;
    const std::string message(text != nullptr ? text : "");
    delegate->logMessage(level, message);
  } catch (...) {
  }
}

namespace Telmora {

void logLine(const std::string& text) { loggingCallback(kLogLevel, text.c_str()); }

}  // namespace Telmora
