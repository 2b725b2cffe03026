// The scripted meeting, through the engine ABI with the tests' own callbacks.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sim/sim_fixture.h"

namespace simtest {
namespace {

// Text of the first <name>...</name> in `xml` ("" when absent).
std::string Field(const std::string& xml, const std::string& name) {
  const std::string open = "<" + name + ">";
  const size_t at = xml.find(open);
  if (at == std::string::npos) return "";
  const size_t end = xml.find("</" + name + ">", at);
  return end == std::string::npos ? "" : xml.substr(at + open.size(), end - at - open.size());
}

// Value of the first attribute `name="..."` in `xml` ("" when absent).
std::string Attr(const std::string& xml, const std::string& name) {
  const std::string open = " " + name + "=\"";
  const size_t at = xml.find(open);
  if (at == std::string::npos) return "";
  return xml.substr(at + open.size(), xml.find('"', at + open.size()) - at - open.size());
}

std::string EventName(const std::string& xml) { return Attr(xml, "name"); }

std::vector<std::string> Named(const std::vector<Received>& got, const std::string& name) {
  std::vector<std::string> out;
  for (const Received& r : got) {
    if (EventName(r.text) == name) out.push_back(r.text);
  }
  return out;
}

size_t CountNamed(const std::vector<Received>& got, const std::string& name) {
  return Named(got, name).size();
}

std::string LastError(ktsim_engine engine) {
  char buffer[1024] = "";
  engine == KTSIM_AUDIO ? AudioGetLastError(buffer, sizeof buffer)
                        : VideoGetLastError(buffer, sizeof buffer);
  return buffer;
}

std::string RenderCommand(const std::string& id, const char* colorspace, int width, int height) {
  return "<video><streams><stream id=\"" + id + "\"><render><colorspace>" + colorspace +
         "</colorspace><shmid>0</shmid><local>false</local><enable>true</enable><window><x>0</x>"
         "<y>0</y><width>" +
         std::to_string(width) + "</width><height>" + std::to_string(height) +
         "</height></window></render></stream></streams></video>";
}

const char kUuid[] = "me@example.com";

class ScriptedMeeting : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    ktsim_meeting_enable(true);
    ktsim_meeting_configure("start=0&churn=0&tick=20&conditions=200");
  }
  void TearDown() override {
    AudioDisconnect(0);
    VideoDisconnect(0);
    EXPECT_FALSE(ktsim_meeting_running());
    SimTest::TearDown();
  }

  static bool Join(const std::string& meeting, bool audio = true) {
    const std::string base = "rtsp://127.0.0.1:46000/kt.sdp/";
    if (audio) {
      AudioConnect((base + "4/" + meeting).c_str(), "auto", "", "Me", kUuid, "key", "AES256", 0, 1,
                   0);
    }
    return VideoConnect((base + "6/" + meeting).c_str(), "auto", "", "Me", kUuid, "key", "AES256",
                        0, 1, 0);
  }

  // Waits until at least `n` events of that name arrived.
  bool WaitFor(const std::string& name, size_t n,
               std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    return recorder().WaitUntil(
        [&](const std::vector<Received>& got) { return CountNamed(got, name) >= n; }, limit);
  }
};

