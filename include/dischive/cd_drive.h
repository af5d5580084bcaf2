// Audio CDs read from a CD drive or from a disc image (cue/bin, cdrdao .toc,
// nrg): the drives present, the table of contents, the media catalogue number,
// the ISRCs and the CD-Text, and what a lookup needs from them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dischive/cddb.h"

namespace dischive {

/// Why a disc could not be read.
enum class CdError {
  kNone,
  kNoDrive,       ///< no CD drive found, or the path names none
  kNoDisc,        ///< the drive is empty, its tray is open or it is not ready
  kDataOnly,      ///< the disc has no audio track
  kPermission,    ///< the drive exists but this user may not open it
  kCannotOpen,    ///< the drive or image could not be opened for another reason
  kDamagedImage,  ///< the image does not hold a readable table of contents
  kNotAnImage,    ///< a file that is neither a drive nor a known image type
};

/// One track of a disc's table of contents.
struct CdTrack {
  uint32_t number = 0;       ///< as the disc numbers it (1..99)
  uint32_t start_frame = 0;  ///< in frames of 1/75 s, counting the 150-frame lead-in
  bool audio = true;         ///< false for a data track
  std::string isrc;          ///< empty when the disc carries none
  std::string title;         ///< CD-Text title (UTF-8), empty when none
  std::string performer;     ///< CD-Text performer (UTF-8), empty when none
};

/// What a drive or an image tells about its disc.
struct CdDisc {
  std::string source;           ///< the drive or image path that was read
  bool image = false;           ///< true for a disc image
  std::vector<CdTrack> tracks;  ///< in disc order
  uint32_t lead_out_frame = 0;  ///< the end of the last track, with the lead-in
  std::string mcn;              ///< media catalogue number (UPC/EAN), empty when none
  bool has_cd_text = false;     ///< true when any CD-Text field was found
  std::string title;            ///< CD-Text album title
  std::string performer;        ///< CD-Text album performer
};

/// The outcome of reading a disc: `error` is kNone on success; `message` then is
/// empty, otherwise it is one line naming the drive or image.
struct CdReadResult {
  CdError error = CdError::kNone;
  std::string message;
  CdDisc disc;
};

/// A CD drive found on this machine.
struct CdDriveInfo {
  std::string path;       ///< "/dev/sr0"
  bool has_disc = false;  ///< a disc is in and the drive is ready
  std::string state;  ///< "disc in", "no disc", "tray open", "not ready", or why it cannot be asked
};

/// The CD drives found, in the order the system lists them.
std::vector<CdDriveInfo> ListCdDrives();

/// The first CD drive found, or an empty string when there is none.
std::string FirstCdDrive();

/// Reads the table of contents, MCN, ISRCs and CD-Text of the disc in a drive
/// or of a disc image (chosen by its extension: .cue, .toc, .nrg).
CdReadResult ReadCdDisc(const std::string& path);

/// The lookup's table of contents of a disc: every track counts, data tracks
/// too (the trailing data track of an enhanced CD), and the disc length is the
/// lead-out in whole seconds, as freedb computes its ids. nullopt with *error
/// set when the table of contents does not hold together.
std::optional<DiscToc> DiscTocFromCd(const CdDisc& disc, std::string* error);

/// The disc's CD-Text as lookup metadata (disc and track artist and title);
/// empty when the disc has no CD-Text.
DiscMetadata MetadataFromCdText(const CdDisc& disc);

}  // namespace dischive
