// Nothing escapes into an engine thread: a C++ delegate whose logMessage throws, called for an
// engine's trace line on the engine's own thread, neither ends the process nor stops the tracing.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "ktsim/ktsim.h"
#include "meeting/Convoke.h"
#include "meeting/QuietDelegate.h"
#include "meeting/Logging.h"

namespace Telmora {
namespace {

class ThrowingLogDelegate : public QuietDelegate {
 public:
  void logMessage(unsigned int level, const std::string& text) override {
    calls.fetch_add(1);
    if (text == "throw runtime") throw std::runtime_error("from logMessage");
    if (text == "throw int") throw 42;
    lastLevel.store(level);
  }

  std::atomic<int> calls{0};
  std::atomic<unsigned> lastLevel{0};
};

TEST(Logging, AThrowingLogMessageNeverEscapesIntoTheEngineThread) {
  ktsim_reset();
  ThrowingLogDelegate delegate;
  Convoke* session = Convoke::sharedInstance();
  session->setDelegate(&delegate);
  session->enableInlineAudioVideoLogging(true);
  ktsim_emit_trace(KTSIM_AUDIO, 2, "throw runtime");
  ktsim_emit_trace(KTSIM_VIDEO, 3, "throw int");
  ktsim_emit_trace(KTSIM_AUDIO, 4, "after");
  ktsim_flush(KTSIM_AUDIO);
  ktsim_flush(KTSIM_VIDEO);
  EXPECT_EQ(delegate.calls.load(), 3);
  EXPECT_EQ(delegate.lastLevel.load(), 4u);
  // The library's own lines and a direct call do not throw either.
  EXPECT_NO_THROW(loggingCallback(6, "throw runtime"));
  EXPECT_NO_THROW(logLine("throw int"));
  EXPECT_NO_THROW(loggingCallback(6, nullptr));
  session->enableInlineAudioVideoLogging(false);
  session->setDelegate(nullptr);
  ktsim_reset();
}

}  // namespace
}  // namespace Telmora
