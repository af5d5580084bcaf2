// dischive tags FILE...: the tags, playing time and cover picture of music files.
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>

#include "cli.h"
#include "dischive/tags.h"
#include "scan/tag_readers.h"
#include "util/frame_time.h"

namespace dischive::cli {
namespace {

struct Options {
  std::vector<std::string> files;
  std::string picture_out;
};

// The text fields in the order they are printed, with their JSON keys.
const std::vector<std::pair<const char*, std::string MediaFileTags::*>>& TextFields() {
  static const std::vector<std::pair<const char*, std::string MediaFileTags::*>> fields = {
      {"title", &MediaFileTags::title},
      {"artist", &MediaFileTags::artist},
      {"artistSort", &MediaFileTags::artistSort},
      {"album", &MediaFileTags::album},
      {"year", &MediaFileTags::year},
      {"genre", &MediaFileTags::genre},
      {"comment", &MediaFileTags::comment},
      {"lyrics", &MediaFileTags::lyrics},
      {"composer", &MediaFileTags::composer},
      {"conductor", &MediaFileTags::conductor},
      {"lyricist", &MediaFileTags::lyricist},
      {"performer", &MediaFileTags::performer},
      {"label", &MediaFileTags::label},
  };
  return fields;
}

const char* KindName(PictureKind kind) {
  return kind == PictureKind::kJpeg ? "jpeg" : kind == PictureKind::kPng ? "png" : "none";
}

// Where the cover of the index-th of `count` files goes: OUT itself for one
// file, otherwise OUT with "-N" before its extension.
std::filesystem::path PictureTarget(const std::string& out, size_t index, size_t count) {
  std::filesystem::path path(out);
  if (count == 1) return path;
  const std::string stem = path.stem().string() + "-" + std::to_string(index + 1);
  return path.parent_path() / (stem + path.extension().string());
}

Json ToJson(const std::string& file, const MediaFileInfo& info) {
  const MediaFileTags& t = info.tags;
  Json j{{"file", file}, {"reader", info.reader}, {"format", t.formatName}};
  for (const auto& [key, member] : TextFields())
    j[key] = t.*member;
  j["trackNumber"] = t.trackNumber;
  j["discNumber"] = t.discNumber;
  j["bpm"] = t.bpm;
  j["bitrateKbps"] = t.bitrateKbps;
  j["durationFrames"] = t.durationFrames;
  j["picture"] = info.picture.empty()
                     ? Json(nullptr)
                     : Json{{"kind", KindName(info.picture_kind)}, {"bytes", info.picture.size()}};
  return j;
}

void PrintText(const std::string& file, const MediaFileInfo& info) {
  const MediaFileTags& t = info.tags;
  std::cout << file << '\n';
  std::cout << "  format: " << t.formatName << " (" << info.reader << ")\n";
  for (const auto& [key, member] : TextFields()) {
    const std::string& value = t.*member;
    if (value.empty()) continue;
    // Multi-line values (comments, lyrics) are indented under their key;
    // very long ones are cut (--json shows them whole).
    constexpr size_t kMaxShown = 300;
    const bool cut = value.size() > kMaxShown;
    std::string_view part(value);
    if (cut) {
      size_t end = kMaxShown;
      while (end > 0 && (static_cast<uint8_t>(value[end]) & 0xC0) == 0x80)
        --end;
      part = part.substr(0, end);
    }
    std::string shown;
    for (char c : part) {
      if (c == '\r') continue;
      shown += c;
      if (c == '\n') shown += "    ";
    }
    if (cut) shown += fmt::format("... ({} bytes)", value.size());
    std::cout << "  " << key << ": " << shown << '\n';
  }
  if (t.trackNumber != -1) std::cout << "  trackNumber: " << t.trackNumber << '\n';
  if (t.discNumber != -1) std::cout << "  discNumber: " << t.discNumber << '\n';
  if (t.bpm != 0) std::cout << "  bpm: " << t.bpm << '\n';
  if (t.bitrateKbps != 0) std::cout << "  bitrate: " << t.bitrateKbps << " kbit/s\n";
  std::cout
      << "  duration: "
      << FrameTime(static_cast<uint32_t>(std::max(t.durationFrames, 0)), TimeStyle::kFrames).text()
      << " (" << t.durationFrames << " frames)\n";
  if (!info.picture.empty()) {
    std::cout << "  picture: " << KindName(info.picture_kind) << ", " << info.picture.size()
              << " bytes\n";
  }
}

int Run(Context& context, const Options& options) {
  Json all = Json::array();
  int exit_code = kExitOk;
  for (size_t i = 0; i < options.files.size(); ++i) {
    const std::string& file = options.files[i];
    MediaFileInfo info;
    const HResult result = ReadMediaFile(file, info);
    if (result != kOk) {
      const std::string why = result == kNotMediaFile        ? "not a music file this program reads"
                              : result == kErrorFileNotFound ? "no such file"
                              : result == kErrorAccessDenied ? "access denied"
                                                             : FormatErrorMessage(result);
      std::cerr << "dischive: " << file << ": " << why << '\n';
      if (context.json) all.push_back(Json{{"file", file}, {"error", why}});
      exit_code = kExitFailure;
      continue;
    }
    if (!options.picture_out.empty() && !info.picture.empty()) {
      const std::filesystem::path target =
          PictureTarget(options.picture_out, i, options.files.size());
      std::ofstream out(target, std::ios::binary | std::ios::trunc);
      out.write(info.picture.data(), static_cast<std::streamsize>(info.picture.size()));
      out.close();
      if (!out) {
        std::cerr << "dischive: cannot write " << target.string() << '\n';
        exit_code = kExitFailure;
      } else {
        context.Note("cover of " + file + " saved to " + target.string());
      }
    } else if (!options.picture_out.empty()) {
      context.Note(file + " has no cover picture");
    }
    if (context.json) {
      all.push_back(ToJson(file, info));
    } else {
      if (i > 0) std::cout << '\n';
      PrintText(file, info);
    }
  }
  if (context.json) PrintJson(all);
  return exit_code;
}

void Setup(CLI::App& app, Context& context) {
  static Options options;
  CLI::App* tags = app.add_subcommand("tags", "Print the tags of music files");
  tags->add_option("files", options.files, "FLAC, Ogg Vorbis, MP3, WMA or WAV files")
      ->required()
      ->type_name("FILE");
  tags->add_option("--picture", options.picture_out,
                   "Save the cover picture to OUT (OUT-1, OUT-2, ... for several files)")
      ->type_name("OUT");
  tags->callback([&context] { context.action = [&context] { return Run(context, options); }; });
}

const CommandRegistrar registrar("tags", &Setup);

}  // namespace
}  // namespace dischive::cli
