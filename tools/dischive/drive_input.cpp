#include "drive_input.h"

#include <fmt/format.h>

namespace dischive::cli {

std::string DefaultDevice(const Context& context) {
  std::string device = context.settings->GetString("Drive", "Device", "");
  if (!device.empty()) return device;
  device = FirstCdDrive();
  if (device.empty()) {
    throw CommandError(kExitFailure,
                       "no CD drive found; name a drive or a disc image with --device PATH "
                       "(or set Drive.Device)");
  }
  return device;
}

DeviceDisc ReadDevice(const std::string& path, const Context& context) {
  const std::string device = path.empty() ? DefaultDevice(context) : path;
  context.Note("reading the disc in " + device);
  CdReadResult read = ReadCdDisc(device);
  if (read.error != CdError::kNone) throw CommandError(kExitFailure, read.message);
  std::string error;
  const auto toc = DiscTocFromCd(read.disc, &error);
  if (!toc) throw CommandError(kExitFailure, device + ": " + error);
  context.Note(
      fmt::format("{}: {} tracks, disc id {:08x}", device, toc->track_count, toc->disc_id));
  return {std::move(read.disc), *toc};
}

void AddDeviceDisc(const std::string& path, const Context& context, std::vector<DiscToc>& discs,
                   DiscCdTexts& cd_texts) {
  std::string device = path;
  if (device.empty()) {
    try {
      device = DefaultDevice(context);
    } catch (const CommandError& e) {
      throw CommandError(e.exit_code(), std::string(e.what()) +
                                            "; or give the disc as --offsets with --length, "
                                            "--cue FILE with --length, or --disc LINE");
    }
  }
  DeviceDisc read = ReadDevice(device, context);
  if (read.disc.has_cd_text) cd_texts[discs.size()] = MetadataFromCdText(read.disc);
  discs.push_back(read.toc);
}

void OfferCdText(std::vector<DiscRecord>& discs, const DiscCdTexts& cd_texts,
                 std::vector<std::string>& notes) {
  for (const auto& [index, metadata] : cd_texts) {
    if (index >= discs.size() || discs[index].result != kNoFreedbMatch) continue;
    discs[index].metadata = metadata;
    discs[index].result = kOk;
    notes[index] = "from the disc's CD-Text: freedb has no entry for this disc";
  }
}

}  // namespace dischive::cli
