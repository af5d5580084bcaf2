// Text conversions. The library's own text is UTF-8 in std::string; readers
// convert what they read into it and writers convert out of it. Invalid input is
// replaced (U+FFFD, or '?' in an 8-bit target), never rejected.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace dischive {

/// Code pages known to the converters, by their Windows numbers.
enum class CodePage : uint32_t {
  kWindows1252 = 1252,
  kLatin1 = 28591,
  kUtf8 = 65001,
};

/// Byte order of UTF-16 data without (or before) a byte order mark.
enum class ByteOrder { kLittleEndian, kBigEndian };

inline constexpr char32_t kReplacementChar = 0xFFFD;

/// Decodes one UTF-8 sequence at text[pos] and advances pos past it. Malformed,
/// overlong, surrogate and out-of-range sequences give U+FFFD and advance by the
/// length of the maximal invalid prefix (at least one byte).
char32_t DecodeUtf8(std::string_view text, size_t& pos);
/// Appends the UTF-8 form of a code point (U+FFFD for surrogates and values above U+10FFFF).
void AppendUtf8(std::string& out, char32_t cp);
/// True when the whole text is well-formed UTF-8.
bool IsValidUtf8(std::string_view text);
/// The text with every malformed sequence replaced by U+FFFD.
std::string SanitizeUtf8(std::string_view text);

/// UTF-16 code units to UTF-8; unpaired surrogates become U+FFFD.
std::string Utf16ToUtf8(std::u16string_view text);
/// UTF-16 bytes to UTF-8. A leading byte order mark decides the order and is
/// dropped; without one `order` is used. An odd trailing byte becomes U+FFFD.
/// Conversion stops at nothing: embedded NUL code units are kept.
std::string Utf16BytesToUtf8(std::span<const uint8_t> bytes, ByteOrder order);
/// UTF-8 to UTF-16 code units.
std::u16string Utf8ToUtf16(std::string_view text);
/// UTF-8 to UTF-16 bytes in the given order, optionally with a byte order mark.
std::string Utf8ToUtf16Bytes(std::string_view text, ByteOrder order, bool with_bom);

/// ISO-8859-1 to UTF-8 (every byte is a code point).
std::string Latin1ToUtf8(std::string_view text);
/// UTF-8 to ISO-8859-1; characters outside it become `replacement`.
std::string Utf8ToLatin1(std::string_view text, char replacement = '?');
/// Windows-1252 to UTF-8; the five undefined bytes map to the C1 controls.
std::string Cp1252ToUtf8(std::string_view text);
/// UTF-8 to Windows-1252; characters outside it become `replacement`.
std::string Utf8ToCp1252(std::string_view text, char replacement = '?');

/// 8-bit or UTF-8 text in `page` to UTF-8.
std::string ToUtf8(std::string_view text, CodePage page);
/// UTF-8 to text in `page`.
std::string FromUtf8(std::string_view text, CodePage page);

/// ASCII-only case helpers (the library's comparisons "without regard to case").
char ToLowerAscii(char c);
std::string ToLowerAscii(std::string_view text);
bool EqualsIgnoreCase(std::string_view a, std::string_view b);
bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix);
bool EndsWithIgnoreCase(std::string_view text, std::string_view suffix);
/// The text without leading and trailing blanks (space, tab, CR, LF).
std::string_view TrimBlanks(std::string_view text);

}  // namespace dischive
