// The mail body encoding of a submitted entry (quoted-printable, RFC 2045
// section 6.7), SMTP's dot transparency (RFC 5321 section 4.5.2) and the HELO
// name.
#include "cddb/submission_internal.h"
#include "platform/host_name.h"

namespace dischive {
namespace {

// Encoded lines are broken once they hold more than this many characters, so
// that none passes 76 with its "=" (an encoded character takes three).
constexpr size_t kSoftBreakAfter = 72;

void AppendEncoded(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out += '=';
  out += kHex[c >> 4];
  out += kHex[c & 15];
}

}  // namespace

void EncodeQuotedPrintable(std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8 + 16);
  size_t line = 0;  // characters on the current output line
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '\r') {
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
      out += "\r\n";
      line = 0;
      continue;
    }
    if (line > kSoftBreakAfter) {
      out += "=\r\n";
      line = 0;
    }
    const size_t before = out.size();
    if ((c < ' ' && c != '\t') || c == '=' || c > '~') {
      AppendEncoded(out, c);
    } else if (c == ' ' || c == '\t') {
      // Decoders drop white space at the end of a line (RFC 2045 rule 3): a
      // blank or tab that ends one, before a line end, a soft break or the
      // end of the text, is encoded so that it survives.
      const bool last = i + 1 == text.size() || text[i + 1] == '\r' || line + 1 > kSoftBreakAfter;
      if (last) {
        AppendEncoded(out, c);
      } else {
        out += static_cast<char>(c);
      }
    } else {
      out += static_cast<char>(c);
    }
    line += out.size() - before;
  }
  text = std::move(out);
}

std::string GetHeloName() {
  return HeloNameFrom(platform::MachineHostName().value_or(std::string()));
}

std::string HeloNameFrom(std::string_view host_name) {
  if (host_name.empty()) return "localhost";
  std::string out(host_name.substr(0, 255));
  for (char& c : out) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '.';
    if (!keep) c = '_';
  }
  return out;
}

namespace detail {

std::string StuffDots(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 16);
  bool line_start = true;
  for (const char c : text) {
    if (line_start && c == '.') out += '.';
    out += c;
    line_start = c == '\n';
  }
  return out;
}

}  // namespace detail
}  // namespace dischive
