#include "dischive/codec.h"

#include <gtest/gtest.h>

#include <set>

#include "dischive/random_id.h"
#include "dischive/version.h"

namespace dischive {
namespace {

TEST(CodecTest, PercentEncodingKeepsOnlyUnreservedCharacters) {
  EXPECT_EQ(PercentEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(PercentEncode("a b+c&d=e/\xC3\xA9"), "a%20b%2Bc%26d%3De%2F%C3%A9");
  EXPECT_EQ(PercentDecode("a%20b%2Bc%zz%4"), "a b+c%zz%4");
  EXPECT_EQ(PercentDecode("a+b", true), "a b");
  std::string all;
  for (int b = 0; b < 256; ++b)
    all.push_back(static_cast<char>(b));
  EXPECT_EQ(PercentDecode(PercentEncode(all)), all);
}

TEST(CodecTest, Base64MatchesRfc4648Vectors) {
  const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Base64Encode(plain), encoded);
    EXPECT_EQ(Base64Decode(encoded).value_or("?"), plain);
  }
  EXPECT_EQ(Base64Decode("Zm9v\r\nYmFy").value_or("?"), "foobar");
  EXPECT_FALSE(Base64Decode("Zm9v!").has_value());
  EXPECT_FALSE(Base64Decode("Zg==Zg").has_value());
}

TEST(CodecTest, Md5MatchesRfc1321Vectors) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (const auto& [input, digest] : vectors) {
    EXPECT_EQ(Md5Hex(input, HexCase::kLower), digest);
  }
  EXPECT_EQ(Md5Hex(std::string_view("abc")), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(CodecTest, HmacSha256MatchesRfc4231Vectors) {
  const auto hex = [](const Sha256Digest& d) { return HexEncode(d, HexCase::kLower); };
  // Test cases 1, 2 and 6 (key longer than the block size).
  EXPECT_EQ(hex(HmacSha256(std::string(20, '\x0b'), "Hi There")),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(hex(HmacSha256("Jefe", "what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(hex(HmacSha256(std::string(131, '\xaa'),
                           "Test Using Larger Than Block-Size Key - Hash Key First")),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

TEST(RandomIdentifierTest, SixteenUpperCaseHexDigitsAndDistinctOnBothPaths) {
  for (bool fallback : {false, true}) {
    const bool previous = ForceRandomFallback(fallback);
    std::set<std::string> seen;
    for (int i = 0; i < 20000; ++i) {
      const std::string id = NewRandomIdentifier();
      ASSERT_EQ(id.size(), 16u);
      ASSERT_EQ(id.find_first_not_of("0123456789ABCDEF"), std::string::npos) << id;
      seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 20000u) << "fallback=" << fallback;
    ForceRandomFallback(previous);
  }
}

TEST(VersionTest, AgentTextCarriesMajorAndMinor) {
  const LibraryVersion& v = GetLibraryVersion();
  EXPECT_EQ(AgentText(), "DiscHive " + std::to_string(v.major) + "." + std::to_string(v.minor));
  EXPECT_EQ(&GetLibraryVersion(), &v);
}

}  // namespace
}  // namespace dischive
