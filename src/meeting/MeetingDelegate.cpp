#include "meeting/MeetingDelegate.h"

// The one operation with a body: a delegate that does not log hears nothing.
void MeetingDelegate::logMessage(unsigned int, const std::string&) {}
