// Video commands, video events and frame delivery through the C API and the simulated video engine.
#include "Harness.h"

namespace convoke_test {
namespace {

class VideoTest : public HostTest {};

std::string video(const std::string& body) { return "VideoSetRoot\t<video>" + body + "</video>"; }

TEST_F(VideoTest, CommandsSendTheirExactDocuments) {
  // Before any join the capture's site is empty.
  EXPECT_NE(enableVideoCapture("cam1", "720p"), 0);
  join();
  EXPECT_NE(enableVideoCapture("cam1", "720p"), 0);
  EXPECT_NE(diableVideoCapture("cam1"), 0);
  EXPECT_NE(enableNetworkVideo("rtsp://x/y", "hd", ""), 0);
  EXPECT_NE(disableNetworkVideo("rtsp://x/y"), 0);
  EXPECT_NE(disableVideoStream("v1"), 0);
  EXPECT_EQ(engineCalls("VideoSetRoot\t"),
            (std::vector<std::string>{
                video("<devices><device id=\"cam1\"><enable>true</enable><site></site><name>cam1"
                      "</name><profile>720p</profile></device></devices>"),
                video("<devices><device id=\"cam1\"><enable>true</enable><site>Ann</site><name>cam1"
                      "</name><profile>720p</profile></device></devices>"),
                video("<devices><device id=\"cam1\"><enable>false</enable></device></devices>"),
                video("<local_url><name></name><url>rtsp://x/y</url><command>playback_start"
                      "</command><profile>hd</profile></local_url>"),
                video("<local_url><url>rtsp://x/y</url><command>playback_stop</command>"
                      "</local_url>"),
                video("<streams><stream id=\"v1\"><enable>false</enable></stream></streams>"),
            }));
  setDeviceOrientation(3);
  EXPECT_EQ(engineLog().back(), "VideoSetDeviceOrientation\t3");
}

TEST_F(VideoTest, ValidationMessages) {
  struct Case {
    std::function<int()> call;
    const char* message;
  } cases[] = {
      {[] { return enableVideoCapture("", "m"); }, "Invalid camera device"},
      {[] { return enableVideoCapture("c", ""); }, "Invalid camera mode"},
      {[] { return diableVideoCapture(""); }, "Invalid camera device"},
      {[] { return enableNetworkVideo("", "p", "n"); }, "Invalid URL"},
      {[] { return enableNetworkVideo("u", "", "n"); }, "Invalid camera mode"},
      {[] { return disableNetworkVideo(""); }, "Invalid URL"},
      {[] { return disableVideoStream(""); }, "Invalid streamId"},
      {[] { return enableVideoStream("unknown", "RGB888"); }, "Can't find VideoInfo for streamId"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.call(), 0);
    EXPECT_STREQ(getLastError(), c.message);
  }
  EXPECT_TRUE(engineCalls("VideoSetRoot").empty());
}

TEST_F(VideoTest, EnableVideoStreamRendersAtTheAnnouncedSizeAndReportsSuccessOnlyWhenAccepted) {
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 640, 360));
  ktsim_log_clear();
  enableAudioInput("");  // last error: "Invalid device name"
  ktsim_set_setroot_result(KTSIM_VIDEO, false);
  ktsim_set_last_error(KTSIM_VIDEO, "no decoder");
  EXPECT_EQ(enableVideoStream("v1", "RGB888"), 0);
  EXPECT_STREQ(getLastError(), "no decoder");
  ktsim_set_setroot_result(KTSIM_VIDEO, true);
  EXPECT_NE(enableVideoStream("v1", "I420"), 0);
  EXPECT_STREQ(getLastError(), "Success");
  EXPECT_EQ(engineCalls("VideoSetRoot\t").back(),
            video("<streams><stream id=\"v1\"><render><colorspace>I420</colorspace><shmid>0"
                  "</shmid><local>false</local><enable>true</enable><window><x>0</x><y>0</y>"
                  "<width>640</width><height>360</height></window></render></stream></streams>"));
}

