#include "util/parse.h"

#include <gtest/gtest.h>

namespace dischive {
namespace {

struct NumberCase {
  const char* text;
  uint64_t max;
  std::optional<uint64_t> want;
};

TEST(ParseDecimalTest, BoundsAndRejects) {
  const NumberCase cases[] = {
      {"0", UINT64_MAX, 0},
      {"42", UINT64_MAX, 42},
      {"007", UINT64_MAX, 7},
      {"18446744073709551615", UINT64_MAX, UINT64_MAX},
      {"18446744073709551616", UINT64_MAX, std::nullopt},  // one past 64 bits
      {"99999999999999999999999", UINT64_MAX, std::nullopt},
      {"65535", 65535, 65535},
      {"65536", 65535, std::nullopt},
      {"5", 0, std::nullopt},  // a single digit above a zero maximum
      {"", UINT64_MAX, std::nullopt},
      {"-1", UINT64_MAX, std::nullopt},
      {"+1", UINT64_MAX, std::nullopt},
      {" 1", UINT64_MAX, std::nullopt},
      {"1 ", UINT64_MAX, std::nullopt},
      {"12a", UINT64_MAX, std::nullopt},
      {"0x10", UINT64_MAX, std::nullopt},
  };
  for (const NumberCase& c : cases) {
    EXPECT_EQ(ParseDecimal(c.text, c.max), c.want) << '"' << c.text << "\" max " << c.max;
  }
}

TEST(ParseHexTest, BoundsCaseAndRejects) {
  const NumberCase cases[] = {
      {"0", UINT64_MAX, 0},
      {"aF", UINT64_MAX, 0xAF},
      {"ffffffffffffffff", UINT64_MAX, UINT64_MAX},
      {"10000000000000000", UINT64_MAX, std::nullopt},
      {"ffffffff", UINT32_MAX, 0xFFFFFFFF},
      {"100000000", UINT32_MAX, std::nullopt},
      {"g", UINT64_MAX, std::nullopt},
      {"0x1", UINT64_MAX, std::nullopt},
      {"", UINT64_MAX, std::nullopt},
  };
  for (const NumberCase& c : cases) {
    EXPECT_EQ(ParseHex(c.text, c.max), c.want) << '"' << c.text << "\" max " << c.max;
  }
}

TEST(ParseHexTest, RecordIdsHaveOneToEightDigits) {
  EXPECT_EQ(ParseHex32("7e470001"), 0x7E470001u);
  EXPECT_EQ(ParseHex32("00000001"), 1u);
  EXPECT_EQ(ParseHex32("000000001"), std::nullopt);  // nine digits, though small
  EXPECT_EQ(ParseHex32("Album-1"), std::nullopt);
}

TEST(ParsePortTest, AcceptsOneTo65535) {
  EXPECT_EQ(ParsePort("1"), 1);
  EXPECT_EQ(ParsePort("8080"), 8080);
  EXPECT_EQ(ParsePort("65535"), 65535);
  EXPECT_EQ(ParsePort("0"), std::nullopt);
  EXPECT_EQ(ParsePort("65536"), std::nullopt);
  EXPECT_EQ(ParsePort("4294967377"), std::nullopt);  // 2^32 + 81 must not wrap to 81
  EXPECT_EQ(ParsePort(""), std::nullopt);
}

}  // namespace
}  // namespace dischive
