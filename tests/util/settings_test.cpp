#include <gtest/gtest.h>

#include "dischive/ini.h"
#include "dischive/settings.h"
#include "dischive/strings.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

TEST(IniDocumentTest, RewriteKeepsCommentsOrderAndUnknownLines) {
  const std::string original =
      "; top comment\n"
      "[internet2]\n"
      "# proxy settings\n"
      "use_http_proxy = 1\n"
      "http_proxy_address=proxy.example\n"
      "\n"
      "[ScanOptions]\n"
      "Exclude=0\n"
      "garbage line without equals\n";
  IniDocument doc = IniDocument::Parse(original);
  EXPECT_EQ(doc.Serialize(),
            "; top comment\n[internet2]\n# proxy settings\nuse_http_proxy=1\n"
            "http_proxy_address=proxy.example\n\n[ScanOptions]\nExclude=0\n"
            "garbage line without equals\n");
  EXPECT_EQ(doc.Get("INTERNET2", "Use_Http_Proxy").value_or("?"), "1");
  EXPECT_FALSE(doc.Get("internet2", "Exclude").has_value());

  doc.Set("internet2", "http_proxy_port", "8080");  // appended after the last pair
  doc.Set("ScanOptions", "exclude", "1");           // replaced in place, keeps its spelling
  doc.Set("New", "key", "v");                       // new section at the end
  EXPECT_EQ(doc.Serialize(),
            "; top comment\n[internet2]\n# proxy settings\nuse_http_proxy=1\n"
            "http_proxy_address=proxy.example\nhttp_proxy_port=8080\n\n[ScanOptions]\n"
            "Exclude=1\ngarbage line without equals\n\n[New]\nkey=v\n");
  EXPECT_TRUE(doc.Remove("internet2", "USE_HTTP_PROXY"));
  EXPECT_FALSE(doc.Remove("internet2", "use_http_proxy"));
  EXPECT_TRUE(doc.RemoveSection("new"));
  EXPECT_EQ(doc.Sections(), (std::vector<std::string>{"internet2", "ScanOptions"}));

  // CR LF files and a byte order mark read the same.
  const IniDocument crlf = IniDocument::Parse("\xEF\xBB\xBF[a]\r\nk=v \r\n");
  EXPECT_EQ(crlf.Get("a", "k").value_or("?"), "v");
}

TEST(SettingsStoreTest, IntegersStringsDefaultsAndRemoval) {
  MemorySettingsStore store;
  EXPECT_EQ(store.GetInt("internet2", "http_proxy_port", 80), 80);
  EXPECT_EQ(store.GetString("internet2", "http_proxy_address", "none"), "none");
  store.SetInt("internet2", "http_proxy_port", 8080);
  store.SetString("Internet2", "HTTP_PROXY_ADDRESS", "proxy");
  EXPECT_EQ(store.GetInt("INTERNET2", "http_proxy_port", 80), 8080);
  EXPECT_EQ(store.GetString("internet2", "http_proxy_address", ""), "proxy");
  store.SetString("medialib", "flags", "0x80000000");
  EXPECT_EQ(store.GetInt("medialib", "flags", 0), static_cast<int32_t>(0x80000000u));
  store.SetString("medialib", "bad", "12abc");
  EXPECT_EQ(store.GetInt("medialib", "bad", -1), -1);
  EXPECT_TRUE(store.Remove("internet2", "http_proxy_port"));
  EXPECT_FALSE(store.Remove("internet2", "http_proxy_port"));
  EXPECT_EQ(store.GetInt("internet2", "http_proxy_port", 80), 80);

  EXPECT_EQ(ParseSettingsInt(" -12 "), -12);
  EXPECT_EQ(ParseSettingsInt("2147483647"), 2147483647);
  EXPECT_FALSE(ParseSettingsInt("2147483648").has_value());
  EXPECT_EQ(ParseSettingsInt("-2147483648"), INT32_MIN);
  EXPECT_EQ(ParseSettingsInt("0xFFFFFFFF"), -1);
  EXPECT_FALSE(ParseSettingsInt("0x100000000").has_value());
  EXPECT_FALSE(ParseSettingsInt("").has_value());
}

