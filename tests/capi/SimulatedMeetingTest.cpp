// A whole simulated meeting through the C API: people arrive and leave, rendered streams deliver
// frames at about their rate, and leaving stops everything. Also the demo's PNG snapshot.
#include <png.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <regex>
#include <set>

#include "Harness.h"
#include "common/WaitUntil.h"

namespace convoke_test {
namespace {

using namespace std::chrono_literals;

class SimulatedMeetingTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    ktsim_meeting_enable(true);
  }
  // Remote streams announced so far, rendered from the test's thread (never from a callback).
  std::set<std::string> renderAnnounced(std::set<std::string> done) {
    for (const std::string& line : Recorder::instance().matching("participantVideoAdded:")) {
      const std::string id = line.substr(line.rfind(':') + 1);
      if (done.count(id) != 0 || getVideoInfoBool(id.c_str(), InfoKeyLocal)) continue;
      if (enableVideoStream(id.c_str(), "RGB888") != 0) done.insert(id);
    }
    return done;
  }
};

TEST_F(SimulatedMeetingTest, ParticipantsArriveSpeakAndLeaveAndFramesFlowAtTheirRate) {
  joinMeeting("127.0.0.1", "standup?participants=3&churn=0&screen=0&fps=20", "key", "", "Ann",
              [](bool) {});
  // The local user plus three bots.
  ASSERT_TRUE(Recorder::instance().waitFor("participantAdded:", 4));
  ASSERT_TRUE(Recorder::instance().waitFor("participantVideoAdded:", 3));
  ASSERT_TRUE(Recorder::instance().waitFor("participantAmplitudeChanged:", 1, 5000ms));

  std::set<std::string> rendered;
  ASSERT_TRUE(convoke_test_support::waitUntil([&] {
    rendered = renderAnnounced(rendered);
    return rendered.size() == 3;
  }));

  // Every rendered stream keeps delivering frames. Their rate (20 a second here, polled about 30
  // times a second) can only be bounded from above: a poller never reports more than it polls.
  const auto before = std::chrono::steady_clock::now();
  const std::size_t framesBefore = Recorder::instance().matching("videoFrameReady:").size();
  for (const std::string& id : rendered) {
    EXPECT_TRUE(Recorder::instance().waitFor("videoFrameReady:" + id + ":", 5)) << id;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
  const std::size_t frames =
      Recorder::instance().matching("videoFrameReady:").size() - framesBefore;
  EXPECT_LE(frames, static_cast<std::size_t>(3 * 34 * (seconds + 0.1)) + 3) << frames;

  // A departure removes the participant and its streams.
  ASSERT_TRUE(ktsim_meeting_depart());
  EXPECT_TRUE(Recorder::instance().waitFor("participantRemoved:", 1));
  EXPECT_TRUE(Recorder::instance().waitFor("participantVideoRemoved:", 1));

  exitMeeting();
  EXPECT_FALSE(ktsim_meeting_running());
  // Nothing arrives after leaving: not the events the engines had queued, not a frame.
  ktsim_flush(KTSIM_AUDIO);
  ktsim_flush(KTSIM_VIDEO);
  const std::size_t after = Recorder::instance().lines().size();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(Recorder::instance().lines().size(), after);
}

TEST_F(SimulatedMeetingTest, TheEngineRefusesWhatItDoesNotKnow) {
  joinMeeting("127.0.0.1", "refusals?participants=1&churn=0", "key", "", "Ann", [](bool) {});
  EXPECT_EQ(enableVideoCapture("no-such-camera", "720p"), 0);
  EXPECT_STRNE(getLastError(), "Success");
  EXPECT_STRNE(getLastError(), "Unknown error");
  EXPECT_EQ(enableAudioInput("no-such-mic"), 0);
  EXPECT_STRNE(getLastError(), "Unknown error");
}

#ifdef CONVOKE_DEMO_PATH
// The demo's --snapshot writes a PNG that decodes to a grid of one 320x180 tile per stream.
TEST(DemoSnapshot, DecodesAsAPngOfTheExpectedSize) {
  const std::string path = ::testing::TempDir() + "convoke-snapshot.png";
  std::remove(path.c_str());
  const std::string command =
      std::string(CONVOKE_DEMO_PATH) + " --plain --duration 2 --participants 2 --snapshot " + path;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
  ASSERT_EQ(pclose(pipe), 0) << output;

  std::smatch match;
  ASSERT_TRUE(std::regex_search(output, match, std::regex("snapshot of ([0-9]+) streams")))
      << output;
  const int streams = std::stoi(match[1]);
  ASSERT_GE(streams, 2);
  int columns = 1;
  while (columns * columns < streams) ++columns;
  const int rows = (streams + columns - 1) / columns;

  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&image, path.c_str()), 0) << image.message;
  image.format = PNG_FORMAT_RGB;
  std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(image));
  ASSERT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0) << image.message;
  EXPECT_EQ(image.width, static_cast<png_uint_32>(columns * (320 + 4) + 4));
  EXPECT_EQ(image.height, static_cast<png_uint_32>(rows * (180 + 4) + 4));
  // Not a blank canvas: the frames were copied in.
  std::map<unsigned char, int> values;
  for (std::size_t i = 0; i < pixels.size(); i += 97) ++values[pixels[i]];
  EXPECT_GT(values.size(), 8u);
  std::remove(path.c_str());
}
#endif  // CONVOKE_DEMO_PATH

}  // namespace
}  // namespace convoke_test
