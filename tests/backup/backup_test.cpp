// Backup files: the archive stream, exact bytes, refusals, restores of crafted and cut files, and
// a round trip of a real SQLite catalogue with its write-ahead log and lock.
#include "dischive/backup.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "backup/archive.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::string Dword(uint32_t v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
          static_cast<char>((v >> 16) & 0xFF), static_cast<char>(v >> 24)};
}

// The metadata section our writer produces for a database file name.
std::string Metadata(const std::string& name) {
  return "\x05#META" + Dword(256) + backup::EncodeArchiveString(name) + std::string(6, '\0') +
         std::string(24, '\0');
}

BackupRequest Request(const std::filesystem::path& database, const std::filesystem::path& backup,
                      const std::filesystem::path& covers = {}, bool include_covers = false) {
  BackupRequest request;
  request.database = database;
  request.covers_folder = covers;
  request.include_covers = include_covers;
  request.backup = backup;
  return request;
}

RestoreRequest Restore(const std::filesystem::path& backup, const std::filesystem::path& database) {
  RestoreRequest request;
  request.backup = backup;
  request.database = database;
  return request;
}

// Every regular file under a folder by relative path, with its bytes.
std::map<std::string, std::string> Snapshot(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  if (!std::filesystem::exists(folder)) return files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files[std::filesystem::relative(entry.path(), folder).string()] = ReadFile(entry.path());
    }
  }
  return files;
}

// A backup put together by hand, for files our writer never produces.
std::string Craft(const std::vector<std::pair<std::string, std::string>>& covers,
                  const std::string& end = "#END") {
  std::string bytes = std::string(kBackupHeader) + Dword(2) + "db";
  for (const auto& [name, cover] : covers) {
    bytes += "\x05#FILE" + backup::EncodeArchiveString(name) + Dword(cover.size()) + cover;
  }
  return bytes + backup::EncodeArchiveString(end) + Metadata("a.dab");
}

AlbumRecord Album(int n) {
  AlbumRecord album;
  album.properties.Set(field::kTitle, fmt::format("Album {}", n));
  album.artists = {fmt::format("Artist {}", n % 7)};
  VolumeRecord volume;
  volume.record_id = 0x10000000u + static_cast<uint32_t>(n);
  volume.tracks = {{1, 75 * 200, {}}, {2, 75 * 180, {}}};
  album.volumes = {volume};
  return album;
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
    const std::string encoded = backup::EncodeArchiveString(text);
    ASSERT_EQ(encoded.size(), c.prefix.size() + c.length);
    EXPECT_EQ(encoded.substr(0, c.prefix.size()), c.prefix);

    backup::SpanSource source(encoded);
    backup::ArchiveReader reader(source);
    std::string decoded;
    ASSERT_TRUE(reader.ReadString(&decoded, 100000)) << reader.error();
    EXPECT_EQ(decoded, text);
    EXPECT_EQ(reader.remaining(), 0u);
  }
}

TEST(BackupArchive, WriterBuffersAndKeepsOrder) {
  backup::StringSink sink;
  backup::ArchiveWriter writer(sink, 16);  // tiny buffer: forces flushes and direct writes
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
    backup::SpanSource source(c.bytes);
    backup::ArchiveReader reader(source);
    std::string text;
    EXPECT_FALSE(reader.ReadString(&text, 1024));
    EXPECT_EQ(reader.error(), c.error);
  }

  const std::string embedded = Dword(10) + "short";
  backup::SpanSource source(embedded);
  backup::ArchiveReader reader(source);
  uint64_t offset = 0;
  uint32_t size = 0;
  EXPECT_FALSE(reader.SkipEmbedded(&offset, &size));
  EXPECT_EQ(reader.error(), "embedded file of 10 bytes runs past the end at offset 4");
}

