#include "dischive/text.h"

#include <gtest/gtest.h>

#include <random>

namespace dischive {
namespace {

TEST(TextTest, Latin1AndCp1252RoundTripEveryByte) {
  std::string all;
  for (int b = 0; b < 256; ++b)
    all.push_back(static_cast<char>(b));
  EXPECT_EQ(Utf8ToLatin1(Latin1ToUtf8(all)), all);
  EXPECT_EQ(Utf8ToCp1252(Cp1252ToUtf8(all)), all);
  EXPECT_EQ(Cp1252ToUtf8("\x80\x9F\xE9"), "\u20AC\u0178\u00E9");
  EXPECT_EQ(Latin1ToUtf8("\x80\xE9"), "\u0080\u00E9");
  // Characters outside the target set become the replacement byte.
  EXPECT_EQ(Utf8ToLatin1("a\u20ACb\U0001F600"), "a?b?");
  EXPECT_EQ(Utf8ToCp1252("\u20AC\u4E2D"), "\x80?");
}

TEST(TextTest, Utf16RoundTripsAllOfTheBmpAndAstralSamples) {
  std::string utf8;
  for (char32_t cp = 1; cp < 0x10000; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    AppendUtf8(utf8, cp);
  }
  std::mt19937 rng(7);
  for (int i = 0; i < 5000; ++i) {
    AppendUtf8(utf8, 0x10000 + rng() % 0x100000);
  }
  ASSERT_TRUE(IsValidUtf8(utf8));
  EXPECT_EQ(Utf16ToUtf8(Utf8ToUtf16(utf8)), utf8);
  for (ByteOrder order : {ByteOrder::kLittleEndian, ByteOrder::kBigEndian}) {
    for (bool bom : {false, true}) {
      const std::string bytes = Utf8ToUtf16Bytes(utf8, order, bom);
      const auto span = std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      EXPECT_EQ(Utf16BytesToUtf8(span, order), utf8);
    }
  }
}

TEST(TextTest, ByteOrderMarkOverridesTheDefaultOrder) {
  const uint8_t be_with_bom[] = {0xFE, 0xFF, 0x00, 'A', 0x00, 0xE9};
  EXPECT_EQ(Utf16BytesToUtf8(be_with_bom, ByteOrder::kLittleEndian), "A\u00E9");
  const uint8_t le_without[] = {'A', 0x00, 0xE9, 0x00};
  EXPECT_EQ(Utf16BytesToUtf8(le_without, ByteOrder::kLittleEndian), "A\u00E9");
}

TEST(TextTest, MalformedInputIsReplacedNotRejected) {
  struct Case {
    std::string input;
    std::string expected;
  };
  const Case cases[] = {
      {"\xC3", "\uFFFD"},                                // truncated two-byte sequence
      {"\xC0\xAF", "\uFFFD\uFFFD"},                      // overlong
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"a\xE2\x82z", "a\uFFFDz"},                        // maximal invalid prefix replaced once
      {"\xFF\xFE", "\uFFFD\uFFFD"},
      {"ok \uFFFD", "ok \uFFFD"},  // a real U+FFFD is valid text
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SanitizeUtf8(c.input), c.expected) << c.input;
    EXPECT_TRUE(IsValidUtf8(SanitizeUtf8(c.input)));
  }
  EXPECT_FALSE(IsValidUtf8("\xC3"));
  EXPECT_TRUE(IsValidUtf8("\uFFFD"));

  // Lone surrogates and an odd trailing byte in UTF-16.
  EXPECT_EQ(Utf16ToUtf8(std::u16string{u'a', char16_t(0xD800), u'b'}), "a\uFFFDb");
  EXPECT_EQ(Utf16ToUtf8(std::u16string{char16_t(0xDC00)}), "\uFFFD");
  const uint8_t odd[] = {'A', 0x00, 'B'};
  EXPECT_EQ(Utf16BytesToUtf8(odd, ByteOrder::kLittleEndian), "A\uFFFD");

  // Random bytes never crash and always give valid UTF-8.
  std::mt19937 rng(11);
  for (int i = 0; i < 2000; ++i) {
    std::string junk(rng() % 40, '\0');
    for (char& c : junk)
      c = static_cast<char>(rng());
    EXPECT_TRUE(IsValidUtf8(SanitizeUtf8(junk)));
    const auto span = std::span(reinterpret_cast<const uint8_t*>(junk.data()), junk.size());
    EXPECT_TRUE(IsValidUtf8(Utf16BytesToUtf8(span, ByteOrder::kBigEndian)));
  }
}

TEST(TextTest, CaseInsensitiveHelpersAreAsciiOnly) {
  EXPECT_TRUE(EqualsIgnoreCase("Various Artists", "VARIOUS artists"));
  EXPECT_FALSE(EqualsIgnoreCase("\u00C9", "\u00E9"));
  EXPECT_TRUE(StartsWithIgnoreCase("TRACK 03", "track"));
  EXPECT_TRUE(EndsWithIgnoreCase("cover.JPG", ".jpg"));
  EXPECT_FALSE(EndsWithIgnoreCase("g", ".jpg"));
  EXPECT_EQ(TrimBlanks("  a b\r\n"), "a b");
  EXPECT_EQ(TrimBlanks(" \t "), "");
}

}  // namespace
}  // namespace dischive
