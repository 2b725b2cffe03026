#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <fstream>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "XmlTestSupport.h"
#include "kt/MemoryManager.h"
#include "kt/xml.h"

namespace {

using kt::XMLElement;
using xmltest::Describe;

// Serves its text one character per underflow, so that every read crosses the buffer boundary.
class TrickleBuf : public std::streambuf {
 public:
  explicit TrickleBuf(std::string text, std::size_t failAt = std::string::npos)
      : text_(std::move(text)), fail_at_(failAt) {}

 protected:
  int_type underflow() override {
    if (at_ == fail_at_) throw std::runtime_error("device failed");
    if (at_ >= text_.size()) return traits_type::eof();
    current_ = text_[at_++];
    setg(&current_, &current_, &current_ + 1);
    return traits_type::to_int_type(current_);
  }

 private:
  std::string text_;
  std::size_t fail_at_;
  std::size_t at_ = 0;
  char current_ = 0;
};

struct Outcome {
  std::string tree;
  std::string messages;
  bool failed;
};

// The ways into the parser, which must all agree.
enum class Route { kBuffer, kStringStream, kStreamOperations, kTrickle };

Outcome ParseBy(Route route, const std::string& text) {
  XMLElement root;
  bool failed = false;
  testing::internal::CaptureStderr();
  switch (route) {
    case Route::kBuffer:
      failed = !kt::ParseXMLBuffer(text.data(), text.size(), root);
      break;
    case Route::kStringStream: {
      std::istringstream in(text);
      in >> root;
      failed = in.fail();
      break;
    }
    case Route::kStreamOperations: {
      // An exception mask makes the parser use the stream's own operations one by one; badbit
      // never occurs here, so the results are those of the plain stream.
      std::istringstream in(text);
      in.exceptions(std::ios_base::badbit);
      in >> root;
      failed = in.fail();
      break;
    }
    case Route::kTrickle: {
      TrickleBuf buf(text);
      std::istream in(&buf);
      in >> root;
      failed = in.fail();
      break;
    }
  }
  const std::string messages = testing::internal::GetCapturedStderr();
  return {Describe(root), messages, failed};
}

Outcome Parse(const std::string& text) {
  const Outcome outcome = ParseBy(Route::kBuffer, text);
  for (Route route : {Route::kStringStream, Route::kStreamOperations, Route::kTrickle}) {
    const Outcome other = ParseBy(route, text);
    EXPECT_EQ(other.tree, outcome.tree) << "route " << static_cast<int>(route) << ": " << text;
    EXPECT_EQ(other.messages, outcome.messages) << "route " << static_cast<int>(route);
    EXPECT_EQ(other.failed, outcome.failed) << "route " << static_cast<int>(route);
  }
  return outcome;
}

const char kMissing[] = "Missing end tag!\n";

struct Case {
  std::string text;
  std::string tree;  // Describe() of the container the text is read into
  std::string messages;
  bool failed;
};

void Check(const Case& c) {
  const Outcome outcome = Parse(c.text);
  EXPECT_EQ(outcome.tree, c.tree) << "input: " << c.text;
  EXPECT_EQ(outcome.messages, c.messages) << "input: " << c.text;
  EXPECT_EQ(outcome.failed, c.failed) << "input: " << c.text;
}

TEST(XmlParser, WellFormedDocumentsBecomeChildrenOfTheNamelessContainer) {
  const Case cases[] = {
      {"<event name='x'><a>1</a></event>", "(event[name=x](a=\"1\"))", "", true},
      {"<event name=\"amplitude\"><stream id=\"a1\" muted=\"false\"><amplitude>42</amplitude>"
       "</stream></event>",
       "(event[name=amplitude](stream[id=a1,muted=false](amplitude=\"42\")))", "", true},
      {"<?xml version='1.0'?><a/>", "(?xml[version=1.0] a)", "", true},
      {"<a/>", "(a)", "", true},
      {"<a x='1'/>", "(a[x=1])", "", true},
      {"<a/><b/>", "(a b)", "", true},
      {"  \n<a/>\n", "(a)", "", true},
      {"< a/>", "(a)", "", true},
      {"<a/ >", "(a)", "", true},
      {"<1a/>", "(1a)", "", true},
      {"<a>1</ a >", "(a=\"1\")", "", true},
      {"<a x = \"1\" y='2'>t</a>", "(a[x=1,y=2]=\"t\")", "", true},
      {"<a\nx='1'\n/>", "(a[x=1])", "", true},
      {"<a x=|v|/>", "(a[x=v])", "", true},
      {"<a x='1' x='2'/>", "(a[x=1,x=2])", "", true},
      {"<a x='x\"y'/>", "(a[x=x\"y])", "", true},
      {"<!-- note --><a/>", "(!note -- a)", "", true},
      {"<!-- a /b --><x/>", "(!a  x)", "", true},
      {"<!DOCTYPE html><a/>", "(#DOCTYPE html a)", "", true},
      {"", "", "", true},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XmlParser, ContentKeepsWhiteSpaceAndDecodesFiveEntities) {
  const Case cases[] = {
      {"<a>\n  <b/>\n</a>", "(a=\"\\n  \\n\"(b))", "", true},
      {"<a>x &lt; y &amp;&amp; z</a>", "(a=\"x < y && z\")", "", true},
      {"<a>&apos;&quot;&gt;</a>", "(a=\"'\">\")", "", true},
      {"<a>&#65;</a>", "(a=\"&\")", "", true},
      {"<a>&unknown;b</a>", "(a=\"&b\")", "", true},
      {"<a>&AMP;&LT;</a>", "(a=\"&&\")", "", true},
      {"<a x=\"a&amp;b\"/>", "(a[x=a&amp;b])", "", true},
      {"<a>\xc3\xa9</a>", "(a=\"\\xc3\\xa9\")", "", true},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XmlParser, MalformedInputsReportOnStandardError) {
  const std::string mismatchA = "End tag: A doesn't match open tag: a\n";
  const Case cases[] = {
      {"<a></A>", "(a)", mismatchA, true},
      {"<a><b></a>", "(a(b))", "End tag: a doesn't match open tag: b\n" + std::string(kMissing),
       true},
      {"<a><b><c></a>", "(a(b(c)))",
       "End tag: a doesn't match open tag: c\n" + std::string(kMissing) + kMissing, true},
      {"</a>", "", "End tag: a doesn't match open tag: \n", true},
      {"<a>text", "(a=\"text\")", kMissing, true},
      {"<a><b/>", "(a(b))", kMissing, true},
      {"<a x='1'", "(a[x=1])", kMissing, true},
      {"<a x='1", "(a[x=1])", kMissing, true},
      {"<a x", "(a[x=])", kMissing, true},
      {"<a", "(a)", kMissing, true},
      {"<a></a", "(a)", "", true},
      {"<a>x&amp", "(a=\"x&\")", kMissing, true},
      {"<a>x&", "(a=\"x&\")", kMissing, true},
      {"<", "()", "", true},
      {"<a><", "(a())", kMissing, true},
      {"<!", "(#)", "", true},
      {"<!-", "(!)", "", true},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XmlParser, BlindSpotsAreKept) {
  const Case cases[] = {
      // White space before ">" without an attribute: the rest becomes an attribute name.
      {"<a >x</a>", "(a[x</a>=])", kMissing, true},
      // A declaration without attributes keeps "?" in its name and takes what follows as content.
      {"<?xml?><a/>", "(?xml?(a))", kMissing, true},
      // A byte above 127 ends an attribute value; the rest of the tag becomes content.
      {"<a n=\"Jos\xc3\xa9\"/>", "(a[n=Jos]=\"\"/>\")", kMissing, true},
      // Text before the first tag names the container itself, which then ends at "/".
      {"hello<a/>", "hello<a", "", false},
      {"hello", "hello", kMissing, true},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XmlParser, NulCharacterEndsTheElement) {
  const Case cases[] = {
      {std::string("<a>x\0y</a>", 10), "(a=\"x\\0\")", kMissing, true},
      {std::string("<a/>\0<b/>", 9), "(a)", "", false},
      {std::string("<a x='1'\0/>", 11), "(a[x=1])", kMissing, true},
      {std::string("<a\0 x='1'/>", 11), "(a[x=1])", "", true},
  };
  for (const Case& c : cases) Check(c);
}

TEST(XmlParser, ParsingAddsToWhatTheElementHolds) {
  XMLElement e("named");
  e.AddElement("first");
  std::istringstream in("text<b/>more</named>");
  testing::internal::CaptureStderr();
  in >> e;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(in.fail());
  EXPECT_EQ(Describe(e), "named=\"textmore\"(first b)");

  XMLElement again;
  ASSERT_FALSE(kt::ParseXMLBuffer("<a/>", 4, again));
  ASSERT_FALSE(kt::ParseXMLBuffer("<b/>", 4, again));
  EXPECT_EQ(Describe(again), "(a b)");
  EXPECT_FALSE(kt::ParseXMLBuffer(nullptr, 0, again));
}

TEST(XmlParser, StreamStateAndSettingsAreRespected) {
  // A stream that has already failed reads nothing.
  std::istringstream done("<a/>");
  done.setstate(std::ios_base::eofbit);
  XMLElement nothing;
  done >> nothing;
  EXPECT_TRUE(done.fail());
  EXPECT_EQ(Describe(nothing), "");

  // With failbit in the exception mask the first failing read throws; what was read stays.
  std::istringstream throwing("<a/><b");
  throwing.exceptions(std::ios_base::failbit);
  XMLElement partial;
  EXPECT_THROW(throwing >> partial, std::ios_base::failure);
  EXPECT_EQ(Describe(partial), "(a b)");

  // Without skipws the formatted reads keep white space: the end tag name then holds it.
  std::istringstream noskip("<a>1</ a>");
  noskip.unsetf(std::ios_base::skipws);
  XMLElement kept;
  testing::internal::CaptureStderr();
  noskip >> kept;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "End tag:  a doesn't match open tag: a\n");

  // A buffer that throws: the stream turns that into badbit, and the open element reports.
  TrickleBuf failing("<a><b>", 6);
  std::istream device(&failing);
  XMLElement cut;
  testing::internal::CaptureStderr();
  device >> cut;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(kMissing) + kMissing);
  EXPECT_TRUE(device.bad());
  EXPECT_EQ(Describe(cut), "(a(b))");
}

class TempFile {
 public:
  explicit TempFile(const std::string& contents) {
    char name[] = "/tmp/convoke-xml-XXXXXX";
    const int fd = mkstemp(name);
    path_ = name;
    if (fd >= 0) {
      const ssize_t written = write(fd, contents.data(), contents.size());
      (void)written;
      close(fd);
    }
  }
  ~TempFile() { std::remove(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(XmlFile, OpenReadsUnderTheSyntheticRootAndAlwaysMissesItsEndTag) {
  TempFile file("junk before\n<state><camera id=\"c1\"/></state>\n");
  kt::XMLFile f;
  EXPECT_EQ(f.root->name, "");
  testing::internal::CaptureStderr();
  EXPECT_TRUE(f.Open(file.path()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kMissing);
  EXPECT_EQ(f.filename, file.path());
  EXPECT_EQ(Describe(*f.root), "__ROOT__=\"\\n\"(state(camera[id=c1]))");

  XMLElement* previous = f.root;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(f.Reopen());
  testing::internal::GetCapturedStderr();
  EXPECT_NE(f.root, previous) << "the root is replaced";
  EXPECT_EQ(Describe(*f.root), "__ROOT__=\"\\n\"(state(camera[id=c1]))");

  std::ostringstream printed, address;
  printed << f;
  address << static_cast<const void*>(f.root);
  EXPECT_EQ(printed.str(), address.str()) << "a file prints as its root's address";
}

TEST(XmlFile, UnreadableAndEmptyFiles) {
  kt::XMLFile f;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(f.Open("/nonexistent/convoke/file.xml"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kMissing);
  EXPECT_EQ(Describe(*f.root), "__ROOT__");

  TempFile empty("no tags at all");
  testing::internal::CaptureStderr();
  EXPECT_TRUE(f.Open(empty.path()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the input ended before any tag";
  EXPECT_EQ(Describe(*f.root), "__ROOT__");

  std::istringstream in("<a/>");
  testing::internal::CaptureStderr();
  in >> f;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), kMissing);
  EXPECT_EQ(Describe(*f.root), "__ROOT__(a)");
}

}  // namespace
