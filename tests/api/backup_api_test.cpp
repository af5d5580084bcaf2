// The backup exports, called through the shared library as a host would.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "dhvapi.h"
#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

TEST(BackupApi, WriteAndReadBackThroughTheExports) {
  void* library = ::dlopen(DHVAPI_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();
  const auto write =
      reinterpret_cast<decltype(&::WriteBackupFile)>(::dlsym(library, "WriteBackupFile"));
  const auto read =
      reinterpret_cast<decltype(&::ReadBackupInfo)>(::dlsym(library, "ReadBackupInfo"));
  ASSERT_NE(write, nullptr);
  ASSERT_NE(read, nullptr);

  TempDir dir;
  WriteFile(dir / "Music.dab", "database bytes");
  WriteFile(dir / "covers" / "a.jpg", "jpeg");
  const std::string db = (dir / "Music.dab").string();
  const std::string covers = (dir / "covers").string() + "/";
  const std::string out = (dir / "out.dhb").string();

  EXPECT_EQ(write("", covers.c_str(), out.c_str(), 1), 0);
  EXPECT_EQ(write(nullptr, covers.c_str(), out.c_str(), 1), 0);
  EXPECT_FALSE(std::filesystem::exists(out));
  ASSERT_EQ(write(db.c_str(), covers.c_str(), out.c_str(), 1), 1);
  EXPECT_NE(ReadFile(out).find("\x05#FILE\x05"
                               "a.jpg"),
            std::string::npos);
  EXPECT_EQ(write(db.c_str(), covers.c_str(), out.c_str(), 1), 0);  // never overwrites

  DHV_BACKUP_INFO info;
  std::memset(&info, 0, sizeof(info));
  EXPECT_EQ(read(out.c_str(), nullptr), 1);
  ASSERT_EQ(read(out.c_str(), &info), 1);
  EXPECT_EQ(info.version, 256u);
  EXPECT_STREQ(info.database_name, "Music.dab");
  EXPECT_STREQ(info.reserved_texts[5], "");

  std::memset(&info, 0, sizeof(info));
  EXPECT_EQ(read(db.c_str(), &info), 0);
  EXPECT_EQ(info.version, 0u);

  // A real catalogue: refused while a writer has it open, then backed up.
  const std::string catalogue = (dir / "Real.dab").string();
  const std::string second = (dir / "real.dhb").string();
  std::unique_ptr<CatalogEngine> writer = OpenSqliteCatalog(catalogue, CatalogOpenMode::kCreate);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->SetDatabaseProperty("db_opts", "k", "v"), kOk);
  EXPECT_EQ(write(catalogue.c_str(), nullptr, second.c_str(), 0), 0);
  EXPECT_FALSE(std::filesystem::exists(second));
  writer.reset();
  EXPECT_EQ(write(catalogue.c_str(), nullptr, second.c_str(), 0), 1);
  EXPECT_NE(ReadFile(second).find("\x05#INCR\x05#META"), std::string::npos);
  ::dlclose(library);
}

}  // namespace
}  // namespace dischive
