// Disc images written by the tests: a cue sheet or a cdrdao .toc file with a
// raw .bin of silence beside it, read through libcdio as a drive would be.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace dischive::test {

/// One track of an image.
struct ImageTrack {
  uint32_t start = 0;                  ///< first frame in the .bin (without the 150-frame lead-in)
  bool audio = true;                   ///< false: a MODE1 data track
  std::string title, performer, isrc;  ///< CD-Text and ISRC, written as given
};

/// A disc: its tracks, length and disc-level data.
struct DiscLayout {
  std::vector<ImageTrack> tracks;
  uint32_t frames = 0;  ///< length of the .bin in frames (2352 bytes each)
  std::string title, performer, mcn;
};

/// Audio tracks starting at these frames of a .bin of `frames`, no texts.
DiscLayout PlainImage(const std::vector<uint32_t>& starts, uint32_t frames);

/// Writes NAME.cue and NAME.bin into `folder`; returns the .cue path.
std::filesystem::path WriteCueImage(const std::filesystem::path& folder, const std::string& name,
                                    const DiscLayout& layout);
/// Writes NAME.toc (CD_TEXT blocks for the texts) and NAME.bin; returns the .toc path.
std::filesystem::path WriteTocImage(const std::filesystem::path& folder, const std::string& name,
                                    const DiscLayout& layout);

}  // namespace dischive::test
