// The catalogue's fields by name: one table for every report and document.
#pragma once

#include <span>
#include <string>

#include "dischive/fields.h"

namespace dischive {

/// How a field's number is shown to a person (text fields are shown as they are).
enum class FieldKind : uint8_t {
  kText,
  kNumber,  ///< decimal
  kDate,    ///< a packed date, "YYYY-MM-DD"
  kMoney,   ///< hundredths, "12.99"
  kHex,     ///< "%08X" (ids, flag words, times)
};

/// A field's name, as the collection document writes it.
struct FieldName {
  field::FieldId id;
  const char* name;
  FieldKind kind;
};

/// Every field the library names.
std::span<const FieldName> FieldNames();
/// The entry of one field; nullptr for a field without a name.
const FieldName* FindFieldName(field::FieldId id);
/// The field's name, or "0x%08X" of its id for a field without one.
std::string FieldLabel(field::FieldId id);

}  // namespace dischive
