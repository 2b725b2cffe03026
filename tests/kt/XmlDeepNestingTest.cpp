// Documents nested far deeper than the call stack could follow by recursion.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kt/MemoryManager.h"
#include "kt/xml.h"

namespace {

using kt::XMLElement;

std::string Nested(std::size_t depth, bool closed) {
  std::string text;
  text.reserve(depth * 7);
  for (std::size_t i = 0; i < depth; ++i) text += "<a>";
  if (closed) {
    for (std::size_t i = 0; i < depth; ++i) text += "</a>";
  }
  return text;
}

// Levels below `e`, following the first child.
std::size_t Depth(const XMLElement& e) {
  std::size_t depth = 0;
  for (const XMLElement* at = &e; at->HasElements(); at = at->children[0]) ++depth;
  return depth;
}

TEST(XmlDeepNesting, MillionLevelsParseCopyAssignPrintAndDestroy) {
  constexpr std::size_t kDepth = 1000000;
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  const std::size_t before = m->Count();
  const std::string text = Nested(kDepth, true);
  {
    XMLElement root;
    testing::internal::CaptureStderr();
    kt::ParseXMLBuffer(text.data(), text.size(), root);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(Depth(root), kDepth);
    EXPECT_EQ(m->Count(), before + kDepth);
    EXPECT_EQ(static_cast<std::string>(root), "<>" + text + "</>");
    {
      const XMLElement copy(root);
      EXPECT_EQ(Depth(copy), kDepth);
      EXPECT_EQ(m->Count(), before + 2 * kDepth);
    }
    EXPECT_EQ(m->Count(), before + kDepth);
    XMLElement assigned("x");
    assigned = root;
    EXPECT_EQ(Depth(assigned), kDepth);
    assigned = XMLElement();
    EXPECT_EQ(m->Count(), before + kDepth);
  }
  EXPECT_EQ(m->Count(), before);

  XMLElement streamed;
  std::istringstream in(text);
  in >> streamed;
  EXPECT_EQ(Depth(streamed), kDepth);
}

TEST(XmlDeepNesting, UnclosedLevelsEachReportTheirMissingEndTag) {
  constexpr std::size_t kDepth = 100000;
  const std::string text = Nested(kDepth, false);
  XMLElement root;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(kt::ParseXMLBuffer(text.data(), text.size(), root));
  const std::string messages = testing::internal::GetCapturedStderr();
  EXPECT_EQ(messages.size(), kDepth * std::string("Missing end tag!\n").size());
  EXPECT_EQ(Depth(root), kDepth);
}

}  // namespace
