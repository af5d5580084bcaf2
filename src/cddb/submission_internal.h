// Pieces the two ways of submitting share.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "dischive/cddb.h"

namespace dischive::detail {

/// "request_deadline" (seconds, default 120): how long one whole exchange may take.
std::chrono::milliseconds RequestDeadline(const SettingsStore& settings);

/// True for an address that can stand in a header or an SMTP command as it
/// is: not empty, no blanks, control characters, quotes or angle brackets.
bool IsPlainAddress(std::string_view address);

/// The entry as it goes on the wire (ISO-8859-1), and its mail subject.
std::string WireEntry(const DiscSubmission& submission, std::string* subject);

/// Puts one more "." before every line that begins with "." (SMTP's
/// transparency rule): the receiver removes it again.
std::string StuffDots(std::string_view text);

/// The code of an SMTP reply's last line, or nullopt for a continuation line
/// ("250-"; RFC 5321 section 4.2.1). A line that does not start with three
/// digits gives 0, which no step accepts.
std::optional<int> SmtpFinalLine(std::string_view line);

}  // namespace dischive::detail
