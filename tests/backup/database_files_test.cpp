#include "dischive/database_files.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/file_lock.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

TEST(DatabaseFilesTest, DefaultDatabaseFallsBackToTheSecondReading) {
  struct Case {
    std::optional<std::string> first;
    std::optional<std::string> second;
    bool with_alternative;
    std::string expected;
  };
  const Case cases[] = {
      {"/a/Main.dab", "/b/Other.dab", true, "/a/Main.dab"},
      {"", "/b/Other.dab", true, "/b/Other.dab"},
      {std::nullopt, "/b/Other.dab", true, "/b/Other.dab"},
      {"", "", true, ""},
      {std::nullopt, std::nullopt, true, ""},
      {"", "/b/Other.dab", false, ""},
  };
  for (const Case& c : cases) {
    MemorySettingsStore settings, alternative;
    if (c.first) settings.Write("Database", "DefaultDatabase", *c.first);
    if (c.second) alternative.Write("Database", "DefaultDatabase", *c.second);
    EXPECT_EQ(DefaultDatabase(settings, c.with_alternative ? &alternative : nullptr), c.expected)
        << c.first.value_or("(none)") << " / " << c.second.value_or("(none)");
  }
}

TEST(DatabaseFilesTest, IsDefaultDatabaseComparesNamesWithoutCase) {
  TempDir dir;
  WriteFile(dir / "Music" / "Main.dab", "x");
  std::filesystem::create_directory_symlink(dir / "Music", dir / "link");
  MemorySettingsStore settings, alternative;
  settings.Write("Database", "DefaultDatabase", (dir / "Music" / "Main.dab").string());
  const struct {
    std::filesystem::path path;
    bool expected;
  } cases[] = {
      {dir / "Music" / "Main.dab", true},
      {dir / "music" / "MAIN.DAB", true},
      {dir / "Music" / "." / "x" / ".." / "Main.dab", true},
      {dir / "link" / "Main.dab", true},
      {dir / "Music" / "Other.dab", false},
      {"", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsDefaultDatabase(c.path, settings, &alternative), c.expected) << c.path;
  }
}

