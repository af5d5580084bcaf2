#include "dischive/xml_writer.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <sstream>

namespace dischive {
namespace {

constexpr std::string_view kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

bool IsWellFormed(const std::string& xml) {
  xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (doc == nullptr) return false;
  xmlFreeDoc(doc);
  return true;
}

TEST(XmlStreamWriterTest, LayoutOfNestedElementsTextAndDeferredScopes) {
  StringXmlOutput out;
  {
    XmlStreamWriter writer(out, CodePage::kUtf8);
    XmlElementScope root(writer, "Root");
    root.Attribute("Version", "1.0").Attribute("Empty", "").Open();
    {
      XmlElementScope list(writer, "List");
      list.Open();
      writer.WriteTextElement("Item", "one");
      writer.WriteTextElement("Item", "");
      {
        // Deferred with attributes and no content: an empty element.
        XmlElementScope common(writer, "Common");
        common.Attribute("Live", "1").Open(true);
      }
      {
        // Deferred without attributes or content: nothing at all.
        XmlElementScope common(writer, "Common");
        common.Open(true);
      }
      {
        // A deferred parent is forced out by a child, outermost first.
        XmlElementScope outer(writer, "Outer");
        outer.Open(true);
        XmlElementScope inner(writer, "Inner");
        inner.Open(true);
        writer.WriteTextElement("Leaf", "x");
      }
      XmlElementScope none(writer, "NoChildren");
      none.Open();
    }
    writer.WriteCDataElement("Memo", "a\r\nb");
    writer.WriteCDataElement("Nothing", "");
    root.Close();
    EXPECT_TRUE(writer.Finish());
  }
  EXPECT_EQ(out.text(), std::string(kDecl) +
                            "<Root Version=\"1.0\">\n"
                            "\t<List>\n"
                            "\t\t<Item>one</Item>\n"
                            "\t\t<Item></Item>\n"
                            "\t\t<Common Live=\"1\"/>\n"
                            "\t\t<Outer>\n"
                            "\t\t\t<Inner>\n"
                            "\t\t\t\t<Leaf>x</Leaf>\n"
                            "\t\t\t</Inner>\n"
                            "\t\t</Outer>\n"
                            "\t\t<NoChildren></NoChildren>\n"
                            "\t</List>\n"
                            "\t<Memo><![CDATA[a\nb]]></Memo>\n"
                            "\t<Nothing></Nothing>\n"
                            "</Root>");
  EXPECT_TRUE(IsWellFormed(out.text()));
}

TEST(XmlStreamWriterTest, EscapingAndCleaningOfTextAttributesAndCData) {
  struct Case {
    CodePage page;
    std::string input;
    std::string text;   // as element text
    std::string cdata;  // as the inside of <X>...</X> written with WriteCData
  };
  const Case cases[] = {
      {CodePage::kUtf8, "a<b & \"c\"", "a&lt;b &amp; &quot;c&quot;", "<![CDATA[a<b & \"c\"]]>"},
      {CodePage::kUtf8, "it's > it", "it's &gt; it", "<![CDATA[it's > it]]>"},
      {CodePage::kUtf8, "tab\tcr\rlf\n", "tab\tcr\rlf\n", "<![CDATA[tab\tcr\rlf\n]]>"},
      {CodePage::kUtf8, std::string("x\x01\x1F\0y", 5), "xy", "<![CDATA[xy]]>"},
      {CodePage::kUtf8, "end]]>here", "end]]&gt;here", "<![CDATA[end]]]]><![CDATA[>here]]>"},
      {CodePage::kUtf8, "end]]\x02>", "end]]&gt;", "<![CDATA[end]]]]><![CDATA[>]]>"},
      {CodePage::kUtf8, "bad\xC3(\xFF", "bad\xEF\xBF\xBD(\xEF\xBF\xBD",
       "<![CDATA[bad\xEF\xBF\xBD(\xEF\xBF\xBD]]>"},
      {CodePage::kUtf8, "\xEF\xBF\xBEno\xC3\xA9", "no\xC3\xA9", "<![CDATA[no\xC3\xA9]]>"},
      {CodePage::kWindows1252, "caf\xE9 \x80", "caf\xC3\xA9 \xE2\x82\xAC",
       "<![CDATA[caf\xC3\xA9 \xE2\x82\xAC]]>"},
      {CodePage::kWindows1252, "a&\x01", "a&amp;", "<![CDATA[a&]]>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    StringXmlOutput out;
    {
      XmlStreamWriter writer(out, c.page);
      XmlElementScope root(writer, "R");
      root.Attribute("A", c.input).Open();
      writer.WriteTextElement("T", c.input);
      XmlElementScope cdata(writer, "C");
      cdata.Open();
      writer.WriteCData(c.input);
    }
    EXPECT_EQ(out.text(), std::string(kDecl) + "<R A=\"" + c.text + "\">\n\t<T>" + c.text +
                              "</T>\n\t<C>" + c.cdata + "</C>\n</R>");
    EXPECT_TRUE(IsWellFormed(out.text())) << out.text();
  }
}

TEST(XmlStreamWriterTest, LargeOutputIsFlushedInPiecesAndWriteFailuresAreReported) {
  class CountingOutput : public XmlOutput {
   public:
    bool Write(const char* data, size_t size) override {
      ++writes;
      text.append(data, size);
      return writes <= fail_after;
    }
    size_t writes = 0;
    size_t fail_after = SIZE_MAX;
    std::string text;
  };
  CountingOutput out;
  {
    XmlStreamWriter writer(out, CodePage::kUtf8);
    XmlElementScope root(writer, "R");
    root.Open();
    for (int i = 0; i < 20000; ++i)
      writer.WriteTextElement("I", "0123456789");
    root.Close();
    EXPECT_TRUE(writer.Finish());
    EXPECT_EQ(writer.bytes_written(), out.text.size());
  }
  EXPECT_GT(out.writes, 3u);
  EXPECT_TRUE(IsWellFormed(out.text));

  std::ostringstream stream;
  {
    OstreamXmlOutput ostream_out(stream);
    XmlStreamWriter writer(ostream_out);
    writer.WriteTextElement("E", "\xE9");
    EXPECT_TRUE(writer.Finish());
  }
  EXPECT_EQ(stream.str(), std::string(kDecl) + "<E>\xC3\xA9</E>");

  CountingOutput failing;
  failing.fail_after = 1;
  XmlStreamWriter writer(failing, CodePage::kUtf8);
  XmlElementScope root(writer, "R");
  root.Open();
  for (int i = 0; i < 20000; ++i)
    writer.WriteTextElement("I", "0123456789");
  root.Close();
  EXPECT_FALSE(writer.Finish());
  EXPECT_EQ(failing.writes, 2u);  // nothing more after the failed write
}

}  // namespace
}  // namespace dischive
