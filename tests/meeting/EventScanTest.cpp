// The in-place reading of canonical event documents: what the scan accepts, that its lookups answer
// as the tree's, that everything else takes the tree, and that an accepted event builds no tree.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kt/MemoryManager.h"
#include "ktsim/ktsim.h"
#include "meeting/AudioEvents.h"
#include "meeting/Convoke.h"
#include "meeting/EventDocument.h"
#include "meeting/EventRouting.h"
#include "meeting/QuietDelegate.h"

namespace Telmora {
namespace {

bool scans(const std::string& text) {
  FlatEvent document;
  return document.scan(text.data(), text.size());
}

const char kAmplitude[] =
    "<event name=\"amplitude\"><stream id=\"a1\" muted=\"false\"><amplitude>42</amplitude>"
    "</stream></event>";

TEST(FlatEvent, ReadsCanonicalDocumentsInPlaceWithTheTreesLookups) {
  FlatEvent document;
  ASSERT_TRUE(document.scan(kAmplitude, std::strlen(kAmplitude)));
  FlatEvent::Node event = document.root();
  Text name;
  ASSERT_TRUE(document.attribute(event, "NAME", name));  // names ignore ASCII case
  EXPECT_EQ(name.str(), "amplitude");
  EXPECT_GE(name.data, kAmplitude);  // a view of the caller's buffer, not a copy
  EXPECT_LT(name.data, kAmplitude + sizeof kAmplitude);
  FlatEvent::Node stream = document.child(event, "Stream");
  ASSERT_NE(stream, nullptr);
  FlatEvent::Node amplitude = document.child(stream, "amplitude");
  ASSERT_NE(amplitude, nullptr);
  EXPECT_EQ(document.text(amplitude).number(), 42);
  EXPECT_EQ(document.child(event, "amplitude"), nullptr);  // direct children only
  EXPECT_FALSE(document.attribute(stream, "mute", name));

  // Duplicates: the first element and the first attribute of a name win, as in the tree.
  const std::string duplicates =
      "<event name=\"x\"><s id=\"1\" ID=\"2\"><v>7</v><V>8</V></s><s id=\"3\"/></event>";
  ASSERT_TRUE(document.scan(duplicates.data(), duplicates.size()));
  stream = document.child(document.root(), "s");
  ASSERT_TRUE(document.attribute(stream, "id", name));
  EXPECT_EQ(name.str(), "1");
  EXPECT_EQ(document.text(document.child(stream, "v")).str(), "7");

  // Empty and self-closing elements have empty texts that read as the number 0.
  const std::string empty = "<event name=\"x\"><a/><b></b><c>12x</c></event>";
  ASSERT_TRUE(document.scan(empty.data(), empty.size()));
  for (const char* child : {"a", "b"}) {
    const Text text = document.text(document.child(document.root(), child));
    EXPECT_EQ(text.size, 0u) << child;
    EXPECT_EQ(text.number(), 0) << child;
  }
  EXPECT_EQ(document.text(document.child(document.root(), "c")).number(), 12);
}

TEST(FlatEvent, NearCanonicalDocumentsTakeTheTreePath) {
  const std::string tail = "<stream id=\"a1\" muted=\"false\"><amplitude>4</amplitude></stream>";
  const std::string head = "<event name=\"amplitude\">";
  const char* const refused[] = {
      "<?xml version=\"1.0\"?><event name=\"amplitude\"></event>",     // declaration
      "<!-- note --><event name=\"amplitude\"></event>",               // comment
      "<event name=\"amplitude\"><![CDATA[x]]></event>",               // CDATA
      "<event name=\"amplitude\"><a>1 &amp; 2</a></event>",            // entity in text
      "<event name=\"a&amp;b\"></event>",                              // entity in an attribute
      "<event name='amplitude'></event>",                              // single quotes
      "<event  name=\"amplitude\"></event>",                           // two blanks
      "<event name=\"amplitude\" ></event>",                           // blank before ">"
      "<event name=\"amplitude\" />",                                  // blank before "/>"
      "<event name = \"amplitude\"></event>",                          // blanks around "="
      "<event name></event>",                                          // attribute without value
      "<event name=\"amplitude\"> <a>1</a></event>",                   // white space between tags
      "<event name=\"amplitude\"><a>1</a>\n</event>",                  // line feed between tags
      "<event name=\"amplitude\"></event>\n",                          // after the document
      "<event name=\"amplitude\"></event><event name=\"x\"></event>",  // two documents
      " <event name=\"amplitude\"></event>",                           // before the document
      "<event name=\"amplitude\"><a>x<b/></a></event>",                // text, then a child
      "<event name=\"amplitude\"><a><b/>x</a></event>",                // a child, then text
      "<event name=\"amplitude\"><a>\t1</a></event>",                  // control byte
      "<event name=\"amplitude\"><a>\xc3\xa9</a></event>",             // non-ASCII byte
      "<event name=\"amplitude\"><a>1</A></event>",                    // end tag in another case
      "<event name=\"amplitude\"><a>1</a ></event>",                   // blank in the end tag
      "<event name=\"amplitude\"><a>1</b></event>",                    // mismatched end tag
      "<event name=\"amplitude\"><a>1</a>",                            // missing end tag
      "<event name=\"amplitude\"><_a>1</_a></event>",                  // name not starting alnum
      "<event name=\"amplitude\"><a-b>1</a-b></event>",                // "-" in a name
      "<event name=\"a<b\"></event>",                                  // "<" in an attribute
      "<event name=\"amplitude\"><a>1 > 0</a><</event>",               // stray "<"
      "<event name=\"amplitude\"><a><b><c><d><e><f>1</f></e></d></c></b></a></event>",  // depth 7
      "",
  };
  for (const char* text : refused) EXPECT_FALSE(scans(text)) << text;

  std::string many = "<event name=\"x\">";
  for (int i = 0; i < 24; ++i) many += "<a/>";
  EXPECT_FALSE(scans(many + "</event>"));  // 25 elements

  // The canonical forms, for contrast.
  EXPECT_TRUE(scans(head + tail + "</event>"));
  EXPECT_TRUE(scans("<event name=\"amplitude\"/>"));
  EXPECT_TRUE(scans("<event name=\"amplitude\"><a>1 > 0</a></event>"));
  EXPECT_TRUE(scans("<event name=\"amplitude\"><a><b><c><d><e>1</e></d></c></b></a></event>"));
}

// Records the calls of the amplitude route and, at each, whether a tree was alive.
class AmplitudeProbe : public QuietDelegate {
 public:
  std::size_t recordsAtStart = 0;
  std::size_t recordsDuringCall = 0;
  int calls = 0;
  std::string lines;
  void participantAmplitudeChanged(const Participant& p, unsigned char level, bool muted) override {
    ++calls;
    recordsDuringCall = kt::MemoryManager::Instance()->Count();
    lines += p.uuid + " " + std::to_string(level) + " " + std::to_string(muted) + "\n";
  }
  void logMessage(unsigned int level, const std::string& text) override {
    lines += std::to_string(level) + " " + text + "\n";
  }
};

TEST(EventRouting, CanonicalEventsBuildNoTreeAndReportAsTheTreeDoes) {
  ktsim_reset();
  Convoke* session = Convoke::sharedInstance();
  session->setDelegate(nullptr);
  session->exitMeeting();
  routeAudioEvent(
      "<event name=\"audio_site_changed\"><stream id=\"a1\"><site>S</site>"
      "<email>u1@example.com</email></stream></event>",
      EventPath::kTreeOnly);
  const char* const events[] = {
      kAmplitude,
      "<event name=\"amplitude\"><stream id=\"a1\" muted=\"true\"><amplitude>300</amplitude>"
      "</stream></event>",
      "<event name=\"amplitude\"><stream id=\"zz\" muted=\"true\"><amplitude>1</amplitude>"
      "</stream></event>",
      "<event name=\"amplitude\"><stream id=\"a1\"><amplitude>1</amplitude></stream></event>",
      "<EVENT name=\"amplitude\"><Stream ID=\"a1\" MUTED=\"true\"><AMPLITUDE>7</AMPLITUDE>"
      "</Stream></EVENT>",
  };
  for (const char* text : events) {
    AmplitudeProbe tree;
    AmplitudeProbe fast;
    session->setDelegate(&tree);
    tree.recordsAtStart = kt::MemoryManager::Instance()->Count();
    routeAudioEvent(text, EventPath::kTreeOnly);
    session->setDelegate(&fast);
    fast.recordsAtStart = kt::MemoryManager::Instance()->Count();
    routeAudioEvent(text, EventPath::kFastWhenCanonical);
    session->setDelegate(nullptr);
    EXPECT_EQ(fast.lines, tree.lines) << text;
    EXPECT_EQ(fast.calls, tree.calls) << text;
    if (fast.calls > 0) {
      EXPECT_GT(tree.recordsDuringCall, tree.recordsAtStart) << "the tree is alive";
      EXPECT_EQ(fast.recordsDuringCall, fast.recordsAtStart) << "no tree was built";
    }
  }
  session->exitMeeting();
  ktsim_shutdown();
}

}  // namespace
}  // namespace Telmora