TEST(SettingsStoreTest, IniStoreSavesAtOnceAndReadsTheSystemScope) {
  TempDir dir;
  WriteFile(dir / "etc.ini", "[Database]\nDefaultDatabase=/srv/shared.dab\n[internet2]\nx=sys\n");
  WriteFile(dir / "user.ini", "; keep me\n[internet2]\nx=user\n");
  {
    IniSettingsStore store(dir / "user.ini", dir / "etc.ini");
    EXPECT_EQ(store.GetString("internet2", "x", ""), "user");
    EXPECT_EQ(store.GetString("Database", "DefaultDatabase", ""), "/srv/shared.dab");
    EXPECT_EQ(store.ReadSystem("internet2", "x").value_or("?"), "sys");
    EXPECT_TRUE(store.SetInt("internet2", "use_http_proxy", 1));
  }
  EXPECT_EQ(ReadFile(dir / "user.ini"), "; keep me\n[internet2]\nx=user\nuse_http_proxy=1\n");
  IniSettingsStore reopened(dir / "user.ini");
  EXPECT_EQ(reopened.GetInt("internet2", "use_http_proxy", 0), 1);

  // A store whose folder does not exist yet creates it on the first write.
  IniSettingsStore fresh(dir / "a" / "b" / "dischive.ini");
  EXPECT_TRUE(fresh.SetString("g", "k", "v"));
  EXPECT_EQ(ReadFile(dir / "a" / "b" / "dischive.ini"), "[g]\nk=v\n");
}

TEST(SettingsStoreTest, OverlayReadsOverridesFirstAndWritesThrough) {
  MemorySettingsStore base, overrides;
  base.SetString("g", "a", "base");
  base.SetString("g", "b", "base");
  overrides.SetString("g", "a", "override");
  OverlaySettingsStore overlay(base, overrides);
  EXPECT_EQ(overlay.GetString("g", "a", ""), "override");
  EXPECT_EQ(overlay.GetString("g", "b", ""), "base");
  EXPECT_EQ(overlay.Entries("g").size(), 2u);
  overlay.SetString("g", "a", "written");
  EXPECT_EQ(base.GetString("g", "a", ""), "written");
  EXPECT_EQ(overlay.GetString("g", "a", ""), "written");
}

TEST(StringCatalogueTest, BuiltinTextsAndLanguageOverrides) {
  for (uint32_t id : {5034u, 5087u, 5091u, 5169u, 5191u, 5383u, 5622u, 5661u, 5776u, 6101u}) {
    EXPECT_FALSE(LoadHostString(id).empty()) << id;
  }
  for (uint32_t id = 5108; id <= 5140; ++id)
    EXPECT_TRUE(HasHostString(id)) << id;
  EXPECT_EQ(LoadHostString(1), "");

  TempDir dir;
  WriteFile(dir / "de.lang",
            "# German\n[strings]\n5383=Verschiedene Interpreten\n"
            "5169=Verbinde mit %s\\n...\nnot_a_number=x\n");
  std::string error;
  EXPECT_EQ(LoadLanguageFile(dir / "de.lang", &error), 2) << error;
  EXPECT_EQ(LoadHostString(strings::kVariousArtists), "Verschiedene Interpreten");
  EXPECT_EQ(LoadHostString(strings::kConnecting), "Verbinde mit %s\n...");
  EXPECT_EQ(LoadLanguageFile(dir / "missing.lang", &error), -1);
  EXPECT_NE(error.find("missing.lang"), std::string::npos);
  ResetLanguage();
  EXPECT_EQ(LoadHostString(strings::kVariousArtists), "Various Artists");
}

}  // namespace
}  // namespace dischive
