// The built-in user lists: the values a catalogue offers in its editable
// lists (formats, genres, ...) while it holds none of its own.
#include "dischive/user_lists.h"

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

}  // namespace

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
