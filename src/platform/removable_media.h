// Which mounted volume holds a path, and whether its device is removable or
// optical: the Linux stand-in for drive letters and their drive types.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dischive::platform {

/// One line of /proc/self/mountinfo.
struct MountEntry {
  std::filesystem::path mount_point;
  unsigned major = 0;
  unsigned minor = 0;
  std::string source;  ///< the mount source, "/dev/sdb1" for a block device
};

/// Parses the text of /proc/self/mountinfo; malformed lines are skipped and
/// the octal escapes of the kernel ("\040" for a blank) are decoded.
std::vector<MountEntry> ParseMountInfo(std::string_view text);

/// A removable or optical volume that holds a path.
struct RemovableVolume {
  std::filesystem::path mount_point;
  std::string label;  ///< the file system's label, empty when it has none
};

/// Where the system keeps what the lookup reads; tests point these at a tree of
/// their own.
struct MountSources {
  std::filesystem::path mountinfo = "/proc/self/mountinfo";
  std::filesystem::path sys_dev_block = "/sys/dev/block";
  std::filesystem::path labels = "/dev/disk/by-label";
};

/// The removable or optical volume that holds `path` (an absolute, lexically
/// normal path), or nullopt when the path lies on a fixed disk or nothing can
/// be told.
std::optional<RemovableVolume> FindRemovableVolume(const std::filesystem::path& path,
                                                   const MountSources& sources = {});

/// The same lookup for many paths: the mount table is read once and the answer
/// for each device is kept (mounts are taken not to change meanwhile).
class RemovableVolumeFinder {
 public:
  explicit RemovableVolumeFinder(MountSources sources = {});
  std::optional<RemovableVolume> Find(const std::filesystem::path& path);

 private:
  MountSources sources_;
  std::vector<MountEntry> mounts_;
  std::vector<std::pair<const MountEntry*, std::optional<RemovableVolume>>> devices_;
};

}  // namespace dischive::platform
