// Reading a disc from a CD drive or a disc image for the commands that need
// one (dischive drive toc, dischive lookup --device).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "cli.h"
#include "dischive/cd_drive.h"

namespace dischive::cli {

/// A disc read from a drive or image, with its lookup table of contents.
struct DeviceDisc {
  CdDisc disc;
  DiscToc toc;
};

/// The drive to read when none is named: the setting Drive.Device, else the
/// first drive found. Throws CommandError when there is none.
std::string DefaultDevice(const Context& context);

/// Reads the disc in a drive or image (an empty path: the default drive).
/// Throws CommandError with a one-line reason naming the drive or image.
DeviceDisc ReadDevice(const std::string& path, const Context& context);

/// CD-Text of the discs of a lookup, by their place in the request.
using DiscCdTexts = std::map<size_t, DiscMetadata>;

/// Reads a drive or image (empty: the default drive) and appends its table of
/// contents to `discs`, and its CD-Text, if any, to `cd_texts`.
void AddDeviceDisc(const std::string& path, const Context& context, std::vector<DiscToc>& discs,
                   DiscCdTexts& cd_texts);

/// Gives each disc that freedb does not know and that carries CD-Text its
/// CD-Text as the result, and says so in its note.
void OfferCdText(std::vector<DiscRecord>& discs, const DiscCdTexts& cd_texts,
                 std::vector<std::string>& notes);

}  // namespace dischive::cli