TEST_F(ScriptedMeeting, ParticipantsAreAnnouncedOnBothEnginesThenArriveAndLeave) {
  ktsim_meeting_configure("start=0&churn=0&tick=20&phone=1&screen=1&muted=0");
  ASSERT_TRUE(Join("standup?participants=5"));
  EXPECT_TRUE(ktsim_meeting_running());
  EXPECT_EQ(ktsim_meeting_participants(), 5);
  ASSERT_TRUE(WaitFor("audio_site_changed", 5));
  ASSERT_TRUE(WaitFor("video_site_changed", 5));  // four cameras (one dials in) and a screen
  ktsim_flush(KTSIM_VIDEO);

  std::vector<Received> got = recorder().Snapshot();
  std::map<std::string, std::string> audio_of;  // e-mail -> audio stream id
  for (const std::string& e : Named(got, "audio_site_changed")) {
    const std::string email = Field(e, "email");
    EXPECT_NE(email.find('@'), std::string::npos) << e;
    EXPECT_FALSE(Field(e, "site").empty()) << e;
    EXPECT_TRUE(audio_of.emplace(email, Attr(e, "id")).second) << "duplicate " << email;
  }
  ASSERT_EQ(audio_of.size(), 5u);
  int screens = 0;
  std::set<std::string> with_video;
  for (const std::string& e : Named(got, "video_site_changed")) {
    EXPECT_EQ(audio_of.count(Field(e, "email")), 1u) << "video without audio: " << e;
    EXPECT_EQ(Field(e, "local"), "false");
    EXPECT_GT(std::atoi(Field(e, "width").c_str()), 0) << e;
    EXPECT_GT(std::atoi(Field(e, "height").c_str()), 0) << e;
    EXPECT_FALSE(Field(e, "codecName").empty()) << e;
    EXPECT_FALSE(Field(e, "layout").empty()) << e;
    screens += Field(e, "name").find("Screen Capture") != std::string::npos ? 1 : 0;
    with_video.insert(Field(e, "email"));
  }
  EXPECT_EQ(screens, 1);
  EXPECT_EQ(with_video.size(), 4u);  // the phone participant has no video
  // Every event of a meeting is on its engine's thread.
  for (const Received& r : got) {
    const bool video = EventName(r.text).rfind("video", 0) == 0;
    EXPECT_EQ(r.engine, video ? KTSIM_VIDEO : KTSIM_AUDIO) << r.text;
  }

  // A later arrival is announced on both engines.
  recorder().Clear();
  ASSERT_TRUE(ktsim_meeting_arrive());
  EXPECT_EQ(ktsim_meeting_participants(), 6);
  ASSERT_TRUE(WaitFor("video_site_changed", 1));
  got = recorder().Snapshot();
  ASSERT_EQ(CountNamed(got, "audio_site_changed"), 1u);
  const std::string newcomer = Field(Named(got, "audio_site_changed")[0], "email");
  const std::string newcomer_audio = Attr(Named(got, "audio_site_changed")[0], "id");
  EXPECT_EQ(audio_of.count(newcomer), 0u);
  const std::string camera = Attr(Named(got, "video_site_changed")[0], "id");
  EXPECT_EQ(Field(Named(got, "video_site_changed")[0], "email"), newcomer);

  // The latest arrival leaves: its video ends, then its audio (the whole participant).
  recorder().Clear();
  ASSERT_TRUE(ktsim_meeting_depart());
  EXPECT_EQ(ktsim_meeting_participants(), 5);
  ASSERT_TRUE(WaitFor("audio_stream_removed", 1));
  got = recorder().Snapshot();
  ASSERT_EQ(CountNamed(got, "video_stream_removed"), 1u);
  EXPECT_EQ(Attr(Named(got, "video_stream_removed")[0], "id"), camera);
  EXPECT_EQ(Attr(Named(got, "audio_stream_removed")[0], "id"), newcomer_audio);
}

TEST_F(ScriptedMeeting, OptionsComeFromTheMeetingIdentifierAndTheSeedFixesTheCast) {
  auto cast = [&](const std::string& meeting) {
    recorder().Clear();
    EXPECT_TRUE(Join(meeting));
    EXPECT_TRUE(WaitFor("audio_site_changed", 3));
    std::set<std::string> emails;
    for (const std::string& e : Named(recorder().Snapshot(), "audio_site_changed")) {
      emails.insert(Field(e, "email"));
    }
    AudioDisconnect(0);
    VideoDisconnect(0);
    return emails;
  };
  const std::set<std::string> first = cast("planning?participants=3&seed=7");
  EXPECT_EQ(first.size(), 3u);
  EXPECT_EQ(cast("planning?participants=3&seed=7"), first);
  EXPECT_NE(cast("planning?participants=3&seed=8"), first);
  EXPECT_EQ(cast("planning?participants=3"), cast("planning?participants=3"));

  // Churn: arrivals and departures happen by themselves.
  recorder().Clear();
  ASSERT_TRUE(Join("retro?participants=3&churn=0.1"));
  EXPECT_TRUE(WaitFor("audio_stream_removed", 2));
  EXPECT_TRUE(WaitFor("audio_site_changed", 5));
}