TEST(BackupWrite, ExactBytesWithoutCoversAndWithEmptyFolder) {
  TempDir dir;
  const std::string db_bytes = "SQLite format 3" + std::string(1, '\0') + "catalogue";
  WriteFile(dir / "Music.dab", db_bytes);
  std::filesystem::create_directory(dir / "covers");
  WriteFile(dir / "covers" / "ignored.jpg", "left out without the flag");

  std::filesystem::create_directory(dir / "empty");
  const std::string head = std::string(kBackupHeader) + Dword(25) + db_bytes;
  // A missing covers folder counts as an empty one.
  for (const auto& [covers, include, end] :
       {std::tuple{"covers", false, "\x05#INCR"}, std::tuple{"empty", true, "\x04#END"},
        std::tuple{"missing", true, "\x04#END"}}) {
    const auto backup = dir / (std::string(covers) + ".dhb");
    ASSERT_EQ(WriteBackupFile(Request(dir / "Music.dab", backup, dir / covers, include)), kOk);
    EXPECT_EQ(ReadFile(backup), head + end + Metadata("Music.dab")) << covers;
  }
}

TEST(BackupWrite, CoversAreJpgFilesOfAnyCaseSortedByName) {
  TempDir dir;
  WriteFile(dir / "a.dab", "db");
  WriteFile(dir / "c" / "b.JPG", "BB");
  WriteFile(dir / "c" / "a.jpg", "A");
  WriteFile(dir / "c" / "c.png", "not a jpeg name");
  WriteFile(dir / "c" / "jpg", "no extension");
  std::filesystem::create_directories(dir / "c" / "folder.jpg");
  std::filesystem::create_symlink(dir / "c" / "a.jpg", dir / "c" / "link.jpg");
  WriteFile(dir / "c" / "huge.jpg", "");
  std::filesystem::resize_file(dir / "c" / "huge.jpg", 1ull << 32);  // sparse, too big to embed

  BackupRequest request = Request(dir / "a.dab", dir / "b.dhb", dir / "c", true);
  BackupSummary summary;
  ASSERT_EQ(WriteBackupFile(request, nullptr, &summary), kOk);
  EXPECT_EQ(ReadFile(request.backup),
            std::string(kBackupHeader) + Dword(2) + "db" + "\x05#FILE\x05" + "a.jpg" + Dword(1) +
                "A" + "\x05#FILE\x05" + "b.JPG" + Dword(2) + "BB" + "\x05#FILE\x08" + "link.jpg" +
                Dword(1) + "A" + "\x04#END" + Metadata("a.dab"));
  EXPECT_EQ(summary.covers, 3u);
  EXPECT_EQ(summary.cover_bytes, 4u);
  EXPECT_EQ(summary.backup_bytes, ReadFile(request.backup).size());
}

