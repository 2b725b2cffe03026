#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kt/xml.h"

namespace {

using kt::XMLAttribute;
using kt::XMLElement;

std::string Indented(const XMLElement& e, unsigned depth = 0) {
  std::ostringstream out;
  kt::PrintElement(out, depth)(e);
  return out.str();
}

TEST(XmlPrinter, EncodeReplacesTheFiveSpecialCharactersOnly) {
  EXPECT_EQ(XMLElement::xml_encode("\"&'<>"), "&quot;&amp;&apos;&lt;&gt;");
  EXPECT_EQ(XMLElement::xml_encode("a &amp; b\n\t\xc3\xa9"), "a &amp;amp; b\n\t\xc3\xa9");
  EXPECT_EQ(XMLElement::xml_encode(std::string("x\0y", 3)), std::string("x\0y", 3));
}

TEST(XmlPrinter, CompactTextDoublesAttributeQuotesAndIgnoresTheType) {
  EXPECT_EQ(static_cast<std::string>(XMLAttribute("id", "5")), "id=\"\"5\"\"");
  EXPECT_EQ(static_cast<std::string>(XMLAttribute("v", "a&amp;\"")), "v=\"\"a&amp;\"\"\"");

  XMLElement e("a", "1 < 2");
  e.AddAttribute("id", "5");
  e.AddAttribute("x", "&");
  e.AddElement("b")->AddElement("c", "'");
  e.AddElement("", "");
  EXPECT_EQ(static_cast<std::string>(e),
            "<a id=\"\"5\"\" x=\"\"&\"\">1 &lt; 2<b><c>&apos;</c></b><></></a>");

  const XMLElement declaration(kt::Declaration, "xml", "");
  EXPECT_EQ(static_cast<std::string>(declaration), "<xml></xml>");
  EXPECT_EQ(static_cast<std::string>(XMLElement(kt::Comment, "note --", "")),
            "<note --></note -->");
}

TEST(XmlPrinter, IndentedPrintingWritesOneLinePerElement) {
  XMLElement leaf("a", "1 < 2");
  EXPECT_EQ(Indented(leaf), "<a>1 &lt; 2</a>\n");
  EXPECT_EQ(Indented(leaf, 2), "  <a>1 &lt; 2</a>\n");

  XMLElement parent("a", "hidden when there are children");
  parent.AddElement("b");
  EXPECT_EQ(Indented(parent), "<a>\n <b></b>\n</a>\n");

  XMLElement deep("root");
  deep.AddAttribute("x", "a&b\"");
  XMLElement* one = deep.AddElement("one", "", "id", "1");
  one->AddElement("two", "v");
  deep.AddElement("three", ">");
  EXPECT_EQ(Indented(deep, 1),
            " <root x=\"a&b\"\">\n"
            "  <one id=\"1\">\n"
            "   <two>v</two>\n"
            "  </one>\n"
            "  <three>&gt;</three>\n"
            " </root>\n");

  std::ostringstream viaOperator;
  viaOperator << deep;
  EXPECT_EQ(viaOperator.str(), Indented(deep, 0));
}

TEST(XmlPrinter, DeclarationsPrintAsXmlProcessingInstructions) {
  XMLElement declaration(kt::Declaration, "ignored", "value");
  declaration.AddAttribute("version", "1.0");
  EXPECT_EQ(Indented(declaration), "<?xml version=\"1.0\"?>");

  XMLElement document;
  document.AddElement(declaration);
  document.AddElement("a");
  EXPECT_EQ(Indented(document), "<>\n <?xml version=\"1.0\"?> <a></a>\n</>\n");

  // With children the declaration is closed by its own name, as any element would be.
  declaration.AddElement("b");
  EXPECT_EQ(Indented(declaration), "<?xml version=\"1.0\"?> <b></b>\n</ignored>\n");

  XMLElement directive(kt::Directive, "DOCTYPE html", "");
  EXPECT_EQ(Indented(directive), "<DOCTYPE html></DOCTYPE html>\n");

  std::ostringstream attribute;
  const kt::PrintAttribute print(attribute);
  print(XMLAttribute("k", "<raw>"));
  EXPECT_EQ(attribute.str(), " k=\"<raw>\"");
}

TEST(XmlPrinter, ParsedEngineEventPrintsBothWays) {
  const std::string text =
      "<event name=\"video_stream_size_changed\"><stream id=\"v1\"><window><width>640</width>"
      "<height>480</height></window></stream></event>";
  XMLElement root;
  kt::ParseXMLBuffer(text.data(), text.size(), root);
  ASSERT_EQ(root.children.size(), 1u);
  EXPECT_EQ(static_cast<std::string>(*root.children[0]),
            "<event name=\"\"video_stream_size_changed\"\"><stream id=\"\"v1\"\"><window>"
            "<width>640</width><height>480</height></window></stream></event>");
  EXPECT_EQ(Indented(*root.children[0]),
            "<event name=\"video_stream_size_changed\">\n"
            " <stream id=\"v1\">\n"
            "  <window>\n"
            "   <width>640</width>\n"
            "   <height>480</height>\n"
            "  </window>\n"
            " </stream>\n"
            "</event>\n");
}

}  // namespace
