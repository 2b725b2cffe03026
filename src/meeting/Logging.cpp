#include "meeting/Logging.h"

#include "meeting/Convoke.h"
#include "meeting/MeetingDelegate.h"

void MeetingDelegate::logMessage(unsigned int, const std::string&) {}

extern "C" void loggingCallback(unsigned int level, const char* text) {
  MeetingDelegate* delegate = Telmora::Convoke::sharedInstance()->delegate.load();
  if (delegate == nullptr) return;
  const std::string message(text != nullptr ? text : "");
  delegate->logMessage(level, message);
}

namespace Telmora {

void logLine(const std::string& text) { loggingCallback(kLogLevel, text.c_str()); }

}  // namespace Telmora
