#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "dischive/xml_response.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

class PrefixedReader : public XmlResponseReader {
 public:
  std::string GetSelectionNamespaces() const override {
    return "xmlns:z='urn:test:items' xmlns:q=\"urn:test:other\"";
  }
};

TEST(XmlResponseTest, SelectsTextsWithAndWithoutNamespaces) {
  const std::string body =
      "<?xml version=\"1.0\"?>\n<Response xmlns=\"urn:test:items\"><Items>"
      "<Item id=\"7\"><Title>  Blue Train  </Title><Note><![CDATA[a<b]]> &amp; c</Note></Item>"
      "<Item id=\"8\"><Title>Second</Title></Item></Items></Response>";
  PrefixedReader reader;
  XmlDocument doc;
  ASSERT_EQ(reader.LoadXmlResponse(body, doc), kOk) << reader.last_error();

  std::string text = "untouched";
  EXPECT_TRUE(reader.SelectNodeText(doc.node(), "z:Response/z:Items/z:Item/z:Title", text));
  EXPECT_EQ(text, "Blue Train");
  EXPECT_TRUE(reader.SelectNodeText(doc.node(), "//z:Item[2]/@id", text));
  EXPECT_EQ(text, "8");
  EXPECT_TRUE(reader.SelectNodeText(doc.node(), "//z:Note", text));
  EXPECT_EQ(text, "a<b & c");

  // Relative to a node; nothing found leaves the text alone.
  const std::vector<_xmlNode*> items = reader.SelectNodes(doc.node(), "//z:Item");
  ASSERT_EQ(items.size(), 2u);
  EXPECT_TRUE(reader.SelectNodeText(items[1], "z:Title", text));
  EXPECT_EQ(text, "Second");
  text = "untouched";
  EXPECT_FALSE(reader.SelectNodeText(items[1], "z:Note", text));
  EXPECT_FALSE(reader.SelectNodeText(doc.node(), "//Item", text));     // no prefix: no match
  EXPECT_FALSE(reader.SelectNodeText(doc.node(), "//z:Item[", text));  // bad XPath
  EXPECT_FALSE(reader.SelectNodeText(doc.node(), "//z:Item/namespace::*", text));
  EXPECT_EQ(text, "untouched");

  // The base reader declares nothing, so prefixed paths find nothing.
  XmlResponseReader plain;
  XmlDocument plain_doc;
  ASSERT_EQ(plain.LoadXmlResponse("<a><b>x</b></a>", plain_doc), kOk);
  EXPECT_TRUE(plain.SelectNodeText(plain_doc.node(), "a/b", text));
  EXPECT_EQ(text, "x");
  EXPECT_FALSE(plain.SelectNodeText(doc.node(), "//z:Item", text));
}

TEST(XmlResponseTest, DeclaredEncodingDecidesAndCodePageConverts) {
  const std::string latin1 = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><t>Caf\xE9</t>";
  XmlResponseReader reader;
  XmlDocument doc;
  ASSERT_EQ(reader.LoadXmlResponse(latin1, doc), kOk) << reader.last_error();
  std::string text;
  ASSERT_TRUE(reader.SelectNodeText(doc.node(), "t", text));
  EXPECT_EQ(text, "Caf\xC3\xA9");
  reader.code_page = 1252;
  ASSERT_TRUE(reader.SelectNodeText(doc.node(), "t", text));
  EXPECT_EQ(text, "Caf\xE9");

  // The body ends at its first NUL.
  XmlDocument cut;
  EXPECT_EQ(reader.LoadXmlResponse(std::string("<t>a</t>\0<junk", 14), cut), kOk);
}

TEST(XmlResponseTest, BadInputGivesCodes) {
  XmlResponseReader reader;
  // Empty, unbalanced, not XML, not UTF-8 with nothing declared.
  for (const std::string body : {"", "<a><b></a>", "not xml at all", "<a>\xFF\xFE</a>"}) {
    XmlDocument doc;
    EXPECT_EQ(reader.LoadXmlResponse(body, doc), kFail) << body;
    EXPECT_FALSE(doc);
    EXPECT_FALSE(reader.last_error().empty());
  }

  class BrokenReader : public XmlResponseReader {
    std::string GetSelectionNamespaces() const override { return "xmlns:z=unquoted"; }
  } broken;
  XmlDocument doc;
  EXPECT_EQ(broken.LoadXmlResponse("<a/>", doc), kInvalidArgument);
}

