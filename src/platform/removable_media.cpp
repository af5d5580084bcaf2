#include "platform/removable_media.h"

#include <fstream>
#include <sstream>
#include <system_error>

#include "util/parse.h"

namespace dischive::platform {
namespace {

namespace fs = std::filesystem;

// The kernel writes blanks, tabs, newlines and backslashes in paths as "\ooo".
std::string DecodeOctalEscapes(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && text.size() - i > 3 && text[i + 1] >= '0' && text[i + 1] <= '3' &&
        text[i + 2] >= '0' && text[i + 2] <= '7' && text[i + 3] >= '0' && text[i + 3] <= '7') {
      out.push_back(static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                      (text[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

// udev writes unsafe label characters as "\xHH".
std::string DecodeHexEscapes(std::string_view text) {
  std::string out;
  const auto hex = HexDigitValue;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && text.size() - i > 3 && text[i + 1] == 'x' && hex(text[i + 2]) >= 0 &&
        hex(text[i + 3]) >= 0) {
      out.push_back(static_cast<char>(hex(text[i + 2]) * 16 + hex(text[i + 3])));
      i += 3;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

std::string ReadSmallFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::string text(4096, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  return text;
}

bool IsPathBelow(const fs::path& path, const fs::path& base) {
  auto p = path.begin();
  for (auto b = base.begin(); b != base.end(); ++b, ++p) {
    if (b->empty()) continue;  // a trailing separator
    if (p == path.end() || *p != *b) return false;
  }
  return true;
}

// The sysfs folder of the whole disk that a block device (maybe a partition)
// belongs to.
fs::path DiskFolder(const fs::path& device_folder) {
  std::error_code ec;
  if (fs::exists(device_folder / "partition", ec)) return device_folder.parent_path();
  return device_folder;
}

bool IsRemovableOrOptical(const fs::path& disk) {
  if (ReadSmallFile(disk / "removable") == "1") return true;
  // SCSI peripheral type 5 is a CD/DVD drive; "sr" is the kernel's name for them.
  if (ReadSmallFile(disk / "device" / "type") == "5") return true;
  return disk.filename().string().rfind("sr", 0) == 0;
}

std::string LabelOf(const fs::path& labels, const std::string& device_name) {
  std::error_code ec;
  for (fs::directory_iterator it(labels, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code link_ec;
    const fs::path target = fs::read_symlink(it->path(), link_ec);
    if (!link_ec && target.filename() == device_name) {
      return DecodeHexEscapes(it->path().filename().string());
    }
  }
  return {};
}

}  // namespace

std::vector<MountEntry> ParseMountInfo(std::string_view text) {
  // "36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw"
  std::vector<MountEntry> entries;
  std::istringstream lines{std::string(text)};
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string id, parent, devno, root, mount_point;
    if (!(fields >> id >> parent >> devno >> root >> mount_point)) continue;
    const size_t colon = devno.find(':');
    if (colon == std::string::npos) continue;
    const std::optional<uint32_t> dev_major = ParseDecimal32(devno.substr(0, colon));
    const std::optional<uint32_t> dev_minor = ParseDecimal32(devno.substr(colon + 1));
    if (!dev_major || !dev_minor) continue;
    MountEntry entry;
    entry.major = *dev_major;
    entry.minor = *dev_minor;
    entry.mount_point = DecodeOctalEscapes(mount_point);
    std::string word;
    while (fields >> word && word != "-") {
    }
    std::string fstype;
    if (word == "-" && fields >> fstype >> word) entry.source = DecodeOctalEscapes(word);
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<RemovableVolume> FindRemovableVolume(const fs::path& path,
                                                   const MountSources& sources) {
  return RemovableVolumeFinder(sources).Find(path);
}

RemovableVolumeFinder::RemovableVolumeFinder(MountSources sources) : sources_(std::move(sources)) {
  std::ifstream in(sources_.mountinfo, std::ios::binary);
  if (!in) return;
  std::stringstream text;
  text << in.rdbuf();
  mounts_ = ParseMountInfo(text.str());
}

std::optional<RemovableVolume> RemovableVolumeFinder::Find(const fs::path& path) {
  // The innermost mount point wins; of equal ones the later mount (it hides the
  // earlier).
  const MountEntry* best = nullptr;
  size_t best_depth = 0;
  for (const MountEntry& mount : mounts_) {
    if (!IsPathBelow(path, mount.mount_point)) continue;
    const auto depth =
        static_cast<size_t>(std::distance(mount.mount_point.begin(), mount.mount_point.end()));
    if (best == nullptr || depth >= best_depth) {
      best = &mount;
      best_depth = depth;
    }
  }
  if (best == nullptr || best->major == 0) return std::nullopt;  // no block device

  for (const auto& [mount, volume] : devices_) {
    if (mount == best) return volume;
  }
  std::optional<RemovableVolume> volume;
  std::error_code ec;
  const fs::path device_link =
      sources_.sys_dev_block / (std::to_string(best->major) + ":" + std::to_string(best->minor));
  const fs::path device = fs::canonical(device_link, ec);
  if (!ec && IsRemovableOrOptical(DiskFolder(device))) {
    volume =
        RemovableVolume{best->mount_point, LabelOf(sources_.labels, device.filename().string())};
  }
  devices_.emplace_back(best, volume);
  return volume;
}

}  // namespace dischive::platform
