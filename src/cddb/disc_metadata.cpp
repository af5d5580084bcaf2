// The disc description a lookup fills, and the freedb disc id.
#include "dischive/cddb.h"

namespace dischive {

void DiscMetadata::Append(MetadataEntry entry) {
  // Grows in steps of kGrowth entries, as the host's list does.
  if (entries_.size() == entries_.capacity()) entries_.reserve(entries_.capacity() + kGrowth);
  entries_.push_back(std::move(entry));
}

void DiscMetadata::SetText(field::FieldId id, uint32_t index, std::string value) {
  Append(MetadataEntry{id, index, PropertyValue(std::move(value))});
}

void DiscMetadata::SetInt(field::FieldId id, uint32_t index, int32_t value) {
  Append(MetadataEntry{id, index, PropertyValue(value)});
}

const PropertyValue* DiscMetadata::Find(field::FieldId id, uint32_t index) const {
  for (const MetadataEntry& entry : entries_) {
    if (entry.field_id == id && entry.index == index) return &entry.value;
  }
  return nullptr;
}

PropertyValue* DiscMetadata::FindMutable(field::FieldId id, uint32_t index) {
  for (MetadataEntry& entry : entries_) {
    if (entry.field_id == id && entry.index == index) return &entry.value;
  }
  return nullptr;
}

std::optional<std::string> DiscMetadata::Text(field::FieldId id, uint32_t index) const {
  const PropertyValue* value = Find(id, index);
  if (value == nullptr || !std::holds_alternative<std::string>(*value)) return std::nullopt;
  return std::get<std::string>(*value);
}

std::optional<int32_t> DiscMetadata::Int(field::FieldId id, uint32_t index) const {
  const PropertyValue* value = Find(id, index);
  if (value == nullptr || !std::holds_alternative<int32_t>(*value)) return std::nullopt;
  return std::get<int32_t>(*value);
}

namespace {

uint32_t DigitSum(uint32_t n) {
  uint32_t sum = 0;
  for (; n > 0; n /= 10)
    sum += n % 10;
  return sum;
}

}  // namespace

// The freedb disc id: checksum byte, playing time in seconds (16 bits), track
// count (8 bits). The time runs from the first track's start to the lead-out.
uint32_t ComputeFreedbDiscId(const uint32_t* frame_offsets, uint32_t track_count,
                             uint32_t disc_length_seconds) {
  const uint32_t count = track_count < kMaxDiscTracks ? track_count : kMaxDiscTracks;
  uint32_t checksum = 0;
  for (uint32_t i = 0; i < count; ++i)
    checksum += DigitSum(frame_offsets[i] / 75);
  const uint32_t first = count > 0 ? frame_offsets[0] / 75 : 0;
  const uint32_t seconds = disc_length_seconds > first ? disc_length_seconds - first : 0;
  return (checksum % 255) << 24 | (seconds & 0xFFFF) << 8 | (count & 0xFF);
}

}  // namespace dischive