TEST(DatabaseFilesTest, ProcessWideDefaultReadsTheSystemScopeSecond) {
  TempDir dir;
  WriteFile(dir / "etc" / "dischive" / "dischive.ini",
            "[Database]\nDefaultDatabase=/srv/Shared.dab\n");
  const char* old = std::getenv("XDG_CONFIG_DIRS");
  const std::string saved = old != nullptr ? old : "";
  setenv("XDG_CONFIG_DIRS", (dir / "etc").c_str(), 1);
  auto settings = std::make_shared<MemorySettingsStore>();
  settings->Write("Database", "DefaultDatabase", "");
  SetGlobalSettings(settings);
  EXPECT_EQ(DefaultDatabase(), "/srv/Shared.dab");
  EXPECT_TRUE(IsDefaultDatabase("/srv/shared.dab"));
  settings->Write("Database", "DefaultDatabase", "/home/me/Mine.dab");
  EXPECT_EQ(DefaultDatabase(), "/home/me/Mine.dab");
  EXPECT_FALSE(IsDefaultDatabase("/srv/Shared.dab"));
  SetGlobalSettings(nullptr);
  if (old != nullptr) {
    setenv("XDG_CONFIG_DIRS", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CONFIG_DIRS");
  }
}

TEST(DatabaseFilesTest, SampleDatabaseIsRecognisedByItsResolvedPath) {
  TempDir dir;
  const auto app = dir / "app";
  WriteFile(app / "Sample Database.dab", "x");
  WriteFile(app / "Other.dab", "x");
  std::filesystem::create_directory_symlink(app, dir / "shortcut");
  std::filesystem::create_symlink(app / "Sample Database.dab", dir / "s.dab");
  const std::vector<std::filesystem::path> folders = {dir / "elsewhere", app};
  const struct {
    std::filesystem::path path;
    bool expected;
  } cases[] = {
      {app / "Sample Database.dab", true},
      {dir / "shortcut" / "Sample Database.dab", true},
      {dir / "s.dab", true},
      {app / "." / ".." / "app" / "Sample Database.dab", true},
      {app / "Other.dab", false},
      {dir / "elsewhere" / "Sample Database.dab", false},  // missing: cannot be resolved
      {"", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(IsSampleDatabase(c.path, folders), c.expected) << c.path;

  // The program's own folder is always searched; a data folder can be configured.
  MemorySettingsStore settings;
  settings.Write("Database", "DataFolder", app.string());
  const auto search = ApplicationFolders(settings);
  ASSERT_EQ(search.size(), 2u);
  EXPECT_EQ(search[0], platform::ExecutableFolder());
  EXPECT_TRUE(std::filesystem::exists(search[0] / "dischive_tests"));
  auto global = std::make_shared<MemorySettingsStore>();
  SetGlobalSettings(global);
  EXPECT_FALSE(IsSampleDatabase(app / "Sample Database.dab"));
  global->Write("Database", "DataFolder", app.string());
  EXPECT_TRUE(IsSampleDatabase(app / "Sample Database.dab"));
  SetGlobalSettings(nullptr);
}

TEST(DatabaseFilesTest, DefaultUserListsHoldTheirExactEntries) {
  const struct {
    const char* key;
    size_t count;
    std::vector<std::string> some;  // first entries, in order
  } cases[] = {
      {"user_conditions", 5, {"Acceptable", "Good", "Excellent", "Mint", "Sealed"}},
      {"user_packagings", 7, {"CD case", "Slim CD case", "Super CD case"}},
      {"user_spars", 4, {"AAA", "AAD", "ADD", "DDD"}},
      {"user_rqual", 3, {"Excellent", "Good", "Listenable"}},
      {"user_rgen", 6, {"1st Gen", "2nd Gen", "3rd Gen", "4th Gen", ">4th Gen", "Unknown"}},
      {"user_rsrc", 8, {"AM Radio", "Audience", "Bootleg", "FM Radio", "Internet Radio"}},
      {"user_stati", 8, {"Borrowed", "Heard", "Loaned", "Lost", "Ordered", "Owned", "Sold"}},
      {"user_locations", 3, {"Car", "Home", "Work"}},
      {"user_categories", 11, {"blues", "classical", "country", "data", "folk", "jazz", "misc"}},
      {"user_formats", 23, {"CD", "3\" CD", "5\" CD", "CD box set", "2CD", "CDR", "DVD"}},
      {"user_genres", 149, {"A Cappella", "Acid", "Acid Jazz", "Acid Punk", "Acoustic"}},
  };
  EXPECT_EQ(DefaultUserListKeys().size(), std::size(cases));
  for (const auto& c : cases) {
    const std::vector<std::string> entries = DefaultUserListEntries(c.key);
    ASSERT_EQ(entries.size(), c.count) << c.key;
    EXPECT_TRUE(std::equal(c.some.begin(), c.some.end(), entries.begin())) << c.key;
    EXPECT_EQ(SplitUserList(DefaultUserList(c.key)), entries) << c.key;
  }
  const std::vector<std::string> formats = DefaultUserListEntries("user_formats");
  EXPECT_EQ(std::vector<std::string>(formats.begin() + 15, formats.begin() + 18),
            (std::vector<std::string>{"7\" vinyl", "10\" vinyl", "12\" vinyl"}));
  EXPECT_EQ(formats.back(), "LD");
  const std::vector<std::string> genres = DefaultUserListEntries("user_genres");
  EXPECT_EQ(genres[87], "Musical ");
  EXPECT_EQ(genres[90], "Negerpunk");
  EXPECT_EQ(genres[107], "Psychedelic");
  EXPECT_EQ(genres.back(), "Vocal");
  EXPECT_TRUE(DefaultUserListEntries("user_nothing").empty());
  EXPECT_EQ(DefaultUserList("user_nothing"), "");
}

TEST(DatabaseFilesTest, SplitUserListDropsEmptyPieces) {
  const struct {
    const char* text;
    std::vector<std::string> expected;
  } cases[] = {
      {"", {}},
      {"\n\n", {}},
      {"a", {"a"}},
      {"a\nb\n", {"a", "b"}},
      {"a\r\n\nb", {"a", "b"}},
      {" a \n", {" a "}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(SplitUserList(c.text), c.expected) << c.text;
}

}  // namespace
}  // namespace dischive::test
