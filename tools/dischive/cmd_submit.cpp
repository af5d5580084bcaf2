// dischive submit: sends a new or corrected freedb entry by HTTP or mail. The
// entry comes from a JSON file or from a disc saved in the catalogue.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/cddb.h"

namespace dischive::cli {
namespace {

struct Options {
  std::string from_path;
  std::string album_id;
  std::string category;
  std::string via;  // "http", "mail" or "" (the setting)
  bool print = false;
  std::string db_path;
};

// Reads a JSON text field; absent keys leave `out` as it is.
class JsonReader {
 public:
  JsonReader(const Json& object, std::string where) : object_(object), where_(std::move(where)) {}

  [[noreturn]] void Bad(const std::string& what) const {
    throw CommandError(kExitUsage, where_ + ": " + what);
  }

  const Json* Get(const char* key) const {
    const auto it = object_.find(key);
    return it == object_.end() || it->is_null() ? nullptr : &*it;
  }

  void Text(const char* key, std::string& out) const {
    if (const Json* v = Get(key)) {
      if (!v->is_string()) Bad(std::string(key) + " must be a string");
      out = v->get<std::string>();
    }
  }

  uint32_t Number(const Json& v, const std::string& key, uint64_t max) const {
    if (!v.is_number_unsigned() || v.get<uint64_t>() > max) {
      Bad(fmt::format("{} must be a whole number from 0 to {}", key, max));
    }
    return static_cast<uint32_t>(v.get<uint64_t>());
  }

  template <typename Each>
  void Array(const char* key, size_t max, Each each) const {
    const Json* v = Get(key);
    if (v == nullptr) return;
    if (!v->is_array()) Bad(std::string(key) + " must be an array");
    if (v->size() > max) Bad(fmt::format("{} has {} entries, at most {} fit", key, v->size(), max));
    for (size_t i = 0; i < v->size(); ++i)
      each(i, (*v)[i], fmt::format("{}[{}]", key, i));
  }

