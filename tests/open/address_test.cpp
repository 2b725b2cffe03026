// Reading the meeting URL (shared with the simulated engines) and the Janus address behind it.
#include <gtest/gtest.h>

#include <string>

#include "address.h"
#include "ktengine/meeting_url.h"

namespace {

TEST(MeetingUrl, SplitsServerMeetingAndOptions) {
  ktengine::MeetingUrl url;
  ASSERT_TRUE(ktengine::ParseMeetingUrl("rtsp://10.213.0.1:46000/kt.sdp/4/standup", '4', &url));
  EXPECT_EQ(url.server, "10.213.0.1");
  EXPECT_EQ(url.meeting, "standup");
  EXPECT_EQ(url.query, "");

  ASSERT_TRUE(ktengine::ParseMeetingUrl("rtsp://[::1]:46000/kt.sdp/6/m-1?seed=4&x=?", '6', &url));
  EXPECT_EQ(url.server, "[::1]");
  EXPECT_EQ(url.meeting, "m-1");
  EXPECT_EQ(url.query, "seed=4&x=?");
}

TEST(MeetingUrl, RefusesEveryOtherForm) {
  const char* const bad[] = {
      "",
      "rtsp://",
      "http://host:46000/kt.sdp/4/m",  // scheme
      "rtsp://host:46001/kt.sdp/4/m",  // port
      "rtsp://:46000/kt.sdp/4/m",      // no server
      "rtsp://a/b:46000/kt.sdp/4/m",   // a path in the server
      "rtsp://a:1:46000/kt.sdp/4/m",   // an unbracketed colon
      "rtsp://host:46000/kt.sdp/6/m",  // the video engine's digit
      "rtsp://host:46000/kt.sdp/4m",   // no slash after the digit
      "rtsp://host:46000/kt.sdp/4/",   // no meeting
      "rtsp://host:46000/kt.sdp/4/?a=b",
      "rtsp://host:46000/kt.sdp/4",
  };
  for (const char* url : bad) {
    ktengine::MeetingUrl parsed;
    parsed.meeting = "untouched";
    EXPECT_FALSE(ktengine::ParseMeetingUrl(url, '4', &parsed)) << url;
    EXPECT_EQ(parsed.meeting, "untouched") << url;
  }
}

TEST(JanusTarget, NamesTheHttpApiFromTheUrlAndTheEnvironment) {
  ktopen::Target target;
  std::string error;
  ASSERT_TRUE(ktopen::ParseTarget("rtsp://10.213.0.1:46000/kt.sdp/6/room?x=1", '6', "", "", &target,
                                  &error));
  EXPECT_EQ(target.host, "10.213.0.1");
  EXPECT_EQ(target.room, "room");
  EXPECT_EQ(target.base_url, "http://10.213.0.1:8088/janus");

  ASSERT_TRUE(ktopen::ParseTarget("rtsp://janus.test:46000/kt.sdp/4/r", '4', "9000", "api/v1",
                                  &target, &error));
  EXPECT_EQ(target.base_url, "http://janus.test:9000/api/v1");
}

TEST(JanusTarget, RefusalsSayWhatIsWrong) {
  ktopen::Target target;
  std::string error;
  const std::string ipv6 = "rtsp://[::1]:46000/kt.sdp/4/r";
  EXPECT_FALSE(ktopen::ParseTarget(ipv6, '4', "", "", &target, &error));
  EXPECT_EQ(error, "Invalid server URL '" + ipv6 + "'");
  const std::string userinfo = "rtsp://user@evil:46000/kt.sdp/4/r";
  EXPECT_FALSE(ktopen::ParseTarget(userinfo, '4', "", "", &target, &error));
  EXPECT_EQ(error, "Invalid server URL '" + userinfo + "'");

  const std::string url = "rtsp://host:46000/kt.sdp/4/r";
  for (const char* port : {"0", "65536", "80a", "123456", "-1"}) {
    error.clear();
    EXPECT_FALSE(ktopen::ParseTarget(url, '4', port, "", &target, &error)) << port;
    EXPECT_EQ(error,
              std::string("Invalid meeting server port '") + port + "' (CONVOKE_JANUS_PORT)");
  }
  EXPECT_FALSE(ktopen::ParseTarget(url, '4', "", "/janus?x", &target, &error));
  EXPECT_EQ(error, "Invalid meeting server path '/janus?x' (CONVOKE_JANUS_PATH)");
}

TEST(JanusTarget, TheLocalAddressIsTheOneOnTheRouteToTheServer) {
  std::string server, local, error;
  ASSERT_TRUE(ktopen::ResolveAddresses("127.0.0.1", &server, &local, &error)) << error;
  EXPECT_EQ(server, "127.0.0.1");
  EXPECT_EQ(local, "127.0.0.1");
}

}  // namespace