TEST_F(ScriptedMeeting, TalkMetersAndConditionsFollowTheLocalDevices) {
  ASSERT_TRUE(Join("talk?participants=4&muted=1&phone=0"));
  ASSERT_TRUE(AudioSetRoot(
      "<audio><input><device guid=\"\" id=\"mic-builtin\"><enable>true</enable><volume>100"
      "</volume><profile>opus-16k-mono</profile></device></input></audio>"));
  ASSERT_TRUE(AudioSetRoot(
      "<audio><output><device guid=\"\" id=\"spk-builtin\"><enable>true</enable><volume>50"
      "</volume><profile>opus-16k-mono</profile></device></output></audio>"));
  // Someone speaks up within a few seconds.
  ASSERT_TRUE(recorder().WaitUntil(
      [](const std::vector<Received>& got) {
        for (const std::string& e : Named(got, "amplitude")) {
          if (std::atoi(Field(e, "amplitude").c_str()) > 30) return true;
        }
        return false;
      },
      std::chrono::seconds(10)));
  // Enough of the meeting to judge: meters and two rounds of conditions.
  ASSERT_TRUE(recorder().WaitUntil([](const std::vector<Received>& got) {
    return CountNamed(got, "input_meter") > 5 && CountNamed(got, "output_meter") > 5 &&
           CountNamed(got, "audio_update_conditions") >= 2;
  }));
  ktsim_flush(KTSIM_AUDIO);
  std::vector<Received> got = recorder().Snapshot();

  // Mostly one speaker at a time; a muted participant is silent.
  std::map<std::string, int> level;
  size_t events = 0, crowded = 0;
  bool saw_muted = false;
  for (const std::string& e : Named(got, "amplitude")) {
    const int amplitude = std::atoi(Field(e, "amplitude").c_str());
    if (Attr(e, "muted") == "true") {
      saw_muted = true;
      EXPECT_EQ(amplitude, 0) << e;
    }
    level[Attr(e, "id")] = amplitude;
    int loud = 0;
    for (const auto& entry : level) loud += entry.second > 30 ? 1 : 0;
    ++events;
    crowded += loud > 1 ? 1 : 0;
  }
  EXPECT_TRUE(saw_muted);
  EXPECT_LT(crowded * 4, events) << crowded << " of " << events << " with several speakers";
  EXPECT_GT(CountNamed(got, "input_meter"), 5u);
  EXPECT_GT(CountNamed(got, "output_meter"), 5u);
  const std::vector<std::string> conditions = Named(got, "audio_update_conditions");
  ASSERT_GE(conditions.size(), 2u);
  for (const char* field :
       {"received", "sent", "data_bytes_dropped", "ctrl_bytes_dropped", "cpu_usage", "bars"}) {
    EXPECT_FALSE(Field(conditions[0], field).empty()) << field;
  }
  EXPECT_NE(conditions[0].find("<upstream loss=\""), std::string::npos);
  EXPECT_NE(conditions[0].find("<downstream loss=\""), std::string::npos);

  // Disabled microphone: its meter stops (the speakers' goes on).
  ASSERT_TRUE(AudioSetRoot(
      "<audio><input><device guid=\"\" id=\"mic-builtin\"><enable>false</enable></device>"
      "</input></audio>"));
  ktsim_flush(KTSIM_AUDIO);
  recorder().Clear();
  ASSERT_TRUE(recorder().WaitUntil(
      [](const std::vector<Received>& got) { return CountNamed(got, "output_meter") >= 2; }));
  ktsim_flush(KTSIM_AUDIO);
  got = recorder().Snapshot();
  EXPECT_EQ(CountNamed(got, "input_meter"), 0u);
}

