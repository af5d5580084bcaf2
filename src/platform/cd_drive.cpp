// CD drives and disc images on libcdio. libcdio reads real drives through the
// kernel's CD-ROM driver and opens cue/bin, cdrdao .toc and nrg images through
// the same interface, so the tests read images along the path a drive takes.
#include "dischive/cd_drive.h"

#include <cdio/cdio.h>
#include <cdio/cdtext.h>
#include <cdio/logging.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/cdrom.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>

#include "dischive/text.h"

namespace dischive {
namespace {

// libcdio reports what went wrong through its log, not through its results.
// The handler keeps the messages of the calling thread (for the one-line error
// of a damaged image) instead of printing them on standard error.
thread_local std::string t_cdio_log;

void KeepLogMessage(cdio_log_level_t level, const char* message) {
  if (level < CDIO_LOG_INFO || message == nullptr || !t_cdio_log.empty()) return;
  // The first message names the cause; it may quote bytes of a hostile image,
  // so it is cut short and stripped of control characters.
  std::string text(message, ::strnlen(message, 200));
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  while (!text.empty() && text.back() == ' ')
    text.pop_back();
  if (text == "init failed") return;
  t_cdio_log = text;
}

void InstallLogHandler() {
  static std::once_flag once;
  std::call_once(once, [] { cdio_log_set_handler(&KeepLogMessage); });
}

// The last libcdio message of this thread, emptied.
std::string TakeLog() {
  std::string text = std::move(t_cdio_log);
  t_cdio_log.clear();
  return text;
}

struct CdioCloser {
  void operator()(CdIo_t* p) const noexcept { cdio_destroy(p); }
};
using CdioHandle = std::unique_ptr<CdIo_t, CdioCloser>;

struct CdioText {
  void operator()(char* p) const noexcept { cdio_free(p); }
};
std::string TakeCdioString(char* text) {
  std::unique_ptr<char, CdioText> owned(text);
  return text != nullptr ? std::string(text, ::strnlen(text, 256)) : std::string();
}

std::string Extension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
  return ToLowerAscii(path.substr(dot + 1));
}

CdReadResult Failure(CdError error, std::string message) {
  CdReadResult result;
  result.error = error;
  result.message = std::move(message);
  return result;
}

// The group that owns a device, so that a permission failure can say which
// group the user needs ("cdrom" on Debian).
std::string OwningGroup(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return "cdrom";
  std::string buffer(1024, '\0');
  struct group entry {};
  struct group* found = nullptr;
  if (::getgrgid_r(st.st_gid, &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr || found->gr_gid == 0) {
    return "cdrom";
  }
  return found->gr_name;
}

// What the kernel says about the tray; kNone when a disc is in and ready.
CdError DriveState(const std::string& path, std::string* text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    if (err == EACCES || err == EPERM) {
      *text = fmt::format("{}: {} (add your user to the group {})", path, std::strerror(err),
                          OwningGroup(path));
      return CdError::kPermission;
    }
    if (err == ENOENT || err == ENXIO || err == ENODEV) {
      *text = fmt::format("{}: no such CD drive ({})", path, std::strerror(err));
      return CdError::kNoDrive;
    }
    if (err == ENOMEDIUM) {
      *text = fmt::format("{}: no disc in the drive", path);
      return CdError::kNoDisc;
    }
    *text = fmt::format("{}: {}", path, std::strerror(err));
    return CdError::kCannotOpen;
  }
  const int status = ::ioctl(fd, CDROM_DRIVE_STATUS, CDSL_CURRENT);
  const int err = errno;
  ::close(fd);
  switch (status) {
    case CDS_DISC_OK:
      return CdError::kNone;
    case CDS_NO_DISC:
      *text = fmt::format("{}: no disc in the drive", path);
      return CdError::kNoDisc;
    case CDS_TRAY_OPEN:
      *text = fmt::format("{}: no disc in the drive (the tray is open)", path);
      return CdError::kNoDisc;
    case CDS_DRIVE_NOT_READY:
      *text = fmt::format("{}: the drive is not ready (try again when it has read the disc)", path);
      return CdError::kNoDisc;
    default:
      break;
  }
  if (status < 0 && (err == ENOTTY || err == EINVAL)) {
    *text = fmt::format("{}: not a CD drive", path);
    return CdError::kNoDrive;
  }
  return CdError::kNone;  // CDS_NO_INFO: let libcdio try
}

std::string CdText(const cdtext_t* text, cdtext_field_t field, track_t track) {
  const char* value = cdtext_get_const(text, field, track);
  if (value == nullptr) return {};
  // CD-Text fields are at most 160 bytes a pack block; keep a bound anyway.
  return std::string(value, ::strnlen(value, 4096));
}

CdReadResult ReadOpenDisc(CdIo_t* cdio, const std::string& path, bool image) {
  CdReadResult result;
  CdDisc& disc = result.disc;
  disc.source = path;
  disc.image = image;
  const track_t first = cdio_get_first_track_num(cdio);
  const track_t count = cdio_get_num_tracks(cdio);
  if (first == CDIO_INVALID_TRACK || count == CDIO_INVALID_TRACK || count == 0) {
    const std::string log = TakeLog();
    if (image) {
      return Failure(CdError::kDamagedImage,
                     fmt::format("{}: damaged disc image: no tracks{}", path,
                                 log.empty() ? "" : " (" + log + ")"));
    }
    return Failure(CdError::kNoDisc, fmt::format("{}: no disc in the drive", path));
  }
  if (first < 1 || count > CDIO_CD_MAX_TRACKS || first + count - 1 > CDIO_CD_MAX_TRACKS) {
    return Failure(image ? CdError::kDamagedImage : CdError::kCannotOpen,
                   fmt::format("{}: the table of contents lists tracks {} to {}", path, first,
                               first + count - 1));
  }
  bool any_audio = false;
  for (track_t t = first; t < first + count; ++t) {
    CdTrack track;
    track.number = t;
    const lba_t lba = cdio_get_track_lba(cdio, t);
    if (lba == CDIO_INVALID_LBA || lba < 0) {
      return Failure(image ? CdError::kDamagedImage : CdError::kCannotOpen,
                     fmt::format("{}: cannot read where track {} starts", path, t));
    }
    track.start_frame = static_cast<uint32_t>(lba);
    track.audio = cdio_get_track_format(cdio, t) == TRACK_FORMAT_AUDIO;
    any_audio = any_audio || track.audio;
    track.isrc = TakeCdioString(cdio_get_track_isrc(cdio, t));
    if (!disc.tracks.empty() && track.start_frame <= disc.tracks.back().start_frame) {
      return Failure(image ? CdError::kDamagedImage : CdError::kCannotOpen,
                     fmt::format("{}: track {} starts before track {}", path, t, t - 1));
    }
    disc.tracks.push_back(std::move(track));
  }
  const lba_t lead_out = cdio_get_track_lba(cdio, CDIO_CDROM_LEADOUT_TRACK);
  if (lead_out == CDIO_INVALID_LBA || lead_out <= 0 ||
      static_cast<uint32_t>(lead_out) <= disc.tracks.back().start_frame) {
    return Failure(
        image ? CdError::kDamagedImage : CdError::kCannotOpen,
        fmt::format("{}: the disc's lead-out is missing or before its last track", path));
  }
  disc.lead_out_frame = static_cast<uint32_t>(lead_out);
  if (!any_audio) {
    return Failure(CdError::kDataOnly,
                   fmt::format("{}: a data disc: it has no audio tracks to look up", path));
  }
  disc.mcn = TakeCdioString(cdio_get_mcn(cdio));
  if (const cdtext_t* text = cdio_get_cdtext(cdio)) {
    disc.title = CdText(text, CDTEXT_FIELD_TITLE, 0);
    disc.performer = CdText(text, CDTEXT_FIELD_PERFORMER, 0);
    disc.has_cd_text = !disc.title.empty() || !disc.performer.empty();
    for (CdTrack& track : disc.tracks) {
      const auto t = static_cast<track_t>(track.number);
      track.title = CdText(text, CDTEXT_FIELD_TITLE, t);
      track.performer = CdText(text, CDTEXT_FIELD_PERFORMER, t);
      disc.has_cd_text = disc.has_cd_text || !track.title.empty() || !track.performer.empty();
    }
  }
  TakeLog();
  return result;
}

// Checks a cue sheet before libcdio parses it: a bounded size and at least one
// TRACK line (libcdio 2.1 leaks its data file name on a sheet without one).
// Empty when it may be handed on, else the reason.
std::string CheckCueSheet(const std::string& path) {
  constexpr std::streamsize kMaxCueBytes = 1 << 20;
  std::ifstream in(path, std::ios::binary);
  std::string text(static_cast<size_t>(kMaxCueBytes) + 1, '\0');
  in.read(text.data(), kMaxCueBytes + 1);
  if (in.bad()) return std::strerror(errno);
  text.resize(static_cast<size_t>(in.gcount()));
  if (text.size() > static_cast<size_t>(kMaxCueBytes)) return "too large for a cue sheet";
  std::istringstream lines(text);
  for (std::string word, line; std::getline(lines, line);) {
    std::istringstream words(line);
    if (words >> word && ToLowerAscii(word) == "track") return {};
  }
  return "the cue sheet lists no TRACK";
}

}  // namespace

