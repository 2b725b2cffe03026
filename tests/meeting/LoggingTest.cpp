// The log sink: the levels that reach the delegate, and nothing escaping into an engine thread.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ktsim/ktsim.h"
#include "meeting/Convoke.h"
#include "meeting/Logging.h"
#include "meeting/QuietDelegate.h"

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

// A C++ delegate whose logMessage throws, called for an engine's trace line on the engine's own
// thread, neither ends the process nor stops the tracing.
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

// The library's own lines, from the host's thread and from both engines' threads, reach the
// delegate at level 6; an engine's trace line keeps the engine's level.
TEST(Logging, LibraryLinesReachTheDelegateAtLevelSix) {
  struct Lines : QuietDelegate {
    void logMessage(unsigned int level, const std::string& text) override {
      std::lock_guard<std::mutex> lock(mutex);
      lines.emplace_back(level, text);
    }
    std::mutex mutex;
    std::vector<std::pair<unsigned, std::string>> lines;
  } delegate;
  ktsim_reset();
  Convoke* session = Convoke::sharedInstance();
  session->setDelegate(&delegate);
  session->enableAudioInput("");
  ktsim_deliver_sync(KTSIM_AUDIO, "<event name=\"nope\"/>");
  ktsim_deliver_sync(KTSIM_AUDIO, "<event/>");
  ktsim_deliver_sync(KTSIM_VIDEO, "<event/>");
  session->enableInlineAudioVideoLogging(true);
  ktsim_emit_trace(KTSIM_VIDEO, 3, "an engine trace");
  ktsim_flush(KTSIM_VIDEO);
  session->enableInlineAudioVideoLogging(false);
  session->setDelegate(nullptr);
  ktsim_reset();

  const auto levelOf = [&](const std::string& text) {
    for (const auto& line : delegate.lines) {
      if (line.second == text) return static_cast<int>(line.first);
    }
    return -1;
  };
  EXPECT_EQ(levelOf("Convoke: audioCallback: unhandled event name: nope"), 6);
  EXPECT_EQ(levelOf("audioCallback, can't find event name"), 6);
  EXPECT_EQ(levelOf("Convoke: videoCallback, can't find event name"), 6);
  EXPECT_EQ(levelOf("an engine trace"), 3);
  // Every line but the engine's is the library's own.
  for (const auto& line : delegate.lines) {
    if (line.second != "an engine trace") {
      EXPECT_EQ(line.first, 6u) << line.second;
    }
  }
}

}  // namespace
}  // namespace Telmora