TEST_F(ScriptedMeeting, CommandsAreHonouredOrRefusedWithAReason) {
  ASSERT_TRUE(Join("commands?participants=1&phone=0"));
  ASSERT_TRUE(WaitFor("audio_site_changed", 1));
  const std::string audio_id = Attr(Named(recorder().Snapshot(), "audio_site_changed")[0], "id");

  struct Case {
    ktsim_engine engine;
    std::string command;
    const char* error;  // nullptr: accepted
  };
  const Case cases[] = {
      {KTSIM_AUDIO,
       "<audio><tones enabled=\"true\"/><conditions enabled=\"false\"/><aec enabled=\"true\"/>"
       "</audio>",
       nullptr},
      {KTSIM_AUDIO,
       "<audio><streams><stream id=\"" + audio_id +
           "\"><volume>200</volume></stream></streams></audio>",
       nullptr},
      {KTSIM_AUDIO,
       "<audio><input><device id=\"mic-headset\"><volume>30</volume></device>"
       "</input></audio>",
       nullptr},
      {KTSIM_AUDIO,
       "<audio><input><device guid=\"\" id=\"nope\"><enable>true</enable></device>"
       "</input></audio>",
       "Unknown audio input device 'nope'"},
      {KTSIM_AUDIO,
       "<audio><streams><stream id=\"42\"><volume>50</volume></stream></streams>"
       "</audio>",
       "Unknown audio stream '42'"},
      {KTSIM_AUDIO,
       "<audio><input><device id=\"mic-headset\"><volume>loud</volume></device>"
       "</input></audio>",
       "Invalid volume 'loud'"},
      {KTSIM_AUDIO,
       "<audio><input><device guid=\"\" id=\"a\"b\"><enable>true</enable>"
       "</device></input></audio>",
       "Malformed command"},
      {KTSIM_AUDIO, "<audio><input>", "Malformed command"},
      {KTSIM_AUDIO, "", "Malformed command"},
      {KTSIM_AUDIO, "<video><streams/></video>", "Unsupported command <video>"},
      {KTSIM_AUDIO, "<audio><karaoke/></audio>", "Unsupported element <karaoke>"},
      {KTSIM_AUDIO, "<audio/>", "Empty <audio> command"},
      {KTSIM_VIDEO,
       "<video><devices><device id=\"cam-lumen\"><enable>true</enable><site>Me"
       "</site><name>cam-lumen</name><profile>8K (120FPS)</profile></device>"
       "</devices></video>",
       "Unsupported profile '8K (120FPS)' for video device 'cam-lumen'"},
      {KTSIM_VIDEO,
       "<video><devices><device id=\"cam-x\"><enable>false</enable></device>"
       "</devices></video>",
       "Unknown video device 'cam-x'"},
      {KTSIM_VIDEO,
       "<video><streams><stream id=\"1\"><enable>false</enable></stream>"
       "</streams></video>",
       "Unknown video stream '1'"},
      {KTSIM_VIDEO,
       "<video><local_url><url>rtsp://127.0.0.1/cam</url><command>playback_stop"
       "</command></local_url></video>",
       "No network video playing from 'rtsp://127.0.0.1/cam'"},
      {KTSIM_VIDEO,
       "<video><local_url><name>Lobby</name><url>rtsp://127.0.0.1/cam</url>"
       "<command>playback_start</command><profile>H.264 720p (30FPS)</profile>"
       "</local_url></video>",
       nullptr},
      {KTSIM_VIDEO,
       "<video><local_url><url>rtsp://127.0.0.1/cam</url><command>playback_stop"
       "</command></local_url></video>",
       nullptr},
      {KTSIM_VIDEO, std::string(100000, '<'), "Malformed command"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command.substr(0, 200));
    ktsim_set_last_error(c.engine, "");
    const bool ok =
        c.engine == KTSIM_AUDIO ? AudioSetRoot(c.command.c_str()) : VideoSetRoot(c.command.c_str());
    EXPECT_EQ(ok, c.error == nullptr);
    if (c.error) {
      EXPECT_NE(LastError(c.engine).find(c.error), std::string::npos) << LastError(c.engine);
    }
  }
  // Accepted volumes are remembered; a refused command changes nothing.
  EXPECT_EQ(ktsim_meeting_volume(audio_id.c_str()), 200);
  EXPECT_EQ(ktsim_meeting_volume("mic-headset"), 30);
  EXPECT_EQ(ktsim_meeting_volume("nope"), -1);
  EXPECT_FALSE(
      AudioSetRoot("<audio><input><device id=\"mic-headset\"><volume>40</volume>"
                   "</device><device id=\"nope\"><volume>1</volume></device></input>"
                   "</audio>"));
  EXPECT_EQ(ktsim_meeting_volume("mic-headset"), 30);
  // An explicit refusal wins over the script.
  ktsim_set_setroot_result(KTSIM_AUDIO, false);
  EXPECT_FALSE(AudioSetRoot("<audio><tones enabled=\"true\"/></audio>"));
}

