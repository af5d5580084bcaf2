// dischive lookup: looks audio CDs up in freedb over HTTP or the CDDB socket
// protocol. This program is the host: the lookup runs on a request thread of
// its own and reports to a window (a MessageLoop) on the main thread, which
// shows progress and asks the user to choose when several entries match.
#include <fmt/format.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/cddb.h"
#include "dischive/host.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "drive_input.h"
#include "progress.h"
#include "util/frame_time.h"
#include "util/parse.h"

namespace dischive::cli {
namespace {

constexpr uint32_t kProgressMessage = 0x8001;
constexpr uint32_t kChoiceMessage = 0x8002;

struct Options {
  std::vector<std::string> offsets;  // frames, comma or blank separated
  int64_t length = -1;               // seconds
  std::string cue_path;
  std::vector<std::string> disc_lines;  // cd-discid lines
  std::vector<std::string> devices;     // CD drives or disc images
  std::string protocol;                 // "http", "cddbp" or "" (the setting)
  int choose = 0;                       // 1-based, 0 = ask
  bool first = false;
  bool save = false;
  std::string db_path;
};

std::vector<uint32_t> ParseOffsets(const std::vector<std::string>& items) {
  std::vector<uint32_t> offsets;
  for (std::string item : items) {
    for (char& c : item) {
      if (c == ',') c = ' ';
    }
    std::istringstream in(item);
    for (std::string word; in >> word;) {
      const std::optional<uint32_t> offset = ParseDecimal32(word, 999'999'999);
      if (!offset) {
        throw CommandError(kExitUsage, "--offsets: \"" + word + "\" is not a frame offset");
      }
      offsets.push_back(*offset);
    }
  }
  return offsets;
}

uint32_t RequireLength(const Options& options, const char* what) {
  if (options.length < 0) {
    throw CommandError(kExitUsage, std::string(what) + " needs --length SECONDS");
  }
  if (options.length > 0xFFFFFF) throw CommandError(kExitUsage, "--length is too large");
  return static_cast<uint32_t>(options.length);
}

std::vector<DiscToc> CollectDiscs(const Options& options, const Context& context,
                                  DiscCdTexts& cd_texts) {
  std::vector<DiscToc> discs;
  std::string error;
  if (!options.offsets.empty()) {
    const auto toc =
        MakeDiscToc(ParseOffsets(options.offsets), RequireLength(options, "--offsets"), &error);
    if (!toc) throw CommandError(kExitUsage, "--offsets: " + error);
    discs.push_back(*toc);
  }
  if (!options.cue_path.empty()) {
    const std::string text = ReadUserTextFile(options.cue_path);
    const auto toc = ParseCueSheet(text, RequireLength(options, "--cue"), &error);
    if (!toc) throw CommandError(kExitUsage, options.cue_path + ": " + error);
    discs.push_back(*toc);
  }
  for (const std::string& line : options.disc_lines) {
    uint32_t stated = 0;
    const auto toc = ParseDiscIdLine(line, &error, &stated);
    if (!toc) throw CommandError(kExitUsage, "--disc: " + error);
    if (stated != toc->disc_id) {
      std::cerr << fmt::format(
          "dischive: the disc id {:08x} does not fit its offsets; using {:08x}\n", stated,
          toc->disc_id);
    }
    discs.push_back(*toc);
  }
  for (const std::string& device : options.devices)
    AddDeviceDisc(device, context, discs, cd_texts);
  // No disc named: the one in the default drive.
  if (discs.empty()) AddDeviceDisc("", context, discs, cd_texts);
  context.Note(fmt::format("{} disc(s) to look up", discs.size()));
  return discs;
}

// Asks on the terminal which match to take; 0 = cancel.
intptr_t AskOnTerminal(MatchChoice& choice, size_t disc, size_t count) {
  std::cerr << "Several entries match this disc. Choose one";
  if (count > 1) std::cerr << fmt::format(" (disc {} of {})", disc + 1, count);
  std::cerr << '\n';
  for (uint32_t i = 0; i < choice.count; ++i) {
    const FreedbMatch& m = choice.matches[i];
    std::cerr << fmt::format("  {:>3}. {} / {}  [{} {:08x}]\n", i + 1, m.artist, m.title,
                             m.category, m.disc_id);
  }
  for (;;) {
    std::cerr << fmt::format("Entry to read (1-{}, 0 to cancel): ", choice.count) << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) return 0;
    const std::optional<uint32_t> n = ParseDecimal32(TrimBlanks(line));
    if (!n) continue;
    if (*n == 0) return 0;
    if (*n <= choice.count) {
      choice.chosen = *n - 1;
      return 1;
    }
  }
}

Json DiscJson(const DiscRecord& disc, const std::string& note, const std::string& album_id) {
  const DiscMetadata& m = disc.metadata;
  Json out;
  out["disc_id"] = fmt::format("{:08x}", disc.toc.disc_id);
  out["result"] = fmt::format("0x{:08X}", disc.result);
  out["message"] = disc.result == kOk ? std::string() : FormatErrorMessage(disc.result);
  if (!note.empty()) out["note"] = note;
  if (disc.result != kOk) return out;
  out["artist"] = m.Text(field::kArtist, 0).value_or("");
  out["title"] = m.Text(field::kTitle, 0).value_or("");
  const int32_t date = m.Int(field::kReleaseDate, 0).value_or(0);
  out["year"] = date != 0 ? Json(1900 + (date >> 24 & 127)) : Json(nullptr);
  out["genre"] = m.Text(field::kGenre, 0).value_or("");
  out["category"] = m.Text(field::kCategory, 0).value_or("");
  out["various_artists"] = m.Int(field::kVariousArtists, 0).value_or(0) != 0;
  if (const auto revision = m.Int(field::kRevision, 0)) out["revision"] = *revision;
  if (const auto extd = m.Text(field::kFreedbComment, 0)) out["comment"] = *extd;
  Json tracks = Json::array();
  const AlbumRecord album = AlbumFromDisc(disc.toc, m);
  for (const TrackRecord& t : album.volumes[0].tracks) {
    Json track;
    track["number"] = t.number;
    track["title"] = m.Text(field::kTrackTitle, t.number).value_or("");
    track["artist"] = m.Text(field::kArtist, t.number).value_or("");
    track["frames"] = t.frames;
    if (const auto extt = m.Text(field::kFreedbComment, t.number)) track["comment"] = *extt;
    tracks.push_back(std::move(track));
  }
  out["tracks"] = std::move(tracks);
  if (!album_id.empty()) out["album_id"] = album_id;
  return out;
}

void PrintDiscText(const DiscRecord& disc, size_t index, size_t count, const std::string& note,
                   const std::string& album_id) {
  const std::string label = count > 1 ? fmt::format("Disc {} ", index + 1) : std::string("Disc ");
  if (disc.result != kOk) {
    std::cout << fmt::format("{}{:08x}: {} (0x{:08X})\n", label, disc.toc.disc_id,
                             FormatErrorMessage(disc.result), disc.result);
    if (!note.empty()) std::cout << "  " << note << '\n';
    return;
  }
  const DiscMetadata& m = disc.metadata;
  std::cout << fmt::format("{}{:08x}\n", label, disc.toc.disc_id);
  std::cout << "Artist:   " << m.Text(field::kArtist, 0).value_or("") << '\n';
  std::cout << "Title:    " << m.Text(field::kTitle, 0).value_or("") << '\n';
  if (const int32_t date = m.Int(field::kReleaseDate, 0).value_or(0)) {
    std::cout << "Year:     " << 1900 + (date >> 24 & 127) << '\n';
  }
  if (const auto genre = m.Text(field::kGenre, 0); genre && !genre->empty()) {
    std::cout << "Genre:    " << *genre << '\n';
  }
  std::cout << "Category: " << m.Text(field::kCategory, 0).value_or("") << '\n';
  const AlbumRecord album = AlbumFromDisc(disc.toc, m);
  for (const TrackRecord& t : album.volumes[0].tracks) {
    const std::string artist = m.Text(field::kArtist, t.number).value_or("");
    std::cout << fmt::format("  {:>2}. {}{}  ({})\n", t.number,
                             artist.empty() ? std::string() : artist + " / ",
                             m.Text(field::kTrackTitle, t.number).value_or(""),
                             FrameTime(t.frames, TimeStyle::kMinutes).text());
  }
  if (!note.empty()) std::cout << "Note:     " << note << '\n';
  if (!album_id.empty()) std::cout << "Saved as album " << album_id << '\n';
}

int RunLookup(const Options& options, Context& context) {
  std::vector<DiscRecord> discs;
  DiscCdTexts cd_texts;
  for (const DiscToc& toc : CollectDiscs(options, context, cd_texts))
    discs.push_back({toc, {}, kOk});
  const std::string protocol =
      !options.protocol.empty()
          ? options.protocol
          : context.settings->GetString(kFreedbSettingsGroup, "lookup_protocol", "http");
  if (protocol != "http" && protocol != "cddbp") {
    throw CommandError(kExitUsage, "unknown protocol \"" + protocol + "\" (http or cddbp)");
  }
  // Open the catalogue first, so that a locked or broken one fails before the lookup.
  std::unique_ptr<CatalogEngine> catalog;
  if (options.save) catalog = OpenCliCatalog(context, options.db_path, true);

  std::vector<std::string> notes(discs.size());
  std::vector<bool> needs_choice(discs.size());
  ProgressBar bar("freedb", discs.size(), context.stderr_is_terminal && !context.json);
  MessageLoop window([&](const HostMessage& m) -> intptr_t {
    if (m.message == kProgressMessage) {
      const size_t index = discs.size() > 1 ? (m.wparam & 0xFFFF) : 0;
      const std::string text = std::any_cast<std::string>(m.payload);
      bar.Update(index, text);
      context.Note(text);
      return 0;
    }
    if (m.message != kChoiceMessage) return 0;
    MatchChoice& choice = *std::any_cast<MatchChoice*>(m.payload);
    const size_t index = discs.size() > 1 ? (m.wparam & 0xFFFF) : 0;
    if (options.first || options.choose > 0) {
      const uint32_t n = options.first ? 1u : static_cast<uint32_t>(options.choose);
      if (n > choice.count) {
        notes[index] = fmt::format("--choose {}, but only {} entries match", n, choice.count);
        return 0;
      }
      choice.chosen = n - 1;
      return 1;
    }
    if (!context.stdin_is_terminal) {
      std::string list;
      for (uint32_t i = 0; i < choice.count; ++i) {
        list += fmt::format("\n    {}. {} / {} [{} {:08x}]", i + 1, choice.matches[i].artist,
                            choice.matches[i].title, choice.matches[i].category,
                            choice.matches[i].disc_id);
      }
      notes[index] = fmt::format("{} entries match; choose one with --choose N or --first:{}",
                                 choice.count, list);
      needs_choice[index] = true;
      return 0;
    }
    bar.Finish();
    return AskOnTerminal(choice, index, discs.size());
  });

  DiscLookupRequest request;
  request.discs = &discs;
  request.owner = &window;
  request.progress_message = kProgressMessage;
  request.choice_message = kChoiceMessage;
  std::string transcript;
  std::string* transcript_out = context.verbosity >= 2 ? &transcript : nullptr;
  std::atomic<bool> done{false};
  window.pump();  // the main thread owns the window
  std::thread worker([&] {
    if (protocol == "cddbp") {
      LookupDiscsCddbp(request, *context.settings, transcript_out);
    } else {
      LookupDiscsFreedb(request, *context.settings, transcript_out);
    }
    done = true;
  });
  while (!done)
    window.pump(std::chrono::milliseconds(20));
  worker.join();
  window.pump();
  bar.Finish();
  if (!transcript.empty()) std::cerr << transcript;

  OfferCdText(discs, cd_texts, notes);
  std::vector<std::string> album_ids(discs.size());
  HResult first_failure = kOk;
  bool choice_missing = false;
  for (size_t i = 0; i < discs.size(); ++i) {
    if (discs[i].result == kOk && catalog) {
      const HResult saved =
          SaveDiscToCatalog(*catalog, discs[i].toc, discs[i].metadata, &album_ids[i]);
      if (saved != kOk) {
        notes[i] = fmt::format("not saved: {} (0x{:08X})", FormatErrorMessage(saved), saved);
        if (first_failure == kOk) first_failure = saved;
      }
    }
    if (discs[i].result != kOk && first_failure == kOk) {
      first_failure = discs[i].result;
      choice_missing = needs_choice[i];
    }
  }
  if (context.json) {
    Json all = Json::array();
    for (size_t i = 0; i < discs.size(); ++i)
      all.push_back(DiscJson(discs[i], notes[i], album_ids[i]));
    PrintJson(Json{{"protocol", protocol}, {"discs", std::move(all)}});
  } else {
    for (size_t i = 0; i < discs.size(); ++i) {
      if (i > 0) std::cout << '\n';
      PrintDiscText(discs[i], i, discs.size(), notes[i], album_ids[i]);
    }
  }
  if (first_failure != kOk && discs.size() == 1 && !context.json) {
    // One disc: also say it on standard error, as every failing command does.
    std::cerr << fmt::format("dischive: lookup failed: {} (0x{:08X})\n",
                             FormatErrorMessage(first_failure), first_failure);
  }
  // A choice that could not be asked for is a usage matter: --choose or --first.
  return choice_missing ? static_cast<int>(kExitUsage) : ExitCodeFor(first_failure);
}

void Setup(CLI::App& app, Context& context) {
  static Options options;
  CLI::App* cmd = app.add_subcommand(
      "lookup",
      "Look audio CDs up in freedb and print artist, title, year, genre and tracks.\n"
      "Give each disc as --offsets with --length, as --cue FILE with --length, or as the\n"
      "line cd-discid prints (--disc, repeatable for a set of discs), or as a CD drive or\n"
      "disc image (--device, repeatable). With no disc given, the disc in the drive\n"
      "Drive.Device (else the first drive found) is read. When freedb has no entry and\n"
      "the disc carries CD-Text, the CD-Text is given as the result.");
  cmd->add_option("--offsets", options.offsets,
                  "Track start offsets in frames (1/75 s, with the 150-frame lead-in), "
                  "comma separated")
      ->type_name("F1,F2,...");
  cmd->add_option("--length", options.length, "Disc length in seconds (lead-out / 75)")
      ->type_name("SECONDS");
  cmd->add_option("--cue", options.cue_path, "Cue sheet of a one-file rip")->type_name("FILE");
  cmd->add_option("--disc", options.disc_lines,
                  "A disc as cd-discid prints it: \"discid n off1 ... offN seconds\"")
      ->type_name("LINE");
  cmd->add_option("--device", options.devices,
                  "A CD drive (/dev/sr0) or disc image (.cue, .toc, .nrg) to read the disc from")
      ->type_name("PATH|IMAGE");
  cmd->add_option("--protocol", options.protocol,
                  "http (default) or cddbp; the default comes from internet2.lookup_protocol")
      ->check(CLI::IsMember({"http", "cddbp"}));
  cmd->add_option("--choose", options.choose, "When several entries match, take entry N")
      ->check(CLI::Range(1, 256));
  cmd->add_flag("--first", options.first, "When several entries match, take the first");
  cmd->add_flag("--save", options.save, "Store each disc found in the catalogue");
  AddDatabaseOption(cmd, options.db_path);
  cmd->callback(
      [&context] { context.action = [&context] { return RunLookup(options, context); }; });
}

const CommandRegistrar registrar("lookup", &Setup);

}  // namespace
}  // namespace dischive::cli