TEST(XmlResponseTest, HostileDocumentsReadNoFileAndStayBounded) {
  test::TempDir dir;
  const auto secret = dir / "secret.txt";
  test::WriteFile(secret, "TOP-SECRET");
  const int watch_fd = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(watch_fd, 0);
  ASSERT_GE(inotify_add_watch(watch_fd, secret.c_str(), IN_OPEN | IN_ACCESS), 0);

  const std::string external = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY x SYSTEM \"file://" +
                               secret.string() + "\">]><r>[&x;]</r>";
  const std::string external_dtd =
      "<?xml version=\"1.0\"?><!DOCTYPE r SYSTEM \"file://" + secret.string() + "\"><r>ok</r>";
  for (const std::string& body : {external, external_dtd}) {
    XmlResponseReader reader;
    XmlDocument doc;
    if (reader.LoadXmlResponse(body, doc) == kOk) {
      std::string text;
      ASSERT_TRUE(reader.SelectNodeText(doc.node(), "r", text));
      EXPECT_EQ(text.find("TOP-SECRET"), std::string::npos);
    }
  }
  char events[4096];
  EXPECT_LE(read(watch_fd, events, sizeof events), 0) << "the file was opened";
  close(watch_fd);
}

// Peak resident memory of the process, in KiB.
long PeakRssKib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST(XmlResponseTest, EntityAttacksAndOversizedBodiesAreRefusedQuicklyInBoundedMemory) {
  std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY l0 \"lollollollol\">";
  for (int i = 1; i <= 9; ++i) {
    laughs += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j)
      laughs += "&l" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  laughs += "]><r a=\"&l9;\">&l9;</r>";
  // Quadratic blowup: one large entity referenced many times.
  std::string quadratic = "<!DOCTYPE r [<!ENTITY k \"" + std::string(50000, 'k') + "\">]><r>";
  for (int i = 0; i < 50000; ++i)
    quadratic += "&k;";
  quadratic += "</r>";
  // The same after a UTF-16 byte order mark, which a plain byte search would miss.
  const std::string utf8_wide = "<!DOCTYPE r [<!ENTITY k \"kkkk\">]><r>&k;</r>";
  std::string utf16 = "\xFF\xFE";
  for (const char c : utf8_wide) {
    utf16 += c;
    utf16 += '\0';
  }
  const struct {
    const char* name;
    std::string body;
  } kAttacks[] = {
      {"billion laughs", laughs},
      {"quadratic blowup", quadratic},
      {"internal entity", "<!DOCTYPE r [<!ENTITY e \"x\">]><r>&e;</r>"},
      {"external entity", "<!DOCTYPE r [<!ENTITY e SYSTEM \"http://127.0.0.1:9/x\">]><r>&e;</r>"},
      {"parameter entity", "<!DOCTYPE r [<!ENTITY % p SYSTEM \"file:///etc/passwd\"> %p;]><r/>"},
      {"external DTD", "<!DOCTYPE r SYSTEM \"file:///etc/passwd\"><r>ok</r>"},
      {"public DTD", "<!DOCTYPE r PUBLIC \"-//W3C//DTD XHTML 1.0//EN\" \"x.dtd\"><r/>"},
      {"empty DOCTYPE", "<?xml version=\"1.0\"?>\n<!-- c --><!DOCTYPE r><r/>"},
  };
  const long rss_before = PeakRssKib();
  for (const auto& attack : kAttacks) {
    XmlResponseReader reader;
    XmlDocument doc;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(reader.LoadXmlResponse(attack.body, doc), kFail) << attack.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << attack.name;
    EXPECT_FALSE(doc) << attack.name;
    EXPECT_NE(reader.last_error().find("document type"), std::string::npos)
        << attack.name << ": " << reader.last_error();
  }
  EXPECT_LT(PeakRssKib() - rss_before, 64 * 1024) << "KiB of peak memory added";
  // UTF-16 with a DOCTYPE takes the same way out.
  XmlResponseReader reader;
  XmlDocument doc;
  EXPECT_EQ(reader.LoadXmlResponse(std::string_view(utf16), doc), kFail);

  // Size: one byte over the reader's limit is refused before parsing, at the
  // limit it parses; the limit comes from the settings unless set.
  const std::string body = "<r>" + std::string(1000, 'x') + "</r>";
  reader.max_bytes = body.size();
  EXPECT_EQ(reader.LoadXmlResponse(body, doc), kOk) << reader.last_error();
  reader.max_bytes = body.size() - 1;
  EXPECT_EQ(reader.LoadXmlResponse(body, doc), kFail);
  EXPECT_NE(reader.last_error().find("larger than"), std::string::npos) << reader.last_error();
  const std::string big = "<r>" + std::string(size_t{65} << 20, 'x') + "</r>";
  reader.max_bytes = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(reader.LoadXmlResponse(big, doc), kFail);  // the 64 MiB default
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  MemorySettingsStore settings;
  EXPECT_EQ(LoadXmlMaxBytes(settings), kDefaultXmlMaxBytes);
  settings.SetInt("internet2", "xml_max_bytes", 4096);
  EXPECT_EQ(LoadXmlMaxBytes(settings), 4096u);
  settings.SetInt("internet2", "xml_max_bytes", -1);
  EXPECT_EQ(LoadXmlMaxBytes(settings), kDefaultXmlMaxBytes);
}

}  // namespace
}  // namespace dischive