std::vector<CdDriveInfo> ListCdDrives() {
  InstallLogHandler();
  std::vector<CdDriveInfo> drives;
  char** list = cdio_get_devices(DRIVER_DEVICE);
  for (char** p = list; p != nullptr && *p != nullptr; ++p) {
    CdDriveInfo info;
    info.path = *p;
    std::string text;
    const CdError state = DriveState(info.path, &text);
    info.has_disc = state == CdError::kNone;
    if (info.has_disc) {
      info.state = "disc in";
    } else {
      // "/dev/sr0: no disc in the drive" -> "no disc in the drive"
      const size_t colon = text.find(": ");
      info.state = colon != std::string::npos ? text.substr(colon + 2) : text;
    }
    drives.push_back(std::move(info));
  }
  cdio_free_device_list(list);
  TakeLog();
  return drives;
}

std::string FirstCdDrive() {
  InstallLogHandler();
  char** list = cdio_get_devices(DRIVER_DEVICE);
  std::string first = list != nullptr && list[0] != nullptr ? list[0] : "";
  cdio_free_device_list(list);
  TakeLog();
  return first;
}

CdReadResult ReadCdDisc(const std::string& path) {
  InstallLogHandler();
  TakeLog();
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    const int err = errno;
    if (err == EACCES) {
      return Failure(CdError::kPermission, fmt::format("{}: {}", path, std::strerror(err)));
    }
    return Failure(path.rfind("/dev/", 0) == 0 ? CdError::kNoDrive : CdError::kCannotOpen,
                   fmt::format("{}: {}", path, std::strerror(err)));
  }
  if (S_ISBLK(st.st_mode) || S_ISCHR(st.st_mode)) {
    std::string text;
    const CdError state = DriveState(path, &text);
    if (state != CdError::kNone) return Failure(state, text);
    CdioHandle cdio(cdio_open(path.c_str(), DRIVER_DEVICE));
    if (!cdio) {
      const std::string log = TakeLog();
      return Failure(CdError::kCannotOpen, fmt::format("{}: cannot open the CD drive{}", path,
                                                       log.empty() ? "" : " (" + log + ")"));
    }
    return ReadOpenDisc(cdio.get(), path, false);
  }
  if (S_ISDIR(st.st_mode)) {
    return Failure(CdError::kNotAnImage, fmt::format("{}: Is a directory", path));
  }
  const std::string ext = Extension(path);
  driver_id_t driver = DRIVER_UNKNOWN;
  if (ext == "cue") {
    driver = DRIVER_BINCUE;
  } else if (ext == "toc") {
    driver = DRIVER_CDRDAO;
  } else if (ext == "nrg") {
    driver = DRIVER_NRG;
  } else {
    return Failure(CdError::kNotAnImage,
                   fmt::format("{}: not a CD drive or a disc image (.cue, .toc or .nrg)", path));
  }
  if (::access(path.c_str(), R_OK) != 0) {
    return Failure(CdError::kCannotOpen, fmt::format("{}: {}", path, std::strerror(errno)));
  }
  if (driver == DRIVER_BINCUE) {
    const std::string problem = CheckCueSheet(path);
    if (!problem.empty()) {
      return Failure(CdError::kDamagedImage,
                     fmt::format("{}: damaged disc image: {}", path, problem));
    }
  }
  CdioHandle cdio(cdio_open(path.c_str(), driver));
  if (!cdio) {
    const std::string log = TakeLog();
    return Failure(CdError::kDamagedImage,
                   fmt::format("{}: damaged disc image{}", path, log.empty() ? "" : ": " + log));
  }
  return ReadOpenDisc(cdio.get(), path, true);
}

}  // namespace dischive
