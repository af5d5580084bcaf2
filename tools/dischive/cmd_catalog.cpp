// dischive catalog create|info|albums|show|lists: the catalogue file.
#include <fmt/format.h>

#include <iostream>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/database_files.h"
#include "dischive/date.h"
#include "dischive/field_names.h"
#include "dischive/sqlite_catalog.h"
#include "util/frame_time.h"
#include "util/parse.h"

namespace dischive::cli {
namespace {

// A value as a person reads it: dates as "YYYY-MM-DD", money with cents.
std::string ShowValue(field::FieldId id, const PropertyValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  const int32_t number = std::get<int32_t>(value);
  const auto u = static_cast<uint32_t>(number);
  const FieldName* f = FindFieldName(id);
  switch (f != nullptr ? f->kind : FieldKind::kNumber) {
    case FieldKind::kDate:
      return u == 0 ? std::string() : FormatDate(u);
    case FieldKind::kMoney:
      return fmt::format("{}.{:02}", u / 100, u % 100);
    case FieldKind::kHex:
      return fmt::format("{:08X}", u);
    default:
      return std::to_string(number);
  }
}

Json PropertiesJson(const PropertySet& properties) {
  Json out = Json::object();
  for (const auto& [id, value] : properties.values()) {
    if (const auto* text = std::get_if<std::string>(&value)) {
      out[FieldLabel(id)] = *text;
    } else {
      out[FieldLabel(id)] = std::get<int32_t>(value);
    }
  }
  return out;
}

// "m:ss", or "h:mm:ss" from an hour on, for a length in CD frames.
std::string Duration(uint32_t frames) {
  if (frames == kUnknownFrames) return "?";
  return FrameTime(frames, TimeStyle::kHours).str();
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& n : names)
    out += (out.empty() ? "" : "; ") + n;
  return out;
}

size_t TrackCount(const AlbumRecord& album) {
  size_t n = 0;
  for (const VolumeRecord& v : album.volumes)
    n += v.tracks.size();
  return n;
}

const char* const kCreditListNames[kCreditListCount] = {"Musicians", "GuestMusicians", "Production",
                                                        "Credits", "ArtworkCredits"};

Json AlbumJson(const AlbumRecord& album) {
  Json out{{"id", album.id},
           {"modified", album.modified},
           {"properties", PropertiesJson(album.properties)},
           {"artists", album.artists},
           {"various_artists", album.various_artists},
           {"composers", album.composers},
           {"various_composers", album.various_composers}};
  for (int c = 0; c < kCreditListCount; ++c) {
    Json list = Json::array();
    for (const Credit& credit : album.credits[c]) {
      list.push_back({{"name", credit.name}, {"role", credit.role}});
    }
    out[kCreditListNames[c]] = list;
  }
  Json lineup = Json::array();
  for (const LineupMember& m : album.lineup) {
    lineup.push_back({{"name", m.name}, {"role", m.role}, {"period", m.period}});
  }
  out["lineup"] = lineup;
  Json volumes = Json::array();
  for (const VolumeRecord& v : album.volumes) {
    Json tracks = Json::array();
    for (const TrackRecord& t : v.tracks) {
      tracks.push_back({{"number", t.number},
                        {"frames", t.frames},
                        {"properties", PropertiesJson(t.properties)}});
    }
    volumes.push_back({{"id", fmt::format("{:08X}", v.record_id)},
                       {"title", v.title},
                       {"frames", v.frames},
                       {"created", v.created},
                       {"played", v.played},
                       {"properties", PropertiesJson(v.properties)},
                       {"tracks", tracks}});
  }
  out["volumes"] = volumes;
  return out;
}

void PrintProperties(const PropertySet& properties, const char* indent, field::FieldId skip = 0) {
  for (const auto& [id, value] : properties.values()) {
    if (id == skip) continue;
    std::cout << indent << FieldLabel(id) << ": " << ShowValue(id, value) << '\n';
  }
}

void PrintAlbum(const AlbumRecord& album) {
  std::cout << "Album " << album.id << '\n';
  std::cout << "  Title: " << album.properties.Text(field::kTitle) << '\n';
  if (!album.artists.empty() || album.various_artists) {
    std::cout << "  Artists: " << JoinNames(album.artists)
              << (album.various_artists ? " (various)" : "") << '\n';
  }
  if (!album.composers.empty() || album.various_composers) {
    std::cout << "  Composers: " << JoinNames(album.composers)
              << (album.various_composers ? " (various)" : "") << '\n';
  }
  PrintProperties(album.properties, "  ", field::kTitle);
  for (int c = 0; c < kCreditListCount; ++c) {
    for (const Credit& credit : album.credits[c]) {
      std::cout << "  " << kCreditListNames[c] << ": " << credit.name
                << (credit.role.empty() ? "" : " (" + credit.role + ")") << '\n';
    }
  }
  for (const LineupMember& m : album.lineup) {
    std::cout << "  Lineup: " << m.name << (m.role.empty() ? "" : " (" + m.role + ")")
              << (m.period.empty() ? "" : " " + m.period) << '\n';
  }
  for (const VolumeRecord& v : album.volumes) {
    std::cout << fmt::format("  Volume {:08X}{}  {}  {} tracks\n", v.record_id,
                             v.title.empty() ? "" : " \"" + v.title + "\"", Duration(v.frames),
                             v.tracks.size());
    PrintProperties(v.properties, "    ");
    for (const TrackRecord& t : v.tracks) {
      std::cout << fmt::format("    {:02}  {:>7}  {}\n", t.number, Duration(t.frames),
                               t.properties.Text(field::kTrackTitle));
      PrintProperties(t.properties, "          ", field::kTrackTitle);
    }
  }
}

// The keys "catalog lists" shows: the ten lists of the collection, then SPARS.
std::vector<std::string> ListKeys() {
  std::vector<std::string> keys(std::begin(kUserListKeys), std::end(kUserListKeys));
  keys.emplace_back("user_spars");
  return keys;
}

void Setup(CLI::App& app, Context& context) {
  CLI::App* catalog = app.add_subcommand("catalog", "Create and inspect a catalogue file");
  catalog->require_subcommand(1);

  static std::string db_path, album_id, list_key;
  static size_t limit = 0;

  CLI::App* create = catalog->add_subcommand("create", "Create an empty catalogue");
  AddDatabaseOption(create, db_path);
  create->callback([&context] {
    context.action = [&context] {
      const std::filesystem::path path = db_path.empty()
                                             ? DefaultDatabasePath(context.settings.get())
                                             : std::filesystem::path(db_path);
      std::error_code ec;
      if (std::filesystem::exists(path, ec)) {
        throw CommandError(kExitFailure, path.string() + " already exists");
      }
      HResult error = kOk;
      std::string message;
      if (!OpenSqliteCatalog(path, CatalogOpenMode::kCreate, &error, &message)) {
        throw CommandError(kExitFailure, message);
      }
      if (context.json) {
        PrintJson(Json{{"path", path.string()}, {"created", true}});
      } else {
        std::cout << "Created " << path.string() << '\n';
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* info = catalog->add_subcommand("info", "Show a catalogue's size and contents");
  AddDatabaseOption(info, db_path);
  info->callback([&context] {
    context.action = [&context] {
      auto engine = OpenCliCatalog(context, db_path, false);
      const CatalogCounts counts = engine->Counts();
      std::error_code ec;
      const uintmax_t size = std::filesystem::file_size(engine->path(), ec);
      const bool is_default = IsDefaultDatabase(engine->path());
      const bool is_sample = IsSampleDatabase(engine->path());
      const bool in_use = CatalogBeingWritten(engine->path());
      if (context.json) {
        PrintJson(Json{{"path", engine->path().string()},
                       {"bytes", ec ? 0 : size},
                       {"albums", counts.albums},
                       {"volumes", counts.volumes},
                       {"tracks", counts.tracks},
                       {"covers", counts.covers},
                       {"artists", counts.artists},
                       {"artists_modified", engine->ArtistsModified()},
                       {"default", is_default},
                       {"sample", is_sample},
                       {"being_written", in_use}});
      } else {
        std::cout << "Catalogue: " << engine->path().string() << '\n'
                  << "Size:      " << (ec ? 0 : size) << " bytes\n"
                  << "Albums:    " << counts.albums << '\n'
                  << "Volumes:   " << counts.volumes << '\n'
                  << "Tracks:    " << counts.tracks << '\n'
                  << "Covers:    " << counts.covers << '\n'
                  << "Artists:   " << counts.artists << '\n';
        if (is_default) std::cout << "This is the default database.\n";
        if (is_sample) std::cout << "This is the sample database.\n";
        if (in_use) std::cout << "Another process is writing to it.\n";
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* albums = catalog->add_subcommand("albums", "List the albums");
  AddDatabaseOption(albums, db_path);
  albums->add_option("--limit", limit, "Show at most N albums")->type_name("N");
  albums->callback([&context] {
    context.action = [&context] {
      auto engine = OpenCliCatalog(context, db_path, false);
      Json list = Json::array();
      size_t shown = 0;
      const HResult rc = engine->ForEachAlbum([&](const AlbumRecord& album) {
        const std::string artists = JoinNames(album.artists);
        if (context.json) {
          list.push_back({{"id", album.id},
                          {"artists", album.artists},
                          {"title", album.properties.Text(field::kTitle)},
                          {"volumes", album.volumes.size()},
                          {"tracks", TrackCount(album)}});
        } else {
          std::cout << album.id << "  "
                    << (artists.empty() ? (album.various_artists ? "Various" : "") : artists)
                    << " - " << album.properties.Text(field::kTitle) << "  ("
                    << album.volumes.size()
                    << (album.volumes.size() == 1 ? " volume, " : " volumes, ") << TrackCount(album)
                    << " tracks)\n";
        }
        return ++shown != limit;
      });
      if (rc != kOk) throw CommandError(kExitFailure, engine->LastErrorText());
      if (context.json) PrintJson(list);
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* show = catalog->add_subcommand("show", "Show one album with its volumes and tracks");
  AddDatabaseOption(show, db_path);
  show->add_option("id", album_id, "Album identifier, or the 8-digit id of one of its volumes")
      ->required();
  show->callback([&context] {
    context.action = [&context] {
      auto engine = OpenCliCatalog(context, db_path, false);
      std::optional<AlbumRecord> album = engine->ReadAlbum(album_id);
      const std::optional<uint32_t> record_id = ParseHex32(album_id);
      if (!album && record_id) {
        if (std::optional<std::string> owner = engine->FindAlbumOfVolume(*record_id)) {
          album = engine->ReadAlbum(*owner);
        }
      }
      if (!album) throw CommandError(kExitFailure, "no album " + album_id + " in the catalogue");
      if (context.json) {
        PrintJson(AlbumJson(*album));
      } else {
        PrintAlbum(*album);
      }
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* lists = catalog->add_subcommand("lists", "Show the user value lists");
  AddDatabaseOption(lists, db_path);
  lists->add_option("key", list_key, "Show only this list (for example user_genres)");
  lists->callback([&context] {
    context.action = [&context] {
      auto engine = OpenCliCatalog(context, db_path, false);
      std::vector<std::string> keys = ListKeys();
      if (!list_key.empty()) keys = {list_key};
      Json out = Json::object();
      for (const std::string& key : keys) {
        const std::optional<std::string> stored =
            engine->GetDatabaseProperty(kDatabaseOptionsGroup, key);
        if (!stored && DefaultUserListEntries(key).empty() && !list_key.empty()) {
          throw CommandError(kExitFailure, "no list " + key + " in the catalogue");
        }
        const std::vector<std::string> entries = SplitUserList(engine->UserList(key));
        const uint32_t stamp = engine->UserListTimestamp(key);
        if (context.json) {
          out[key] = {{"entries", entries}, {"default", !stored}, {"modified", stamp}};
        } else if (!list_key.empty()) {
          for (const std::string& e : entries)
            std::cout << e << '\n';
        } else {
          std::cout << key << " (" << entries.size() << " entries" << (stored ? "" : ", default")
                    << "): ";
          for (size_t i = 0; i < entries.size(); ++i) {
            std::cout << (i == 0 ? "" : ", ") << entries[i];
          }
          std::cout << '\n';
        }
      }
      if (context.json) PrintJson(out);
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("catalog", &Setup);

}  // namespace
}  // namespace dischive::cli
