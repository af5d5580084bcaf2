#include "dischive/database_files.h"

#include <system_error>

#include "dischive/text.h"
#include "platform/file_lock.h"
#include "util/xdg.h"

namespace dischive {
namespace {

struct DefaultList {
  const char* key;
  std::vector<const char*> entries;
};

// The lists a database uses while it holds none of its own. The entries are
// kept exactly as users have always seen them, including the inch signs of the
// formats and the trailing blank of "Musical ".
const std::vector<DefaultList>& DefaultLists() {
  static const std::vector<DefaultList> lists = {
      {"user_conditions", {"Acceptable", "Good", "Excellent", "Mint", "Sealed"}},
      {"user_packagings",
       {"CD case", "Slim CD case", "Super CD case", "Double CD case", "DVD case", "Digipak",
        "Sleeve"}},
      {"user_spars", {"AAA", "AAD", "ADD", "DDD"}},
      {"user_rqual", {"Excellent", "Good", "Listenable"}},
      {"user_rgen", {"1st Gen", "2nd Gen", "3rd Gen", "4th Gen", ">4th Gen", "Unknown"}},
      {"user_rsrc",
       {"AM Radio", "Audience", "Bootleg", "FM Radio", "Internet Radio", "Official", "Soundtrack",
        "TV"}},
      {"user_stati", {"Borrowed", "Heard", "Loaned", "Lost", "Ordered", "Owned", "Sold", "Want"}},
      {"user_locations", {"Car", "Home", "Work"}},
      {"user_categories",
       {"blues", "classical", "country", "data", "folk", "jazz", "misc", "newage", "reggae", "rock",
        "soundtrack"}},
      {"user_formats", {"CD",  "3\" CD",     "5\" CD", "CD box set", "2CD",        "CDR",
                        "DVD", "MP3",        "FLAC",   "SHN",        "OGG",        "WAV",
                        "LP",  "LP box set", "EP",     "7\" vinyl",  "10\" vinyl", "12\" vinyl",
                        "MD",  "CA",         "Tape",   "VHS",        "LD"}},
      {"user_genres",
       {"A Cappella",
        "Acid",
        "Acid Jazz",
        "Acid Punk",
        "Acoustic",
        "Alt.Rock",
        "Alternative",
        "Ambient",
        "Anime",
        "Avantgarde",
        "Ballad",
        "Bass",
        "Beat",
        "Bebob",
        "Big Band",
        "Black Metal",
        "Bluegrass",
        "Blues",
        "Booty Bass",
        "BritPop",
        "Cabaret",
        "Celtic",
        "Chamber Music",
        "Chanson",
        "Chorus",
        "Christian Gangsta Rap",
        "Christian Rap",
        "Christian Rock",
        "Classic Rock",
        "Classical",
        "Club",
        "Club-House",
        "Comedy",
        "Contemporary Christian",
        "Country",
        "Crossover",
        "Cult",
        "Dance",
        "Dance Hall",
        "Darkwave",
        "Data",
        "Death Metal",
        "Disco",
        "Dream",
        "Drum & Bass",
        "Drum Solo",
        "Duet",
        "Easy Listening",
        "Electronic",
        "Ethnic",
        "Eurodance",
        "Euro-House",
        "Euro-Techno",
        "Fast-Fusion",
        "Folk",
        "Folk/Rock",
        "Folklore",
        "Freestyle",
        "Funk",
        "Fusion",
        "Game",
        "Gangsta Rap",
        "Goa",
        "Gospel",
        "Gothic",
        "Gothic Rock",
        "Grunge",
        "Hard Rock",
        "Hardcore",
        "Heavy Metal",
        "Hip-Hop",
        "House",
        "Humour",
        "Indie",
        "Industrial",
        "Instrumental",
        "Instrumental Pop",
        "Instrumental Rock",
        "Jazz",
        "Jazz+Funk",
        "JPop",
        "Jungle",
        "Latin",
        "Lo-Fi",
        "Meditative",
        "Merengue",
        "Metal",
        "Musical ",
        "National Folk",
        "Native American",
        "Negerpunk",
        "New Age",
        "New Wave",
        "Noise",
        "Oldies",
        "Opera",
        "Other",
        "Polka",
        "Polsk Punk",
        "Pop",
        "Pop/Funk",
        "Pop-Folk",
        "Porn Groove",
        "Power Ballad",
        "Pranks",
        "Primus",
        "Progressive Rock",
        "Psychedelic",
        "Psychedelic Rock",
        "Punk",
        "Punk Rock",
        "R&B",
        "Rap",
        "Rave",
        "Reggae",
        "Retro",
        "Revival",
        "Rhythmic Soul",
        "Rock",
        "Rock & Roll",
        "Salsa",
        "Samba",
        "Satire",
        "Showtunes",
        "Ska",
        "Slow Jam",
        "Slow Rock",
        "Sonata",
        "Soul",
        "Sound Clip",
        "Soundtrack",
        "Southern Rock",
        "Space",
        "Speech",
        "Swing",
        "Symphonic Rock",
        "Symphony",
        "Synthpop",
        "Tango",
        "Techno",
        "Techno-Industrial",
        "Terror",
        "Thrash Metal",
        "Top 40",
        "Trailer",
        "Trance",
        "Tribal",
        "Trip-Hop",
        "Vocal"}},
  };
  return lists;
}

// Removes "." and ".." parts and a trailing separator without touching the disk.
std::string NormalPath(const std::filesystem::path& path) {
  std::filesystem::path p = path.lexically_normal();
  if (!p.has_filename() && p.has_parent_path() && p != p.root_path()) p = p.parent_path();
  return p.string();
}

// The system-wide settings file alone: the "alternative scope" that answers
// the second reading of the default database.
class SystemScope : public MemorySettingsStore {
 public:
  SystemScope() : store_({}, SystemSettingsPath()) {}
  std::optional<std::string> Read(std::string_view group, std::string_view key) const override {
    return store_.ReadSystem(group, key);
  }