TEST(BackupWrite, RefusalsLeaveNothingBehind) {
  TempDir dir;
  WriteFile(dir / "a.dab", "database");
  WriteFile(dir / "taken.dhb", "someone's file");
  WriteFile(dir / "huge.dab", "");
  std::filesystem::resize_file(dir / "huge.dab", 1ull << 32);

  struct Case {
    const char* what;
    BackupRequest request;
    HResult code;
    std::string message;
  };
  const Case cases[] = {
      {"empty database path", Request({}, dir / "x.dhb"), kInvalidArgument,
       "no database file given"},
      {"existing backup", Request(dir / "a.dab", dir / "taken.dhb"), kErrorFileExists,
       (dir / "taken.dhb").string() + " already exists"},
      {"missing database", Request(dir / "none.dab", dir / "x.dhb"), HResult{0x80070002},
       "cannot read " + (dir / "none.dab").string() + ": "},
      {"database over 4 GiB", Request(dir / "huge.dab", dir / "x.dhb"), kInvalidArgument,
       (dir / "huge.dab").string() + " is 4294967296 bytes; a backup file holds at most 4 GiB - 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string message;
    EXPECT_EQ(WriteBackupFile(c.request, &message), c.code);
    EXPECT_EQ(message.substr(0, c.message.size()), c.message);
    EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  }
  EXPECT_EQ(ReadFile(dir / "taken.dhb"), "someone's file");

  // Another process writing (holding the lock) stops a backup by path.
  platform::FileLock writer;
  ASSERT_EQ(writer.TryLock(CatalogLockPath(dir / "a.dab")), 0);
  std::string message;
  EXPECT_EQ(WriteBackupFile(Request(dir / "a.dab", dir / "x.dhb"), &message), kCatalogLocked);
  EXPECT_EQ(message, "another program is writing to " + (dir / "a.dab").string());
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  writer.Release();

  // A write-ahead log with content means the file alone is not the database.
  WriteFile(dir / "a.dab-wal", "pending");
  EXPECT_EQ(WriteBackupFile(Request(dir / "a.dab", dir / "x.dhb"), &message), kFail);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  std::filesystem::remove(dir / "a.dab-wal");

  // Cancelling from the progress callback removes the partial file.
  BackupRequest cancelled = Request(dir / "a.dab", dir / "x.dhb");
  cancelled.progress = [](uint64_t, uint64_t) { return false; };
  EXPECT_EQ(WriteBackupFile(cancelled, &message), kAborted);
  EXPECT_EQ(message, "backup cancelled");
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
}

TEST(BackupInfo, HeaderAndMetadata) {
  TempDir dir;
  WriteFile(dir / "My Music.dab", "db");
  ASSERT_EQ(WriteBackupFile(Request(dir / "My Music.dab", dir / "ok.dhb")), kOk);
  const std::string good = ReadFile(dir / "ok.dhb");

  struct Case {
    const char* what;
    std::string bytes;
    bool valid;
    bool metadata;
  };
  const std::string header(kBackupHeader);
  const Case cases[] = {
      {"backup", good, true, true},
      {"23 bytes", header.substr(0, 23), false, false},
      {"header only", header, true, false},
      {"header in other case", "DiscHive 6.0 backup File" + good.substr(24), false, false},
      {"cut inside metadata", good.substr(0, good.size() - 3), false, false},
      // Metadata far from the end is not looked for.
      {"padded", good + std::string(9000, 'x'), true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(dir / "case.dhb", c.bytes);
    BackupMetadata metadata;
    metadata.database_name = "untouched";
    bool found = true;
    EXPECT_EQ(ReadBackupInfo(dir / "case.dhb", &metadata, &found), c.valid);
    EXPECT_EQ(found, c.metadata);
    if (c.metadata) {
      EXPECT_EQ(metadata.version, 256u);
      EXPECT_EQ(metadata.database_name, "My Music.dab");
    } else {
      EXPECT_EQ(metadata.database_name, "untouched");
    }
    const bool header_matches = c.bytes.size() >= 24 && c.bytes.substr(0, 24) == header;
    EXPECT_EQ(ReadBackupInfo(dir / "case.dhb"), header_matches);
  }
  EXPECT_FALSE(ReadBackupInfo(dir / "missing.dhb"));
}

TEST(BackupRestore, RefusesCutBackupsWithNothingWritten) {
  TempDir dir;
  WriteFile(dir / "src" / "a.dab", std::string(3000, 'd'));
  for (int i = 0; i < 20; ++i) {
    WriteFile(dir / "src" / "a_covers" / fmt::format("{:03}.jpg", i), std::string(97 + i, 'c'));
  }
  BackupRequest request =
      Request(dir / "src" / "a.dab", dir / "full.dhb", dir / "src" / "a_covers", true);
  ASSERT_EQ(WriteBackupFile(request), kOk);
  const std::string full = ReadFile(dir / "full.dhb");

  std::filesystem::create_directory(dir / "target");
  for (int cut = 0; cut < 100; ++cut) {
    SCOPED_TRACE(cut);
    WriteFile(dir / "cut.dhb", full.substr(0, full.size() * cut / 100));
    std::string message;
    EXPECT_NE(RestoreBackupFile(Restore(dir / "cut.dhb", dir / "target" / "a.dab"), &message), kOk);
    EXPECT_NE(message.find("cut.dhb is "), std::string::npos) << message;
    ASSERT_TRUE(std::filesystem::is_empty(dir / "target"));
  }
  EXPECT_EQ(RestoreBackupFile(Restore(dir / "full.dhb", dir / "target" / "a.dab")), kOk);
  EXPECT_EQ(Snapshot(dir / "target"), Snapshot(dir / "src"));
}

TEST(BackupRestore, RefusesCorruptBackups) {
  TempDir dir;
  std::vector<std::pair<std::string, std::string>> cases = {
      {Craft({{"a.jpg", "x"}, {"a.jpg", "y"}}), "cover \"a.jpg\" appears twice at offset 59"},
      {Craft({}, "#MORE"), "unexpected \"#MORE\" after the database at offset 36"},
      {Craft({}) + "zz", "2 unexpected bytes after the metadata at offset 81"},
  };
  // Names that could leave the covers folder, or are no names at all.
  const std::pair<std::string, int> names[] = {{"../x.jpg", 45},   {"..", 39},
                                               {"/etc/x.jpg", 47}, {"a/x.jpg", 44},
                                               {"..\\x.jpg", 45},  {"", 37}};
  for (const auto& [name, offset] : names) {
    cases.emplace_back(
        Craft({{name, "x"}}),
        fmt::format("cover name \"{}\" is not a plain file name at offset {}", name, offset));
  }
  cases.emplace_back(Craft({{std::string("x\0.jpg", 6), "x"}}),
                     "cover name \"x\\x00.jpg\" is not a plain file name at offset 43");
  // Control characters, which would garble anything that lists the names.
  cases.emplace_back(Craft({{"x\n.jpg", "x"}}),
                     "cover name \"x\\x0A.jpg\" is not a plain file name at offset 43");
  cases.emplace_back(Craft({{"\x1b[2J.jpg", "x"}}),
                     "cover name \"\\x1B[2J.jpg\" is not a plain file name at offset 45");
  for (const auto& [bytes, reason] : cases) {
    WriteFile(dir / "bad.dhb", bytes);
    std::string message;
    EXPECT_EQ(RestoreBackupFile(Restore(dir / "bad.dhb", dir / "t" / "a.dab"), &message),
              kInvalidArgument);
    EXPECT_EQ(message, (dir / "bad.dhb").string() + " is damaged: " + reason);
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "t"));
  EXPECT_FALSE(std::filesystem::exists(dir / "x.jpg"));
}

TEST(BackupRestore, ReplacesOnlyWhenAskedAndKeepsThePrevious) {
  TempDir dir;
  WriteFile(dir / "bk" / "new.bin", Craft({{"one.jpg", "NEW"}}));
  WriteFile(dir / "a.dab", "old database");
  WriteFile(dir / "a.dab-wal", "old log");
  WriteFile(dir / "a_covers" / "one.jpg", "OLD");
  WriteFile(dir / "a_covers" / "other.jpg", "kept");

  RestoreRequest request = Restore(dir / "bk" / "new.bin", dir / "a.dab");
  std::string message;
  EXPECT_EQ(RestoreBackupFile(request, &message), kErrorFileExists);
  EXPECT_EQ(message, (dir / "a.dab").string() + " already exists; replace it explicitly");
  EXPECT_EQ(ReadFile(dir / "a.dab"), "old database");

  request.replace_existing = true;
  BackupSummary summary;
  ASSERT_EQ(RestoreBackupFile(request, &message, &summary), kOk) << message;
  EXPECT_EQ(summary.previous_database, dir / "a.dab.bak");
  EXPECT_EQ(summary.covers, 1u);
  const std::map<std::string, std::string> expected = {
      {"a.dab", "db"},
      {"a.dab.bak", "old database"},
      {"a.dab.bak-wal", "old log"},
      {"a.dab.lock", ""},
      {"a_covers/one.jpg", "NEW"},
      {"a_covers/other.jpg", "kept"},
      {"bk/new.bin", ReadFile(dir / "bk" / "new.bin")},
  };
  EXPECT_EQ(Snapshot(dir.path()), expected);

  // A folder in the way of a cover stops the restore before anything moves.
  std::filesystem::create_directories(dir / "blocked" / "one.jpg");
  request.covers_folder = dir / "blocked";
  EXPECT_EQ(RestoreBackupFile(request, &message), kErrorFileExists);
  EXPECT_EQ(message, (dir / "blocked" / "one.jpg").string() + " is a folder");
  std::filesystem::remove_all(dir / "blocked");
  EXPECT_EQ(Snapshot(dir.path()), expected);

  request.keep_previous = false;
  request.covers_folder = dir / "elsewhere";
  ASSERT_EQ(RestoreBackupFile(request, &message, &summary), kOk) << message;
  EXPECT_TRUE(summary.previous_database.empty());
  EXPECT_EQ(ReadFile(dir / "a.dab.bak"), "old database");  // the earlier one, untouched
  EXPECT_EQ(ReadFile(dir / "elsewhere" / "one.jpg"), "NEW");
}

TEST(BackupCatalog, RoundTripWithFiveHundredCovers) {
  TempDir dir;
  const std::filesystem::path db = dir / "src" / "Music.dab";
  std::unique_ptr<CatalogEngine> engine = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
  ASSERT_NE(engine, nullptr);
  // Written in the write-ahead log; only a checkpoint puts them into the file.
  for (int n = 0; n < 40; ++n) {
    AlbumRecord album = Album(n);
    ASSERT_EQ(engine->WriteAlbum(album, WriteMode::kReplace), kOk) << engine->LastErrorText();
    ASSERT_EQ(engine->WriteCover(album.volumes[0].record_id, std::string(300 + n, 'c')), kOk);
  }
  for (int n = 0; n < 500; ++n) {
    WriteFile(dir / "src" / "Music_covers" / fmt::format("{:08X}.{}", n, n % 5 ? "jpg" : "JPG"),
              fmt::format("cover {} ", n) + std::string(static_cast<size_t>(n % 97), 'j'));
  }
  WriteFile(dir / "src" / "Music_covers" / "notes.txt", "not a cover");

  // Another writer by path is refused while the engine holds the lock.
  const BackupRequest by_path = Request(db, dir / "by-path.dhb");
  std::string message;
  EXPECT_EQ(WriteBackupFile(by_path, &message), kCatalogLocked) << message;

  BackupRequest request = Request({}, dir / "Music.dhb", DefaultCoversFolder(db), true);
  request.catalog = engine.get();
  uint64_t last_done = 0, last_total = 0;
  request.progress = [&](uint64_t done, uint64_t total) {
    EXPECT_GE(done, last_done);
    last_done = done;
    last_total = total;
    return true;
  };
  BackupSummary written;
  ASSERT_EQ(WriteBackupFile(request, &message, &written), kOk) << message;
  EXPECT_EQ(written.covers, 500u);
  EXPECT_EQ(last_done, last_total);
  EXPECT_EQ(last_total, written.database_bytes + written.cover_bytes);
  const std::string db_at_backup = ReadFile(db);
  EXPECT_EQ(db_at_backup.size(), written.database_bytes);

  // Writing resumes after the copy.
  AlbumRecord later = Album(1000);
  EXPECT_EQ(engine->WriteAlbum(later, WriteMode::kReplace), kOk) << engine->LastErrorText();

  BackupMetadata metadata;
  ASSERT_TRUE(ReadBackupInfo(request.backup, &metadata));
  EXPECT_EQ(metadata.database_name, "Music.dab");

  RestoreRequest restore = Restore(request.backup, dir / "elsewhere" / "Restored.dab");
  BackupSummary restored;
  ASSERT_EQ(RestoreBackupFile(restore, &message, &restored), kOk) << message;
  EXPECT_EQ(restored.covers, 500u);
  EXPECT_EQ(ReadFile(restore.database), db_at_backup);
  std::map<std::string, std::string> covers = Snapshot(DefaultCoversFolder(db));
  covers.erase("notes.txt");
  EXPECT_EQ(Snapshot(dir / "elsewhere" / "Restored_covers"), covers);

  std::unique_ptr<CatalogEngine> copy =
      OpenSqliteCatalog(restore.database, CatalogOpenMode::kReadOnly);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->AlbumCount(), 40u);
  EXPECT_EQ(copy->ReadCover(0x10000000u + 39), std::string(339, 'c'));

  // Restoring over a database that is open for writing is refused untouched.
  restore.database = db;
  restore.replace_existing = true;
  EXPECT_EQ(RestoreBackupFile(restore, &message), kCatalogLocked);
  EXPECT_EQ(message, "another program is writing to " + db.string());
  EXPECT_EQ(engine->AlbumCount(), 41u);
  engine.reset();
  EXPECT_FALSE(std::filesystem::exists(dir / "src" / "Music.dab.bak"));

  // With the engine closed the database can be backed up by path alone.
  EXPECT_EQ(WriteBackupFile(by_path, &message), kOk) << message;
}

}  // namespace
}  // namespace dischive