TEST_F(ScriptedMeeting, EnablingTheCameraAnnouncesALocalStreamAndDisablingRemovesIt) {
  ASSERT_TRUE(Join("camera?participants=0"));
  ASSERT_TRUE(VideoSetRoot(
      "<video><devices><device id=\"cam-lumen\"><enable>true</enable><site>Me at home</site>"
      "<name>cam-lumen</name><profile>H.264 720p (30FPS)</profile></device></devices>"
      "</video>"));
  ASSERT_TRUE(WaitFor("video_site_changed", 1));
  const std::string e = Named(recorder().Snapshot(), "video_site_changed")[0];
  EXPECT_EQ(Field(e, "local"), "true");
  EXPECT_EQ(Field(e, "email"), kUuid);
  EXPECT_EQ(Field(e, "site"), "Me at home");
  EXPECT_EQ(Field(e, "device_name"), "Lumen HD Camera");
  EXPECT_EQ(Field(e, "codecName"), "H.264 720p (30FPS)");
  EXPECT_EQ(Field(e, "width"), "1280");
  EXPECT_EQ(Field(e, "height"), "720");
  EXPECT_NE(std::string(VideoGetState()).find("<enabled>true</enabled>"), std::string::npos);

  ASSERT_TRUE(
      VideoSetRoot("<video><devices><device id=\"cam-lumen\"><enable>false</enable>"
                   "</device></devices></video>"));
  ASSERT_TRUE(WaitFor("video_stream_removed", 1));
  EXPECT_EQ(Attr(Named(recorder().Snapshot(), "video_stream_removed")[0], "id"), Attr(e, "id"));

  // A camera switched on before the join is announced when the meeting opens.
  AudioDisconnect(0);
  VideoDisconnect(0);
  recorder().Clear();
  ASSERT_TRUE(VideoSetRoot(
      "<video><devices><device id=\"screen-main\"><enable>true</enable><site>Me</site><name>"
      "screen-main</name><profile>VP8 4K (10FPS)</profile></device></devices></video>"));
  ASSERT_TRUE(Join("camera?participants=0"));
  ASSERT_TRUE(WaitFor("video_site_changed", 1));
  const std::string screen = Named(recorder().Snapshot(), "video_site_changed")[0];
  EXPECT_EQ(Field(screen, "local"), "true");
  EXPECT_NE(Field(screen, "device_name").find("Screen Capture"), std::string::npos);
}

