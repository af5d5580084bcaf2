// The tags of one music file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "dischive/result.h"

namespace dischive {

/// The descriptive fields, playing time and format of one music file. Text is
/// UTF-8.
struct MediaFileTags {
  std::string title;
  std::string artist;      ///< several artist entries joined with ", "
  std::string artistSort;  ///< emptied again when a second sort name is met
  std::string album;
  std::string year;     ///< year or date text as found
  std::string comment;  ///< first comment or description
  std::string lyrics;
  std::string composer;
  std::string conductor;
  std::string lyricist;
  std::string performer;
  std::string label;
  std::string genre;
  int32_t trackNumber = -1;  ///< -1 when absent or invalid
  int32_t discNumber = -1;   ///< -1 when absent or invalid
  int32_t bpm = 0;           ///< never below 0
  int32_t bitrateKbps = 0;
  int32_t durationFrames = 0;  ///< CD frames of 1/75 second
  std::string formatName;      ///< "FLAC", "OGG", "WMA", "MP3", "WAV"

  bool operator==(const MediaFileTags&) const = default;
};

/// Kind of an embedded cover picture.
enum class PictureKind : int { kNone = 0, kJpeg = 1, kPng = 2 };

/// A file's tags as the scanner reads them.
struct MediaFileInfo {
  MediaFileTags tags;
  std::string picture;  ///< cover picture bytes, empty when none
  PictureKind picture_kind = PictureKind::kNone;
  std::string reader;  ///< the reader that took the file ("flac", "ogg", "id3v2", "asf", "riff")
};

/// Reads a music file: the reader is chosen by the file's first bytes, else by
/// its extension. Returns 0, or a failure code when no reader takes the file or
/// it cannot be read. `want_picture` false skips cover pictures.
HResult ReadMediaFile(const std::filesystem::path& path, MediaFileInfo& info,
                      bool want_picture = true);

}  // namespace dischive