 private:
  IniSettingsStore store_;
};

}  // namespace

std::string DefaultDatabase(const SettingsStore& settings, const SettingsStore* alternative) {
  std::string value = settings.GetString(kDefaultDatabaseGroup, kDefaultDatabaseKey, "");
  if (value.empty() && alternative != nullptr) {
    value = alternative->GetString(kDefaultDatabaseGroup, kDefaultDatabaseKey, "");
  }
  return value;
}

std::string DefaultDatabase() {
  const SystemScope alternative;
  return DefaultDatabase(*GlobalSettings(), &alternative);
}

std::filesystem::path DefaultDatabasePath(const SettingsStore* settings) {
  const std::string configured =
      settings != nullptr ? DefaultDatabase(*settings, nullptr) : std::string();
  if (!configured.empty()) return configured;
  const std::string system = DefaultDatabase();
  if (!system.empty()) return system;
  return UserFolder(XdgHome::kData) / (std::string("Catalogue") + kDatabaseExtension);
}

bool IsDefaultDatabase(const std::filesystem::path& path, const SettingsStore& settings,
                       const SettingsStore* alternative) {
  const std::string configured = DefaultDatabase(settings, alternative);
  if (configured.empty() || path.empty()) return false;
  if (EqualsIgnoreCase(NormalPath(configured), NormalPath(path))) return true;
  std::error_code ec1, ec2;
  const auto a = std::filesystem::canonical(configured, ec1);
  const auto b = std::filesystem::canonical(path, ec2);
  return !ec1 && !ec2 && EqualsIgnoreCase(a.string(), b.string());
}

bool IsDefaultDatabase(const std::filesystem::path& path) {
  const SystemScope alternative;
  return IsDefaultDatabase(path, *GlobalSettings(), &alternative);
}

std::vector<std::filesystem::path> ApplicationFolders(const SettingsStore& settings) {
  std::vector<std::filesystem::path> folders;
  if (std::filesystem::path exe = platform::ExecutableFolder(); !exe.empty()) {
    folders.push_back(std::move(exe));
  }
  const std::string data = settings.GetString(kDefaultDatabaseGroup, kDataFolderKey, "");
  if (!data.empty()) folders.emplace_back(data);
  return folders;
}

bool IsSampleDatabase(const std::filesystem::path& path,
                      const std::vector<std::filesystem::path>& folders) {
  std::error_code ec;
  const std::filesystem::path resolved = std::filesystem::canonical(path, ec);
  if (ec) return false;
  for (const std::filesystem::path& folder : folders) {
    const std::filesystem::path base = std::filesystem::canonical(folder, ec);
    if (ec) continue;
    if (EqualsIgnoreCase(resolved.string(), (base / kSampleDatabaseName).string())) return true;
  }
  return false;
}

bool IsSampleDatabase(const std::filesystem::path& path) {
  return IsSampleDatabase(path, ApplicationFolders(*GlobalSettings()));
}

std::vector<std::string> DefaultUserListKeys() {
  std::vector<std::string> keys;
  for (const DefaultList& list : DefaultLists())
    keys.emplace_back(list.key);
  return keys;
}

std::vector<std::string> DefaultUserListEntries(std::string_view key) {
  for (const DefaultList& list : DefaultLists()) {
    if (key == list.key) return {list.entries.begin(), list.entries.end()};
  }
  return {};
}

std::string DefaultUserList(std::string_view key) {
  std::string text;
  for (const std::string& entry : DefaultUserListEntries(key)) {
    if (!text.empty()) text += '\n';
    text += entry;
  }
  return text;
}

std::vector<std::string> SplitUserList(std::string_view text) {
  std::vector<std::string> entries;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view piece = text.substr(start, end - start);
    if (!piece.empty() && piece.back() == '\r') piece.remove_suffix(1);
    if (!piece.empty()) entries.emplace_back(piece);
    start = end + 1;
  }
  return entries;
}

}  // namespace dischive