 private:
  const Json& object_;
  std::string where_;
};

DiscSubmission SubmissionFromJson(const std::string& path) {
  const Json json = Json::parse(ReadUserTextFile(path), nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    throw CommandError(kExitUsage, path + ": not a JSON object");
  }
  static const std::vector<std::string> kKeys = {
      "category",    "discId",     "trackCount",      "artist",       "title",
      "trackArtist", "trackTitle", "trackExtended",   "frameOffsets", "revision",
      "year",        "extended",   "hasYearAndGenre", "genre",        "discLengthSeconds"};
  const JsonReader r(json, path);
  for (const auto& [key, value] : json.items()) {
    if (std::find(kKeys.begin(), kKeys.end(), key) == kKeys.end()) {
      r.Bad("unknown key \"" + key + "\"");
    }
  }
  DiscSubmission s;
  r.Text("category", s.category);
  r.Text("artist", s.artist);
  r.Text("title", s.title);
  r.Text("extended", s.extended);
  r.Text("genre", s.genre);
  if (const Json* v = r.Get("discId")) s.disc_id = r.Number(*v, "discId", 0xFFFFFFFF);
  if (const Json* v = r.Get("trackCount")) {
    s.track_count = r.Number(*v, "trackCount", kMaxSubmissionTracks);
  }
  if (const Json* v = r.Get("discLengthSeconds")) {
    s.disc_length_seconds = r.Number(*v, "discLengthSeconds", 0xFFFFFF);
  }
  const std::pair<const char*, int32_t*> numbers[] = {{"revision", &s.revision}, {"year", &s.year}};
  for (const auto& [key, out] : numbers) {
    if (const Json* v = r.Get(key)) {
      if (!v->is_number_integer() || v->get<int64_t>() < 0 || v->get<int64_t>() > 0x7FFFFFFF) {
        r.Bad(std::string(key) + " must be a whole number");
      }
      *out = static_cast<int32_t>(v->get<int64_t>());
    }
  }
  if (const Json* v = r.Get("hasYearAndGenre")) {
    if (!v->is_boolean()) r.Bad("hasYearAndGenre must be true or false");
    s.has_year_and_genre = v->get<bool>();
  }
  using TrackTexts = std::array<std::string, kMaxSubmissionTracks>;
  const std::pair<const char*, TrackTexts*> track_texts[] = {{"trackArtist", &s.track_artist},
                                                             {"trackTitle", &s.track_title},
                                                             {"trackExtended", &s.track_extended}};
  for (const auto& entry : track_texts) {
    TrackTexts* texts = entry.second;
    r.Array(entry.first, s.track_count, [&](size_t i, const Json& v, const std::string& name) {
      if (!v.is_string()) r.Bad(name + " must be a string");
      (*texts)[i] = v.get<std::string>();
    });
  }
  const Json* offsets = r.Get("frameOffsets");
  if (offsets == nullptr || !offsets->is_array() || offsets->size() != s.track_count + 1) {
    r.Bad(
        fmt::format("frameOffsets must hold trackCount + 1 = {} values (the last is the lead-out)",
                    s.track_count + 1));
  }
  r.Array("frameOffsets", kMaxSubmissionTracks + 1,
          [&](size_t i, const Json& v, const std::string& name) {
            s.frame_offsets[i] = r.Number(v, name, 0xFFFFFFFF);
          });
  return s;
}

// A disc saved by "lookup --save": its table of contents is rebuilt from the
// track lengths (the first track after the usual 150-frame lead-in), and
// must give the disc id it was saved under.
DiscSubmission SubmissionFromCatalog(const Options& options, Context& context) {
  std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, options.db_path, false);
  const std::string what = "album " + options.album_id;
  const std::optional<AlbumRecord> found = catalog->ReadAlbum(options.album_id);
  if (!found) throw CommandError(kExitFailure, what + ": not in the catalogue");
  const AlbumRecord& album = *found;
  if (album.volumes.empty() || album.volumes[0].tracks.empty()) {
    throw CommandError(kExitFailure, what + ": has no disc with tracks");
  }
  const VolumeRecord& volume = album.volumes[0];
  if (volume.tracks.size() > kMaxSubmissionTracks) {
    throw CommandError(kExitFailure, what + ": has more than 99 tracks");
  }
  DiscSubmission s;
  s.disc_id = volume.record_id;
  s.track_count = static_cast<uint32_t>(volume.tracks.size());
  s.artist = album.artists.empty() ? std::string() : album.artists[0];
  s.title = album.properties.Text(field::kTitle);
  s.genre = album.properties.Text(field::kGenre);
  s.category =
      !options.category.empty() ? options.category : volume.properties.Text(field::kCategory);
  if (s.category.empty()) {
    throw CommandError(kExitUsage, what + ": the disc has no freedb category; give --category");
  }
  s.extended = volume.properties.Text(field::kFreedbComment);
  s.revision = volume.properties.Int(field::kRevision);
  if (const int32_t date = album.properties.Int(field::kReleaseDate)) {
    s.year = 1900 + (date >> 24 & 127);
  }
  s.has_year_and_genre = true;
  uint64_t offset = 150;
  for (uint32_t k = 0; k < s.track_count; ++k) {
    const TrackRecord& t = volume.tracks[k];
    if (t.frames == kUnknownFrames || offset + t.frames > 0xFFFFFFFF) {
      throw CommandError(kExitFailure, fmt::format("{}: track {} has no length", what, k + 1));
    }
    s.frame_offsets[k] = static_cast<uint32_t>(offset);
    offset += t.frames;
    s.track_title[k] = t.properties.Text(field::kTrackTitle);
    s.track_artist[k] = t.properties.Text(field::kArtist);
    s.track_extended[k] = t.properties.Text(field::kFreedbComment);
  }
  s.frame_offsets[s.track_count] = static_cast<uint32_t>(offset);
  s.disc_length_seconds = static_cast<uint32_t>(offset / 75);
  if (ComputeFreedbDiscId(s.frame_offsets.data(), s.track_count, s.disc_length_seconds) !=
      s.disc_id) {
    throw CommandError(kExitFailure,
                       fmt::format("{}: its track lengths do not give disc id {:08x}; write the "
                                   "entry to a file with the right offsets and use --from",
                                   what, s.disc_id));
  }
  return s;
}

int RunSubmit(const Options& options, Context& context) {
  if (options.from_path.empty() == options.album_id.empty()) {
    throw CommandError(kExitUsage, "give the entry with either --from FILE.json or --album ID");
  }
  const DiscSubmission s = !options.from_path.empty() ? SubmissionFromJson(options.from_path)
                                                      : SubmissionFromCatalog(options, context);
  const std::string what =
      !options.from_path.empty() ? options.from_path : "album " + options.album_id;
  std::string problem;
  if (const HResult r = ValidateSubmission(s, &problem); r != kOk) {
    throw CommandError(ExitCodeFor(r), what + ": " + problem);
  }
  std::string entry, subject;
  WriteXmcdEntry(s, entry, subject);
  if (options.print) {
    std::cout << entry << std::flush;
    if (!std::cout) throw CommandError(kExitFailure, "standard output: write failed");
    return kExitOk;
  }

  const SettingsStore& settings = *context.settings;
  const std::string via = !options.via.empty()
                              ? options.via
                              : settings.GetString(kFreedbSettingsGroup, "submit_proto", "http");
  if (via != "http" && via != "mail") {
    throw CommandError(kExitUsage, "internet2.submit_proto: \"" + via + "\" is not http or mail");
  }
  if (settings.GetString(kFreedbSettingsGroup, "email_address", "").empty()) {
    throw CommandError(kExitUsage,
                       "internet2.email_address is not set: freedb needs an address to "
                       "answer to (dischive config set internet2.email_address you@example.org)");
  }
  const std::string target =
      via == "http"
          ? settings.GetString(kFreedbSettingsGroup, "submit_url", DefaultSubmitUrl())
          : fmt::format(
                "{}:{}",
                settings.GetString(kFreedbSettingsGroup, "smtp_server", kDefaultSmtpServer),
                settings.GetInt(kFreedbSettingsGroup, "smtp_server_port", kDefaultSmtpPort));
  context.Note(fmt::format("Sending {} by {} to {}", subject, via, target));
  std::string transcript;
  std::string* transcript_out = context.verbosity >= 2 ? &transcript : nullptr;
  const HResult result = via == "http" ? SubmitEntryByHttp(s, settings, transcript_out)
                                       : SubmitEntryByMail(s, settings, transcript_out);
  if (!transcript.empty()) std::cerr << transcript;
  if (result != kOk) Fail(result, "submit " + subject + " to " + target);
  if (context.json) {
    PrintJson(
        Json{{"subject", subject}, {"via", via}, {"target", target}, {"result", "0x00000000"}});
  } else {
    std::cout << fmt::format("Submitted {} by {} to {}\n", subject, via, target);
  }
  if (!std::cout.flush()) throw CommandError(kExitFailure, "standard output: write failed");
  return kExitOk;
}

void Setup(CLI::App& app, Context& context) {
  static Options options;
  CLI::App* cmd = app.add_subcommand(
      "submit",
      "Send a new or corrected disc entry to freedb, by HTTP or by mail.\n"
      "The entry comes from a JSON file (--from) or a disc saved with lookup --save (--album).");
  cmd->add_option("--from", options.from_path,
                  "JSON object with the entry's fields: category, discId, trackCount, artist, "
                  "title, trackArtist, trackTitle, trackExtended, frameOffsets (trackCount + 1 "
                  "values, the last the lead-out), revision, year, extended, hasYearAndGenre, "
                  "genre, discLengthSeconds")
      ->type_name("FILE.json");
  cmd->add_option("--album", options.album_id, "A catalogued disc, by album identifier")
      ->type_name("ID");
  cmd->add_option("--category", options.category,
                  "freedb category for --album (needed when the disc has none)")
      ->check(CLI::IsMember(FreedbCategories()));
  cmd->add_option("--via", options.via,
                  "http or mail; the default comes from internet2.submit_proto")
      ->check(CLI::IsMember({"http", "mail"}));
  cmd->add_flag("--print", options.print, "Write the xmcd entry to standard output; send nothing");
  AddDatabaseOption(cmd, options.db_path);
  cmd->callback(
      [&context] { context.action = [&context] { return RunSubmit(options, context); }; });
}

const CommandRegistrar registrar("submit", &Setup);

}  // namespace
}  // namespace dischive::cli
