// dischive drive: the CD drives of this machine and the table of contents,
// disc id and CD-Text of the disc in one of them (or of a disc image).
#include <fmt/format.h>

#include <iostream>

#include "cli.h"
#include "drive_input.h"

namespace dischive::cli {
namespace {

std::string Mmss(uint64_t frames) {
  const uint64_t seconds = frames / 75;
  return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

// Frames from a track's start to the next track's (or the lead-out).
uint32_t TrackFrames(const CdDisc& disc, size_t i) {
  const uint32_t end =
      i + 1 < disc.tracks.size() ? disc.tracks[i + 1].start_frame : disc.lead_out_frame;
  return end - disc.tracks[i].start_frame;
}

int CheckedOutput() {
  std::cout.flush();
  if (!std::cout) throw CommandError(kExitFailure, "cannot write to standard output");
  return kExitOk;
}

int RunList(const Context& context) {
  const std::vector<CdDriveInfo> drives = ListCdDrives();
  if (context.json) {
    Json list = Json::array();
    for (const CdDriveInfo& d : drives)
      list.push_back({{"device", d.path}, {"disc", d.has_disc}, {"state", d.state}});
    PrintJson(Json{{"drives", std::move(list)}});
    return CheckedOutput();
  }
  if (drives.empty()) std::cerr << "dischive: no CD drive found\n";
  for (const CdDriveInfo& d : drives)
    std::cout << fmt::format("{}  {}\n", d.path, d.state);
  return CheckedOutput();
}

Json TocJson(const DeviceDisc& read) {
  const CdDisc& disc = read.disc;
  Json out;
  out["device"] = disc.source;
  out["image"] = disc.image;
  out["disc_id"] = fmt::format("{:08x}", read.toc.disc_id);
  out["cd_discid"] = FormatDiscIdLine(read.toc);
  out["first_track"] = disc.tracks.front().number;
  out["last_track"] = disc.tracks.back().number;
  out["lead_out"] = disc.lead_out_frame;
  out["length_seconds"] = read.toc.disc_length_seconds;
  out["mcn"] = disc.mcn;
  out["cd_text"] =
      disc.has_cd_text ? Json{{"title", disc.title}, {"performer", disc.performer}} : Json(nullptr);
  Json tracks = Json::array();
  for (size_t i = 0; i < disc.tracks.size(); ++i) {
    const CdTrack& t = disc.tracks[i];
    Json track{{"number", t.number},
               {"type", t.audio ? "audio" : "data"},
               {"start", t.start_frame},
               {"frames", TrackFrames(disc, i)},
               {"isrc", t.isrc}};
    if (disc.has_cd_text) {
      track["title"] = t.title;
      track["performer"] = t.performer;
    }
    tracks.push_back(std::move(track));
  }
  out["tracks"] = std::move(tracks);
  return out;
}

void PrintToc(const DeviceDisc& read) {
  const CdDisc& disc = read.disc;
  std::cout << "Device:    " << disc.source << (disc.image ? " (disc image)" : "") << '\n';
  std::cout << fmt::format("Disc id:   {:08x}\n", read.toc.disc_id);
  std::cout << "cd-discid: " << FormatDiscIdLine(read.toc) << '\n';
  std::cout << fmt::format("Tracks:    {} to {}, lead-out at frame {} ({})\n",
                           disc.tracks.front().number, disc.tracks.back().number,
                           disc.lead_out_frame, Mmss(disc.lead_out_frame - 150));
  if (!disc.mcn.empty()) std::cout << "MCN:       " << disc.mcn << '\n';
  if (disc.has_cd_text) {
    std::cout << "CD-Text:   " << disc.performer << " / " << disc.title << '\n';
  }
  for (size_t i = 0; i < disc.tracks.size(); ++i) {
    const CdTrack& t = disc.tracks[i];
    std::string text;
    if (!t.performer.empty()) text = t.performer + " / ";
    text += t.title;
    if (!t.isrc.empty()) text += (text.empty() ? "ISRC " : "  ISRC ") + t.isrc;
    std::string line =
        fmt::format("  {:>2}. {:<5} {:>7}  {:>6}  {}", t.number, t.audio ? "audio" : "data",
                    t.start_frame, Mmss(TrackFrames(disc, i)), text);
    while (line.back() == ' ')
      line.pop_back();
    std::cout << line << '\n';
  }
}

int RunToc(const std::string& device, const Context& context) {
  const DeviceDisc read = ReadDevice(device, context);
  if (context.json) {
    PrintJson(TocJson(read));
  } else {
    PrintToc(read);
  }
  return CheckedOutput();
}

void Setup(CLI::App& app, Context& context) {
  static std::string device;
  CLI::App* cmd = app.add_subcommand(
      "drive",
      "CD drives: list them, or print the table of contents, freedb disc id and CD-Text\n"
      "of the disc in a drive or of a disc image (.cue, .toc, .nrg).");
  cmd->require_subcommand(1);
  CLI::App* list = cmd->add_subcommand("list", "List the CD drives and whether a disc is in");
  list->callback([&context] { context.action = [&context] { return RunList(context); }; });
  CLI::App* toc = cmd->add_subcommand(
      "toc",
      "Print the table of contents, disc id, the line cd-discid prints and the CD-Text\n"
      "of a disc (default: the drive Drive.Device, else the first drive found)");
  toc->add_option("--device", device, "A CD drive (/dev/sr0) or a disc image (.cue, .toc, .nrg)")
      ->type_name("PATH|IMAGE");
  toc->callback([&context] { context.action = [&context] { return RunToc(device, context); }; });
}

const CommandRegistrar registrar("drive", &Setup);

}  // namespace
}  // namespace dischive::cli
