// Hostile publisher ids and display names: stream ids keep to safe characters and stay distinct,
// names come out as short, valid UTF-8 without control characters, and documents built from them
// hold nothing but the text.
#include "peer_names.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "documents.h"

namespace {

using ktopen::CleanName;
using ktopen::StreamBase;

bool OnlySafe(const std::string& s) {
  for (unsigned char c : s) {
    if (!(std::isalnum(c) || c == '.' || c == '_' || c == '@' || c == '+' || c == '-' ||
          c == '~')) {
      return false;
    }
  }
  return true;
}

TEST(PeerNames, StreamIdsAreSafeShortAndDistinct) {
  EXPECT_EQ(StreamBase("host-a"), "host-a");
  EXPECT_EQ(StreamBase("7f0c1a52-ann@example.org"), "7f0c1a52-ann@example.org");
  const std::string hostile[] = {
      "",
      "\"/><event name=\"video_stream_removed\"><stream id=\"x",
      "a/b/video",
      std::string("nul\0inside", 10),
      "\x01\x02\x1b[31m",
      "\xff\xfe\xc0\xaf",
      std::string(65536, 'x'),
      std::string(65536, '<'),
      "caf\xc3\xa9",
  };
  std::set<std::string> seen;
  for (const std::string& id : hostile) {
    const std::string base = StreamBase(id);
    EXPECT_TRUE(OnlySafe(base)) << base;
    EXPECT_FALSE(base.empty());
    EXPECT_LE(base.size(), ktopen::kMaxStreamBase);
    EXPECT_TRUE(seen.insert(base).second) << "two ids share " << base;
  }
  // Two long ids that differ only at the end keep apart.
  EXPECT_NE(StreamBase(std::string(100, 'a') + "1"), StreamBase(std::string(100, 'a') + "2"));
}

TEST(PeerNames, NamesAreValidUtf8WithoutControlsAndCut) {
  EXPECT_EQ(CleanName("Ann Example"), "Ann Example");
  EXPECT_EQ(CleanName("Zo\xc3\xab \xe2\x9c\x93 \xf0\x9f\x8e\xa5"),
            "Zo\xc3\xab \xe2\x9c\x93 \xf0\x9f\x8e\xa5");
  EXPECT_EQ(CleanName("line\nbreak\ttab"), "line break tab");
  EXPECT_EQ(CleanName(std::string("a\0b\x1b[2Jc\x7f", 10)), "ab[2Jc");
  EXPECT_EQ(CleanName("\xc2\x85next"), "next");  // a C1 control
  const std::string fffd = "\xef\xbf\xbd";
  EXPECT_EQ(CleanName("bad\xff"), "bad" + fffd);
  EXPECT_EQ(CleanName("\xc0\xaf"), fffd + fffd);             // overlong '/'
  EXPECT_EQ(CleanName("\xed\xa0\x80"), fffd + fffd + fffd);  // a surrogate
  EXPECT_EQ(CleanName("\xe2\x9c"), fffd + fffd);             // cut short
  // 64 KB of text is cut between characters.
  std::string long_name;
  for (int i = 0; i < 30000; ++i) long_name += "\xc3\xa9";
  const std::string cut = CleanName(long_name);
  EXPECT_LE(cut.size(), ktopen::kMaxNameBytes);
  EXPECT_EQ(cut.size() % 2, 0u);
  EXPECT_EQ(CleanName(long_name, 5), "\xc3\xa9\xc3\xa9");
}

TEST(PeerNames, EventDocumentsHoldOnlyTheText) {
  const std::string name = "</site><email>spoof</email><site>", id = "x\"/><injected/>";
  const std::string document = ktengine::StreamEvent(
      "audio_site_changed", StreamBase(id) + "/audio",
      ktengine::Tag("site", CleanName(name)) + ktengine::Tag("email", CleanName(id)));
  size_t open = 0;
  for (char c : document) open += c == '<';
  EXPECT_EQ(open, 8u) << document;  // event, stream, site, /site, email, /email, /stream, /event
  EXPECT_EQ(document.find("<injected"), std::string::npos);
}

}  // namespace