TEST_F(VideoTest, SiteChangesFileStreamsAndTheQueriesReadThem) {
  join("ann@example.com");
  videoEvent(videoSiteChanged("v2", "bob@example.com", "Bob cam", false, 640, 360,
                              "<codecName>H264</codecName><site>Bob's desk</site>"));
  videoEvent(
      videoSiteChanged("v1", "bob@example.com", "Bob screen Screen Capture", false, 1920, 1080));
  // A re-announcement changes nothing stored.
  videoEvent(videoSiteChanged("v2", "bob@example.com", "Other", false, 1, 1));
  // A local stream is filed under the local participant whatever its e-mail says.
  videoEvent(videoSiteChanged("l1", "someone@else", "ignored", true, 1280, 720,
                              "<device_name>Lumen HD</device_name>"));
  EXPECT_EQ(Recorder::instance().lines(), (std::vector<std::string>{
                                              "participantAdded:ann@example.com",
                                              "participantAdded:bob@example.com",
                                              "participantVideoAdded:bob@example.com:v2",
                                              "participantVideoAdded:bob@example.com:v1",
                                              "participantVideoUpdated:bob@example.com:v2",
                                              "participantVideoAdded:ann@example.com:l1",
                                          }));
  ASSERT_EQ(getParticipantVideoInfoCount("bob@example.com"), 2u);
  const char* out = nullptr;
  getParticipantVideoInfoAt("bob@example.com", 0, &out);
  EXPECT_STREQ(out, "v1");
  getParticipantVideoInfoAt("bob@example.com", 1, &out);
  EXPECT_STREQ(out, "v2");
  getParticipantVideoInfoAt("bob@example.com", 2, &out);  // past the end: unchanged
  EXPECT_STREQ(out, "v2");
  getVideoInfoString("v2", InfoKeyName, &out);
  EXPECT_STREQ(out, "Bob cam");
  getVideoInfoString("v2", InfoKeyCodecName, &out);
  EXPECT_STREQ(out, "H264");
  getVideoInfoString("v2", InfoKeySite, &out);
  EXPECT_STREQ(out, "Bob's desk");
  getVideoInfoString("v2", InfoKeyLocal, &out);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(getVideoInfoInt("v2", InfoKeyWidth), 640);
  EXPECT_EQ(getVideoInfoInt("v2", InfoKeyHeight), 360);
  EXPECT_EQ(getVideoInfoInt("v2", InfoKeyLayout), 1);
  EXPECT_EQ(getVideoInfoInt("v2", InfoKeyActive), 0);
  getVideoInfoString("v1", InfoKeyName, &out);
  EXPECT_TRUE(isScreenShare(out));
  EXPECT_FALSE(isScreenShare("Bob cam"));
  getVideoInfoString("l1", InfoKeyName, &out);
  EXPECT_STREQ(out, "Lumen HD");
  EXPECT_TRUE(getVideoInfoBool("l1", InfoKeyLocal));
  char owner[64];
  findParticipantByVideoStreamId("l1", owner, sizeof(owner));
  EXPECT_STREQ(owner, "ann@example.com");
  // strncpy semantics: a UUID as long as the buffer is not terminated.
  char small[4] = {'x', 'x', 'x', 'x'};
  findParticipantByVideoStreamId("v1", small, 3);
  EXPECT_EQ(std::string(small, 4), "bobx");
}

TEST_F(VideoTest, SizeLayoutAndRemovalEvents) {
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 640, 360));
  Recorder::instance().clear();
  videoEvent(
      "<event name=\"video_stream_size_changed\"><stream id=\"v1\"><window><width>1280</width>"
      "<height>720</height></window></stream></event>");
  videoEvent(
      "<event name=\"remote_layout_changed\"><stream id=\"v1\"><layout>300</layout></stream>"
      "</event>");
  videoEvent(
      "<event name=\"video_update_conditions\"><conditions><received>1</received>"
      "</conditions></event>");
  EXPECT_EQ(getVideoInfoInt("v1", InfoKeyWidth), 1280);
  EXPECT_EQ(getVideoInfoInt("v1", InfoKeyHeight), 720);
  EXPECT_EQ(getVideoInfoInt("v1", InfoKeyLayout), 44);
  videoEvent("<event name=\"video_stream_removed\"><stream id=\"v1\"/></event>");
  videoEvent("<event name=\"video_stream_removed\"><stream id=\"v1\"/></event>");
  EXPECT_EQ(Recorder::instance().lines(),
            (std::vector<std::string>{
                "participantVideoRemoteLayoutChanged:bob@example.com:v1",
                "participantVideoRemoved:bob@example.com:v1",
            }));
  EXPECT_EQ(getParticipantVideoInfoCount("bob@example.com"), 0u);
  const char* out = nullptr;
  getParticipantString("bob@example.com", InfoKeyId, &out);  // the participant stays
  EXPECT_STREQ(out, "bob@example.com");
}

TEST_F(VideoTest, BufferReadyStartsFramesUntilTheStreamIsDisabled) {
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 640, 360));
  ktsim_set_frame_ready("v1", 1);
  videoEvent(
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" pixel_buffer=\"4096\"/>"
      "</event>");
  EXPECT_TRUE(getVideoInfoBool("v1", InfoKeyActive));
  EXPECT_EQ(Recorder::instance().matching("videoStreamBufferReady:"),
            std::vector<std::string>{"videoStreamBufferReady:v1:4096"});
  ASSERT_TRUE(Recorder::instance().waitFor("videoFrameReady:v1:4096", 3));

  // Once the disable returns, no frame of the stream begins.
  EXPECT_NE(disableVideoStream("v1"), 0);
  const std::size_t frames = Recorder::instance().matching("videoFrameReady:v1:").size();
  letFramePollersTurn();
  EXPECT_EQ(Recorder::instance().matching("videoFrameReady:v1:").size(), frames);
}

TEST_F(VideoTest, NonNumericPixelBufferIsDroppedAtTheBoundary) {
  videoEvent(videoSiteChanged("v1", "bob@example.com", "Bob", false, 640, 360));
  videoEvent(
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" pixel_buffer=\"abc\"/>"
      "</event>");
  videoEvent(
      "<event name=\"video_stream_buffer_ready\"><stream id=\"v1\" "
      "pixel_buffer=\"99999999999999999999999\"/></event>");
  EXPECT_TRUE(Recorder::instance().matching("videoStreamBufferReady:").empty());
  // The engine thread is still alive and routing.
  videoEvent(videoSiteChanged("v2", "bob@example.com", "Bob", false, 640, 360));
  EXPECT_EQ(Recorder::instance().matching("participantVideoAdded:").size(), 2u);
}

}  // namespace
}  // namespace convoke_test
