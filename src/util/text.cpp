#include "dischive/text.h"

#include <array>

namespace dischive {
namespace {

// Windows-1252 bytes 0x80-0x9F; the five bytes the code page leaves undefined
// map to the C1 control of the same value, as the platform converter does.
constexpr std::array<char16_t, 32> kCp1252High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

bool IsSurrogate(char32_t cp) {
  return cp >= 0xD800 && cp <= 0xDFFF;
}

// Appends the UTF-8 text of an 8-bit string whose bytes map through `high`
// (0x80-0x9F) and are Latin-1 otherwise.
std::string EightBitToUtf8(std::string_view text, const std::array<char16_t, 32>* high) {
  std::string out;
  out.reserve(text.size() + text.size() / 4);
  for (unsigned char c : text) {
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (high != nullptr && c < 0xA0) {
      AppendUtf8(out, (*high)[c - 0x80]);
    } else {
      AppendUtf8(out, c);
    }
  }
  return out;
}

int Cp1252FromCodePoint(char32_t cp) {
  if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) return static_cast<int>(cp);
  for (size_t i = 0; i < kCp1252High.size(); ++i) {
    if (kCp1252High[i] == cp) return static_cast<int>(0x80 + i);
  }
  return -1;
}

}  // namespace

char32_t DecodeUtf8(std::string_view text, size_t& pos) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(pos);
  if (lead < 0x80) {
    ++pos;
    return lead;
  }
  size_t length;
  char32_t cp;
  unsigned char lower = 0x80, upper = 0xBF;  // allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    cp = lead & 0x0F;
    if (lead == 0xE0) lower = 0xA0;  // overlong
    if (lead == 0xED) upper = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    cp = lead & 0x07;
    if (lead == 0xF0) lower = 0x90;  // overlong
    if (lead == 0xF4) upper = 0x8F;  // above U+10FFFF
  } else {
    ++pos;
    return kReplacementChar;
  }
  size_t i = pos + 1;
  for (size_t k = 1; k < length; ++k, ++i) {
    if (i >= text.size()) {
      pos = i;
      return kReplacementChar;
    }
    const unsigned char c = byte(i);
    const unsigned char lo = k == 1 ? lower : 0x80;
    const unsigned char hi = k == 1 ? upper : 0xBF;
    if (c < lo || c > hi) {
      pos = i;  // the maximal invalid prefix ends before this byte
      return kReplacementChar;
    }
    cp = (cp << 6) | (c & 0x3F);
  }
  pos = i;
  return cp;
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp > 0x10FFFF || IsSurrogate(cp)) cp = kReplacementChar;
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool IsValidUtf8(std::string_view text) {
  for (size_t pos = 0; pos < text.size();) {
    const size_t start = pos;
    if (DecodeUtf8(text, pos) == kReplacementChar &&
        text.substr(start, pos - start) != "\xEF\xBF\xBD") {
      return false;
    }
  }
  return true;
}

std::string SanitizeUtf8(std::string_view text) {
  // Fast path: most text is valid and is returned as it is.
  if (IsValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t pos = 0; pos < text.size();)
    AppendUtf8(out, DecodeUtf8(text, pos));
  return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size() * 3 / 2);
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t unit = text[i];
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      unit = 0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    }
    AppendUtf8(out, unit);  // a lone surrogate becomes U+FFFD
  }
  return out;
}

std::string Utf16BytesToUtf8(std::span<const uint8_t> bytes, ByteOrder order) {
  size_t start = 0;
  if (bytes.size() >= 2) {
    if (bytes[0] == 0xFF && bytes[1] == 0xFE) {
      order = ByteOrder::kLittleEndian;
      start = 2;
    } else if (bytes[0] == 0xFE && bytes[1] == 0xFF) {
      order = ByteOrder::kBigEndian;
      start = 2;
    }
  }
  std::u16string units;
  units.reserve((bytes.size() - start) / 2);
  for (size_t i = start; i + 1 < bytes.size(); i += 2) {
    const auto a = static_cast<char16_t>(bytes[i]);
    const auto b = static_cast<char16_t>(bytes[i + 1]);
    units.push_back(order == ByteOrder::kLittleEndian ? static_cast<char16_t>(a | (b << 8))
                                                      : static_cast<char16_t>((a << 8) | b));
  }
  std::string out = Utf16ToUtf8(units);
  if ((bytes.size() - start) % 2 != 0) AppendUtf8(out, kReplacementChar);
  return out;
}

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    const char32_t cp = DecodeUtf8(text, pos);
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string Utf8ToUtf16Bytes(std::string_view text, ByteOrder order, bool with_bom) {
  std::u16string units = Utf8ToUtf16(text);
  if (with_bom) units.insert(units.begin(), u'\xFEFF');
  std::string out;
  out.reserve(units.size() * 2);
  for (char16_t u : units) {
    const char lo = static_cast<char>(u & 0xFF);
    const char hi = static_cast<char>(u >> 8);
    out.push_back(order == ByteOrder::kLittleEndian ? lo : hi);
    out.push_back(order == ByteOrder::kLittleEndian ? hi : lo);
  }
  return out;
}

std::string Latin1ToUtf8(std::string_view text) {
  return EightBitToUtf8(text, nullptr);
}

std::string Utf8ToLatin1(std::string_view text, char replacement) {
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    const char32_t cp = DecodeUtf8(text, pos);
    out.push_back(cp <= 0xFF ? static_cast<char>(cp) : replacement);
  }
  return out;
}

std::string Cp1252ToUtf8(std::string_view text) {
  return EightBitToUtf8(text, &kCp1252High);
}

std::string Utf8ToCp1252(std::string_view text, char replacement) {
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    const int b = Cp1252FromCodePoint(DecodeUtf8(text, pos));
    out.push_back(b >= 0 ? static_cast<char>(b) : replacement);
  }
  return out;
}

std::string ToUtf8(std::string_view text, CodePage page) {
  switch (page) {
    case CodePage::kWindows1252:
      return Cp1252ToUtf8(text);
    case CodePage::kLatin1:
      return Latin1ToUtf8(text);
    case CodePage::kUtf8:
      break;
  }
  return SanitizeUtf8(text);
}

std::string FromUtf8(std::string_view text, CodePage page) {
  switch (page) {
    case CodePage::kWindows1252:
      return Utf8ToCp1252(text);
    case CodePage::kLatin1:
      return Utf8ToLatin1(text);
    case CodePage::kUtf8:
      break;
  }
  return SanitizeUtf8(text);
}

char ToLowerAscii(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

std::string ToLowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    c = ToLowerAscii(c);
  return out;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (ToLowerAscii(a[i]) != ToLowerAscii(b[i])) return false;
  }
  return true;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoreCase(text.substr(0, prefix.size()), prefix);
}

bool EndsWithIgnoreCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         EqualsIgnoreCase(text.substr(text.size() - suffix.size()), suffix);
}

std::string_view TrimBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(kBlanks);
  return text.substr(first, last - first + 1);
}

}  // namespace dischive
