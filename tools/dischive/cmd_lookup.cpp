// dischive lookup: looks audio CDs up in freedb over HTTP or the CDDB socket
// protocol. This program is the host: the lookup runs on a request thread of
// its own and reports to a window (a MessageLoop) on the main thread, which
// shows progress and asks the user to choose when several entries match.
// With --batch, a list of discs goes through the background lookup worker
// instead, several requests at a time, never asking.
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
#include "dischive/disc_lookup_driver.h"
#include "dischive/host.h"
#include "dischive/lookup_worker.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "drive_input.h"
#include "interrupt.h"
#include "progress.h"
#include "util/frame_time.h"
#include "util/parse.h"

namespace dischive::cli {
namespace {

// Stores a disc that was found (--save); on failure its note says why.
HResult SaveFoundDisc(CatalogEngine& catalog, const DiscToc& toc, const DiscMetadata& metadata,
                      std::string& album_id, std::string& note) {
  const HResult saved = SaveDiscToCatalog(catalog, toc, metadata, &album_id);
  if (saved != kOk) {
    note = fmt::format("not saved: {} (0x{:08X})", FormatErrorMessage(saved), saved);
  }
  return saved;
}

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
  std::string batch_path;  // "-": standard input
  int jobs = 2;
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

int RunBatch(const Options& options, Context& context);

int RunLookup(const Options& options, Context& context) {
  if (!options.batch_path.empty()) return RunBatch(options, context);
  std::vector<DiscRecord> discs;
  DiscCdTexts cd_texts;
  for (const DiscToc& toc : CollectDiscs(options, context, cd_texts))
    discs.push_back({toc, {}, kOk});
  const std::string protocol =
      !options.protocol.empty()
          ? options.protocol
          : context.settings->GetString(kFreedbSettingsGroup, "lookup_protocol", "http");
  const std::optional<LookupProtocol> parsed_protocol = ParseLookupProtocol(protocol);
  if (!parsed_protocol) {
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
  RunDiscLookup(request, window, *context.settings, *parsed_protocol, transcript_out);
  bar.Finish();
  if (!transcript.empty()) std::cerr << transcript;

  OfferCdText(discs, cd_texts, notes);
  std::vector<std::string> album_ids(discs.size());
  HResult first_failure = kOk;
  bool choice_missing = false;
  for (size_t i = 0; i < discs.size(); ++i) {
    if (discs[i].result == kOk && catalog) {
      const HResult saved =
          SaveFoundDisc(*catalog, discs[i].toc, discs[i].metadata, album_ids[i], notes[i]);
      if (saved != kOk && first_failure == kOk) first_failure = saved;
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

// --batch ----------------------------------------------------------------------

constexpr size_t kMaxBatchDiscs = 100000;
constexpr size_t kMaxBatchLine = 64 * 1024;

// One line of a batch file and the disc it names (or why it names none).
struct BatchLine {
  size_t number = 0;
  std::string text;
  std::string error;  // empty: the line gave a disc
};

bool IsHexWord(std::string_view word) {
  return word.size() == 8 && word.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// A line as cd-discid prints it, or a cue sheet path followed by the disc
// length in seconds.
std::optional<DiscToc> ParseBatchLine(std::string_view line, std::string& error) {
  if (IsHexWord(line.substr(0, line.find(' '))) ||
      line.find_first_not_of("0123456789 ") == std::string_view::npos) {
    return ParseDiscIdLine(line, &error);
  }
  const size_t blank = line.find_last_of(" \t");
  const std::optional<uint32_t> seconds = blank == std::string_view::npos
                                              ? std::nullopt
                                              : ParseDecimal32(line.substr(blank + 1), 0xFFFFFF);
  if (!seconds) {
    error = "expected \"discid n off1 ... offN seconds\" or \"CUE-FILE SECONDS\"";
    return std::nullopt;
  }
  const std::string path(TrimBlanks(line.substr(0, blank)));
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  auto toc = ParseCueSheet(text.str(), *seconds, &error);
  if (!toc) error = path + ": " + error;
  return toc;
}

// Reads the batch: every non-empty line that is not a '#' comment.
std::vector<BatchLine> ReadBatch(const std::string& path, std::vector<BatchDisc>& discs,
                                 std::vector<size_t>& disc_of_line) {
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file)
      throw CommandError(kExitFailure, "cannot read " + path + ": " + std::strerror(errno));
  }
  std::istream& in = path == "-" ? std::cin : file;
  std::vector<BatchLine> lines;
  std::string text;
  for (size_t number = 1; std::getline(in, text); ++number) {
    if (text.size() > kMaxBatchLine) {
      throw CommandError(kExitUsage, fmt::format("{}:{}: line too long", path, number));
    }
    const std::string_view trimmed = TrimBlanks(text);
    if (trimmed.empty() || trimmed.front() == '#') continue;
    if (lines.size() == kMaxBatchDiscs) {
      throw CommandError(kExitUsage, fmt::format("{}: more than {} discs", path, kMaxBatchDiscs));
    }
    BatchLine line{number, std::string(trimmed), {}};
    const std::optional<DiscToc> toc = ParseBatchLine(trimmed, line.error);
    disc_of_line.push_back(toc ? discs.size() : SIZE_MAX);
    if (toc) discs.push_back(BatchDisc{*toc, {}, kOk, {}});
    lines.push_back(std::move(line));
  }
  if (in.bad())
    throw CommandError(kExitFailure, "cannot read " + path + ": " + std::strerror(errno));
  return lines;
}

Json MatchesJson(const std::vector<FreedbMatch>& matches) {
  Json list = Json::array();
  for (const FreedbMatch& m : matches) {
    list.push_back({{"category", m.category},
                    {"disc_id", fmt::format("{:08x}", m.disc_id)},
                    {"artist", m.artist},
                    {"title", m.title}});
  }
  return list;
}

void PrintBatchText(const BatchLine& line, const BatchDisc* disc, const std::string& note,
                    const std::string& album_id) {
  std::cout << fmt::format("{}: ", line.number);
  if (disc == nullptr) {
    std::cout << line.error << '\n';
    return;
  }
  std::cout << fmt::format("{:08x} ", disc->toc.disc_id);
  if (disc->result == kOk) {
    const DiscMetadata& m = disc->metadata;
    std::cout << fmt::format("{} / {} [{}]", m.Text(field::kArtist, 0).value_or(""),
                             m.Text(field::kTitle, 0).value_or(""),
                             m.Text(field::kCategory, 0).value_or(""));
    if (!album_id.empty()) std::cout << ", saved as album " << album_id;
  } else if (!disc->matches.empty()) {
    std::cout << fmt::format("ambiguous: {} entries match", disc->matches.size());
    for (size_t i = 0; i < disc->matches.size(); ++i) {
      const FreedbMatch& m = disc->matches[i];
      std::cout << fmt::format("\n    {}. {} / {} [{} {:08x}]", i + 1, m.artist, m.title,
                               m.category, m.disc_id);
    }
  } else {
    std::cout << fmt::format("{} (0x{:08X})", FormatErrorMessage(disc->result), disc->result);
  }
  if (!note.empty()) std::cout << " (" << note << ')';
  std::cout << '\n';
}

int RunBatch(const Options& options, Context& context) {
  if (!options.offsets.empty() || !options.cue_path.empty() || !options.disc_lines.empty()) {
    throw CommandError(kExitUsage, "--batch takes its discs from the file only");
  }
  if (options.protocol == "cddbp") {
    throw CommandError(kExitUsage, "--batch looks discs up over http only");
  }
  std::vector<BatchDisc> discs;
  std::vector<size_t> disc_of_line;
  const std::vector<BatchLine> lines = ReadBatch(options.batch_path, discs, disc_of_line);
  std::unique_ptr<CatalogEngine> catalog;
  if (options.save) catalog = OpenCliCatalog(context, options.db_path, true);
  context.Note(fmt::format("{} disc(s) to look up, {} at a time", discs.size(), options.jobs));

  BatchLookupOptions batch;
  batch.jobs = options.jobs;
  batch.min_interval = std::chrono::milliseconds(
      std::max(0, context.settings->GetInt(kFreedbSettingsGroup, "min_interval_ms", 1000)));
  ProgressBar bar("freedb", discs.size(), context.stderr_is_terminal && !context.json);
  batch.progress = [&bar](size_t done, size_t) { bar.Update(done); };
  InterruptGuard interrupt;
  batch.cancelled = [] { return InterruptGuard::interrupted(); };
  std::string transcript;
  if (context.verbosity >= 2) batch.transcript = &transcript;
  const HResult outcome = LookupDiscBatch(discs, *context.settings, batch);
  bar.Finish();
  if (!transcript.empty()) std::cerr << transcript;

  std::vector<std::string> notes(discs.size()), album_ids(discs.size());
  HResult first_failure = kOk;
  bool bad_line = false;
  for (size_t i = 0; i < discs.size(); ++i) {
    if (discs[i].result == kOk && catalog) {
      const HResult saved =
          SaveFoundDisc(*catalog, discs[i].toc, discs[i].metadata, album_ids[i], notes[i]);
      if (saved != kOk && first_failure == kOk) first_failure = saved;
    }
    if (discs[i].result != kOk && first_failure == kOk) first_failure = discs[i].result;
  }
  if (context.json) {
    Json all = Json::array();
    for (size_t n = 0; n < lines.size(); ++n) {
      Json out{{"line", lines[n].number}, {"input", lines[n].text}};
      const size_t i = disc_of_line[n];
      if (i == SIZE_MAX) {
        out["result"] = fmt::format("0x{:08X}", kInvalidArgument);
        out["message"] = lines[n].error;
      } else {
        out.update(DiscJson(DiscRecord{discs[i].toc, discs[i].metadata, discs[i].result}, notes[i],
                            album_ids[i]));
        if (!discs[i].matches.empty()) {
          out["message"] = fmt::format("ambiguous: {} entries match", discs[i].matches.size());
          out["matches"] = MatchesJson(discs[i].matches);
        }
      }
      all.push_back(std::move(out));
    }
    PrintJson(Json{{"cancelled", outcome == kAborted}, {"discs", std::move(all)}});
  } else {
    for (size_t n = 0; n < lines.size(); ++n) {
      const size_t i = disc_of_line[n];
      PrintBatchText(lines[n], i == SIZE_MAX ? nullptr : &discs[i],
                     i == SIZE_MAX ? std::string() : notes[i],
                     i == SIZE_MAX ? std::string() : album_ids[i]);
    }
  }
  for (size_t n = 0; n < lines.size(); ++n)
    bad_line |= disc_of_line[n] == SIZE_MAX;
  if (outcome == kAborted) {
    // Requests that were on the wire finish and are discarded; let them end
    // before the program does.
    LookupWorker::WaitForThreads(std::chrono::seconds(10));
    const auto finished = std::count_if(discs.begin(), discs.end(),
                                        [](const BatchDisc& d) { return d.result != kAborted; });
    throw CommandError(kExitCancelled,
                       fmt::format("cancelled after {} of {} discs", finished, discs.size()));
  }
  if (first_failure != kOk) return ExitCodeFor(first_failure);
  return bad_line ? static_cast<int>(kExitUsage) : static_cast<int>(kExitOk);
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
  cmd->add_option("--batch", options.batch_path,
                  "Look up every disc listed in FILE (- for standard input), one per line: "
                  "a cd-discid line or \"CUE-FILE SECONDS\"; several matches never ask")
      ->type_name("FILE");
  cmd->add_option("--jobs", options.jobs, "With --batch: requests at a time")
      ->check(CLI::Range(1, 16))
      ->capture_default_str();
  AddDatabaseOption(cmd, options.db_path);
  cmd->callback(
      [&context] { context.action = [&context] { return RunLookup(options, context); }; });
}

const CommandRegistrar registrar("lookup", &Setup);

}  // namespace
}  // namespace dischive::cli