// Renders a stream from inside the video callback, as a host does from its delegate.
TEST_F(ScriptedMeeting, FramesOfARenderedStreamArriveInOrderAndNoFasterThanItsFrameRate) {
  std::atomic<int> renders{0};
  recorder().hook = [&](ktsim_engine engine, const std::string& xml) {
    if (engine == KTSIM_VIDEO && EventName(xml) == "video_site_changed" && renders++ < 2) {
      EXPECT_TRUE(VideoSetRoot(RenderCommand(Attr(xml, "id"), "RGB888", 320, 180).c_str()));
    }
  };
  ASSERT_TRUE(Join("frames?participants=2&screen=0&phone=0&fps=20"));
  ASSERT_TRUE(WaitFor("video_stream_buffer_ready", 2));
  std::vector<std::string> ready = Named(recorder().Snapshot(), "video_stream_buffer_ready");
  const std::string id = Attr(ready[0], "id");
  const std::string other_id = Attr(ready[1], "id");
  auto* frame = reinterpret_cast<ktsim_frame*>(
      static_cast<uintptr_t>(std::strtoull(Attr(ready[0], "pixel_buffer").c_str(), nullptr, 10)));
  auto* other = reinterpret_cast<ktsim_frame*>(
      static_cast<uintptr_t>(std::strtoull(Attr(ready[1], "pixel_buffer").c_str(), nullptr, 10)));
  ASSERT_NE(frame, nullptr);
  ASSERT_NE(frame, other);
  EXPECT_EQ(frame->magic, KTSIM_FRAME_MAGIC);
  EXPECT_EQ(frame->width, 320);
  EXPECT_EQ(frame->height, 180);
  EXPECT_EQ(frame->bytes_per_pixel, 3);
  EXPECT_EQ(frame->format, static_cast<unsigned>(KTSIM_RGB888));
  EXPECT_STREQ(frame->stream_id, id.c_str());

  // Polled every 10 ms until ten frames came: numbered one by one, never more than 20 a second.
  int frames = 0;
  std::vector<unsigned char> first, later(320 * 180 * 3);
  const auto start = std::chrono::steady_clock::now();
  while (frames < 10 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    if (VideoFrameReady(id.c_str())) {
      ++frames;
      EXPECT_EQ(frame->frame_number, static_cast<unsigned long long>(frames));
      if (first.empty()) first.assign(frame->data, frame->data + later.size());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(frames, 10);
  EXPECT_LE(frames, 20 * seconds + 2);
  EXPECT_EQ(ktsim_frame_polls(id.c_str()), ktsim_frame_polls(nullptr));
  // The picture moves, and each participant has their own.
  ktsim_frame info;
  ASSERT_EQ(ktsim_frame_copy(frame, later.data(), later.size(), &info), later.size());
  EXPECT_NE(first, later);
  EXPECT_EQ(info.frame_number, static_cast<unsigned long long>(frames));
  EXPECT_NE(std::count(later.begin(), later.end(), 0), static_cast<long>(later.size()));
  while (!VideoFrameReady(other_id.c_str()))
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::vector<unsigned char> theirs(later.size());
  ASSERT_EQ(ktsim_frame_copy(other, theirs.data(), theirs.size(), nullptr), theirs.size());
  EXPECT_NE(theirs, later);
  EXPECT_EQ(ktsim_frame_copy(frame, later.data(), 10, nullptr), 0u);  // too small
  EXPECT_EQ(ktsim_frame_copy(&info, nullptr, 0, nullptr), 0u);        // not a descriptor

  // Re-rendered at another size and format: the same descriptor when it fits.
  ASSERT_TRUE(VideoSetRoot(RenderCommand(id, "BGRA8888", 160, 90).c_str()));
  EXPECT_EQ(frame->bytes_per_pixel, 4);
  EXPECT_EQ(frame->stride, 160 * 4);
  EXPECT_LE(static_cast<size_t>(frame->stride) * frame->height, frame->capacity);

  // Disabled: no more frames.
  ASSERT_TRUE(VideoSetRoot(("<video><streams><stream id=\"" + id +
                            "\"><enable>false</enable></stream></streams></video>")
                               .c_str()));
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  EXPECT_EQ(VideoFrameReady(id.c_str()), 0);
  EXPECT_FALSE(VideoSetRoot(RenderCommand(id, "YUV420", 160, 90).c_str()));
  EXPECT_NE(LastError(KTSIM_VIDEO).find("Unsupported colorspace 'YUV420'"), std::string::npos);
}

TEST_F(ScriptedMeeting, StateDocumentsListDevicesInTheShapeTheProductReads) {
  const std::string audio = AudioGetState();
  const std::string video = VideoGetState();
  auto count = [](const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  };
  ASSERT_EQ(audio.rfind("<audio><inputs><device id=\"", 0), 0u) << audio;
  const std::string inputs = audio.substr(0, audio.find("</inputs>"));
  const std::string outputs = audio.substr(audio.find("<outputs>"));
  EXPECT_EQ(count(inputs, "<preferred>true</preferred>"), 1u);
  EXPECT_EQ(count(outputs, "<preferred>true</preferred>"), 1u);
  EXPECT_GE(count(inputs, "<device id=\""), 2u);
  EXPECT_GE(count(outputs, "<device id=\""), 2u);

  ASSERT_EQ(video.rfind("<video><inputs><device id=\"", 0), 0u) << video;
  EXPECT_EQ(count(video, "<screen>true</screen>"), 1u);
  EXPECT_EQ(count(video, "<codecs>"), count(video, "<device id=\""));
  EXPECT_NE(video.find("<codec name=\"H.264 720p (30FPS)\"/>"), std::string::npos);
  EXPECT_NE(video.find("<codec name=\"VP8 4K (10FPS)\"/>"), std::string::npos);

  // An explicit document wins; it was read once, the pointer stays valid.
  ktsim_set_state(KTSIM_AUDIO, "<audio/>");
  EXPECT_STREQ(AudioGetState(), "<audio/>");
}

TEST_F(ScriptedMeeting, SoundsEndWithAPlaybackEventNamingTheirData) {
  static const char sound[3200] = {1};
  static const char blip[2] = {1, 2};
  const std::string id = std::to_string(reinterpret_cast<uintptr_t>(sound));
  ASSERT_TRUE(AudioPlaySound(sound, sizeof sound, ""));  // no meeting needed
  ASSERT_TRUE(AudioPlaySound(blip, sizeof blip, ""));
  EXPECT_GE(ktsim_threads_running(), 1);  // the clock that ends them
  ASSERT_TRUE(WaitFor("binary_playback_ended", 1));
  ASSERT_TRUE(WaitFor("binary_playback_failed", 1));
  std::vector<Received> got = recorder().Snapshot();
  EXPECT_EQ(Field(Named(got, "binary_playback_ended")[0], "data"), id);
  EXPECT_EQ(Field(Named(got, "binary_playback_failed")[0], "data"),
            std::to_string(reinterpret_cast<uintptr_t>(blip)));

  recorder().Clear();
  static const char long_sound[320000] = {1};  // ten seconds
  ASSERT_TRUE(AudioPlaySound(long_sound, sizeof long_sound, ""));
  ASSERT_TRUE(AudioStopSound(long_sound));
  // Long before its ten seconds are over.
  ASSERT_TRUE(WaitFor("binary_playback_ended", 1, std::chrono::seconds(5)));
  EXPECT_FALSE(AudioStopSound(long_sound));  // no longer playing
  EXPECT_FALSE(AudioPlaySound(nullptr, 10, ""));
}

TEST_F(ScriptedMeeting, DisconnectEndsTheMeetingAndLeavesNothingRunning) {
  const int before = ProcessThreads();
  ASSERT_TRUE(Join("bye?participants=3&churn=0.2"));
  ASSERT_TRUE(WaitFor("video_site_changed", 2));
  const std::string id = Attr(Named(recorder().Snapshot(), "video_site_changed")[0], "id");
  ASSERT_TRUE(VideoSetRoot(RenderCommand(id, "RGB888", 64, 36).c_str()));
  static const char sound[32000] = {1};
  ASSERT_TRUE(AudioPlaySound(sound, sizeof sound, ""));

  AudioDisconnect(0);
  VideoDisconnect(0);
  EXPECT_FALSE(ktsim_meeting_running());
  EXPECT_EQ(ktsim_meeting_participants(), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (ktsim_threads_running() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(ktsim_threads_running(), 0);
  const size_t events = recorder().Snapshot().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(recorder().Snapshot().size(), events);  // not a single event more
  EXPECT_EQ(VideoFrameReady(id.c_str()), 0);
  EXPECT_FALSE(ktsim_meeting_arrive());
  ktsim_shutdown();
  EXPECT_EQ(ProcessThreads(), before);
}

TEST_F(ScriptedMeeting, MalformedServerUrlsAreRefused) {
  const char* const refused[] = {
      "rtsp://host:1234:46000/kt.sdp/6/m",
      "http://host:46000/kt.sdp/6/m",
      "rtsp://host:46000/kt.sdp/6/",
      "rtsp://host:46000/kt.sdp/4/m",
      "rtsp://:46000/kt.sdp/6/m",
      "rtsp://a/b:46000/kt.sdp/6/m",
      "",
  };
  VideoTraceSetMessageCallback(VideoTrace);
  for (const char* url : refused) {
    EXPECT_FALSE(VideoConnect(url, "auto", "", "Me", kUuid, "k", "AES256", 0, 1, 0)) << url;
    EXPECT_NE(LastError(KTSIM_VIDEO).find("Invalid server URL"), std::string::npos) << url;
    EXPECT_FALSE(ktsim_meeting_running());
  }
  EXPECT_FALSE(
      AudioConnect("rtsp://h:46000/kt.sdp/6/m", "auto", "", "Me", kUuid, "k", "AES256", 0, 1, 0));
  EXPECT_TRUE(VideoConnect("rtsp://[::1]:46000/kt.sdp/6/m?participants=0", "auto", "", "Me", kUuid,
                           "k", "AES256", 0, 1, 0));
  EXPECT_TRUE(ktsim_meeting_running());
  ktsim_set_connect_result(KTSIM_VIDEO, false);  // an explicit refusal wins
  VideoDisconnect(0);
  EXPECT_FALSE(Join("m"));
  EXPECT_FALSE(ktsim_meeting_running());
}

}  // namespace
}  // namespace simtest

namespace simtest {
namespace {

void ExitMidMeeting() {
  ktsim_meeting_enable(true);
  AudioSetCallback(AudioEvent);
  VideoSetCallback(VideoEvent);
  VideoConnect("rtsp://127.0.0.1:46000/kt.sdp/6/exit?participants=20&tick=20&start=0", "auto", "",
               "Me", kUuid, "k", "AES256", 0, 1, 0);
  static const char sound[64000] = {1};
  AudioPlaySound(sound, sizeof sound, "");
  Recorder::Get().WaitUntil([](const std::vector<Received>& got) { return got.size() > 10; });
  std::exit(3);  // the meeting, its clock and both event threads are still running
}

TEST(ScriptedMeetingExit, AProcessMayExitWhileAMeetingRuns) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitMidMeeting(), ::testing::ExitedWithCode(3), "");
}

}  // namespace
}  // namespace simtest
