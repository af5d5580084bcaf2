#include "support/disc_image.h"

#include <fmt/format.h>

#include <fstream>

#include "support/temp_dir.h"

namespace dischive::test {
namespace {

constexpr uint64_t kRawFrameBytes = 2352;

std::string Msf(uint32_t frames) {
  return fmt::format("{:02}:{:02}:{:02}", frames / 75 / 60, frames / 75 % 60, frames % 75);
}

void WriteSilence(const std::filesystem::path& bin, uint32_t frames) {
  { std::ofstream create(bin, std::ios::binary | std::ios::trunc); }
  std::filesystem::resize_file(bin, frames * kRawFrameBytes);  // zeros, sparse
}

}  // namespace

DiscLayout PlainImage(const std::vector<uint32_t>& starts, uint32_t frames) {
  DiscLayout layout;
  for (const uint32_t start : starts)
    layout.tracks.push_back({start, true, "", "", ""});
  layout.frames = frames;
  return layout;
}

std::filesystem::path WriteCueImage(const std::filesystem::path& folder, const std::string& name,
                                    const DiscLayout& layout) {
  std::string cue;
  if (!layout.mcn.empty()) cue += "CATALOG " + layout.mcn + "\n";
  if (!layout.performer.empty()) cue += "PERFORMER \"" + layout.performer + "\"\n";
  if (!layout.title.empty()) cue += "TITLE \"" + layout.title + "\"\n";
  cue += "FILE \"" + name + ".bin\" BINARY\n";
  for (size_t i = 0; i < layout.tracks.size(); ++i) {
    const ImageTrack& t = layout.tracks[i];
    cue += fmt::format("  TRACK {:02} {}\n", i + 1, t.audio ? "AUDIO" : "MODE1/2352");
    if (!t.title.empty()) cue += "    TITLE \"" + t.title + "\"\n";
    if (!t.performer.empty()) cue += "    PERFORMER \"" + t.performer + "\"\n";
    if (!t.isrc.empty()) cue += "    ISRC " + t.isrc + "\n";
    cue += "    INDEX 01 " + Msf(t.start) + "\n";
  }
  WriteFile(folder / (name + ".cue"), cue);
  WriteSilence(folder / (name + ".bin"), layout.frames);
  return folder / (name + ".cue");
}

std::filesystem::path WriteTocImage(const std::filesystem::path& folder, const std::string& name,
                                    const DiscLayout& layout) {
  auto language = [](const std::string& title, const std::string& performer) {
    return "  LANGUAGE 0 {\n    TITLE \"" + title + "\"\n    PERFORMER \"" + performer +
           "\"\n  }\n";
  };
  std::string toc = "CD_DA\n";
  if (!layout.mcn.empty()) toc += "CATALOG \"" + layout.mcn + "\"\n";
  if (!layout.title.empty() || !layout.performer.empty()) {
    // libcdio reads the language map only when it stands on one line.
    toc +=
        "CD_TEXT {\n  LANGUAGE_MAP { 0 : EN }\n" + language(layout.title, layout.performer) + "}\n";
  }
  for (size_t i = 0; i < layout.tracks.size(); ++i) {
    const ImageTrack& t = layout.tracks[i];
    const uint32_t end = i + 1 < layout.tracks.size() ? layout.tracks[i + 1].start : layout.frames;
    toc += t.audio ? "\nTRACK AUDIO\n" : "\nTRACK MODE1_RAW\n";
    if (!t.isrc.empty()) toc += "ISRC \"" + t.isrc + "\"\n";
    if (!t.title.empty() || !t.performer.empty())
      toc += "CD_TEXT {\n" + language(t.title, t.performer) + "}\n";
    // libcdio looks relative data file names up in the current folder, not
    // beside the .toc, so the path is absolute.
    toc += fmt::format("FILE \"{}\" {} {}\n", (folder / (name + ".bin")).string(), Msf(t.start),
                       Msf(end - t.start));
  }
  WriteFile(folder / (name + ".toc"), toc);
  WriteSilence(folder / (name + ".bin"), layout.frames);
  return folder / (name + ".toc");
}

}  // namespace dischive::test
