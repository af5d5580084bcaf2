#include <gtest/gtest.h>

#include <filesystem>

#include "dischive/cover.h"
#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

// Album elements in the document (<Albums> itself excluded).
size_t CountAlbums(const std::string& xml) {
  size_t count = 0;
  for (size_t at = xml.find("<Album"); at != std::string::npos; at = xml.find("<Album", at + 1))
    count += xml.compare(at, 7, "<Albums") != 0;
  return count;
}

TEST(ExportCliTest, WritesTheDocumentToAFileOrStandardOutput) {
  TempDir home;
  const std::filesystem::path db = home / "music.dab";
  {
    std::unique_ptr<CatalogEngine> catalog = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
    ASSERT_NE(catalog, nullptr);
    for (uint32_t i = 1; i <= 3; ++i) {
      AlbumRecord album;
      album.properties.Set(field::kTitle, "Album " + std::to_string(i));
      album.volumes.emplace_back().record_id = 0x100 * i + 10;
      ASSERT_EQ(catalog->WriteAlbum(album, WriteMode::kReplace), kOk);
    }
    ASSERT_EQ(catalog->WriteCover(0x10A, "stored cover bytes"), kOk);
  }

  ProcessResult r = RunCli({"export", "--db", db.string(), "-o", (home / "out.xml").string(),
                            "--covers", (home / "covers").string()},
                           home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Exported 3 albums"), std::string::npos) << r.err;
  const std::string file = ReadFile(home / "out.xml");
  EXPECT_EQ(CountAlbums(file), 3u) << file;
  // The undecodable cover is stored as it is, under its hash.
  const std::string hash = CoverHash("stored cover bytes");
  EXPECT_NE(file.find("<Artwork Hash=\"" + hash + "\"/>"), std::string::npos);
  EXPECT_EQ(ReadFile(home / "covers" / (hash + ".jpg")), "stored cover bytes");
  for (const auto& entry : std::filesystem::directory_iterator(home.path()))
    EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos);  // none left
  // Standard output carries the same document; the default cover cache is
  // under the cache folder.
  r = RunCli({"export", "--db", db.string()}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, file);
  EXPECT_TRUE(std::filesystem::exists(home / "cache" / "dischive" / "covers" / (hash + ".jpg")));

  r = RunCli({"--json", "export", "--db", db.string(), "-o", (home / "out2.xml").string()},
             home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("\"albums\": 3"), std::string::npos) << r.out;
  EXPECT_EQ(ReadFile(home / "out2.xml"), file);
}

TEST(ExportCliTest, FailuresAreOneLineAndKeepAnEarlierDocument) {
  TempDir home;
  WriteFile(home / "old.xml", "earlier document");
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string message;
  };
  const Case cases[] = {
      {{"export", "--db", (home / "missing.dab").string(), "-o", (home / "old.xml").string()},
       1,
       "missing.dab"},
      {{"--json", "export", "--db", (home / "missing.dab").string()}, 2, "-o FILE"},
      {{"export", "-o", (home / "no" / "such" / "dir.xml").string()}, 1, "cannot create"},
  };
  for (const Case& c : cases) {
    const ProcessResult r = RunCli(c.args, home.path());
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args.back() << ": " << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(ReadFile(home / "old.xml"), "earlier document");
  }
}

}  // namespace
}  // namespace dischive::test
