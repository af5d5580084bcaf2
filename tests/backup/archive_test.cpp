#include "backup/archive.h"

#include <gtest/gtest.h>

#include <string>

namespace dischive::backup {
namespace {

std::string Dword(uint32_t v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
          static_cast<char>((v >> 16) & 0xFF), static_cast<char>(v >> 24)};
}

TEST(BackupArchive, StringLengthFormsAndRoundTrip) {
  struct Case {
    size_t length;
    std::string prefix;
  };
  const Case cases[] = {
      {0, std::string(1, '\0')},
      {5, "\x05"},
      {254, "\xFE"},
      {255, std::string("\xFF\xFF\x00", 3)},
      {65533, "\xFF\xFD\xFF"},
      {65534, std::string("\xFF\xFF\xFF\xFE\xFF\x00\x00", 7)},
      {70000, std::string("\xFF\xFF\xFF\x70\x11\x01\x00", 7)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    const std::string text(c.length, 'x');
    const std::string encoded = EncodeArchiveString(text);
    ASSERT_EQ(encoded.size(), c.prefix.size() + c.length);
    EXPECT_EQ(encoded.substr(0, c.prefix.size()), c.prefix);

    SpanSource source(encoded);
    ArchiveReader reader(source);
    std::string decoded;
    ASSERT_TRUE(reader.ReadString(&decoded, 100000)) << reader.error();
    EXPECT_EQ(decoded, text);
    EXPECT_EQ(reader.remaining(), 0u);
  }
  EXPECT_EQ(EncodeArchiveString("#META"), "\x05#META");
}

TEST(BackupArchive, WriterBuffersAndKeepsOrder) {
  StringSink sink;
  ArchiveWriter writer(sink, 16);  // tiny buffer: forces flushes and direct writes
  writer.WriteDword(0x04030201);
  writer.WriteString("#FILE");
  writer.WriteString(std::string(40, 'n'));
  writer.WriteDword(256);
  EXPECT_EQ(writer.position(), 4u + 6 + 41 + 4);
  ASSERT_EQ(writer.Flush(), kOk);
  EXPECT_EQ(sink.bytes(), "\x01\x02\x03\x04\x05#FILE(" + std::string(40, 'n') +
                              std::string("\x00\x01\x00\x00", 4));
}

TEST(BackupArchive, ReaderRefusesBadInput) {
  struct Case {
    const char* what;
    std::string bytes;
    const char* error;
  };
  const Case cases[] = {
      {"empty", "", "the file ends early at offset 0"},
      {"short word", "\xFF\x01", "the file ends early at offset 1"},
      {"short dword", "\xFF\xFF\xFF\x01\x00", "the file ends early at offset 3"},
      {"text past end", "\x09#META", "the file ends early at offset 1"},
      {"long form past end", std::string("\xFF\xFF\xFF\xFF\xFF\xFF\x7F", 7) + "abc",
       "text of 2147483647 bytes is too long at offset 7"},
      {"over the cap", std::string("\xFF\x00\x10", 3),
       "text of 4096 bytes is too long at offset 3"},
      {"wide text", "\xFF\xFE\xFF\x03", "unsupported wide text at offset 3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SpanSource source(c.bytes);
    ArchiveReader reader(source);
    std::string text;
    EXPECT_FALSE(reader.ReadString(&text, 1024));
    EXPECT_EQ(reader.error(), c.error);
  }

  const std::string embedded = Dword(10) + "short";
  SpanSource source(embedded);
  ArchiveReader reader(source);
  uint64_t offset = 0;
  uint32_t size = 0;
  EXPECT_FALSE(reader.SkipEmbedded(&offset, &size));
  EXPECT_EQ(reader.error(), "embedded file of 10 bytes runs past the end at offset 4");
}

}  // namespace
}  // namespace dischive::backup
