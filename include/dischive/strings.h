// The string catalogue: user-visible texts by number. The numbers are those the
// host application uses for its texts (progress lines, error texts, fallback
// names such as "various artists"); the library carries English texts of its own
// under them, and a language file can replace any of them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace dischive {

/// Well-known text numbers used by more than one subsystem.
namespace strings {
inline constexpr uint32_t kUnknownError = 5034;    ///< "Unknown error"
inline constexpr uint32_t kErrorWithCode = 5051;   ///< "Error %u (0x%08X)" (code, code)
inline constexpr uint32_t kLookupStarting = 5087;  ///< progress before the lookups
inline constexpr uint32_t kLookupDisc = 5091;      ///< progress before each disc
inline constexpr uint32_t kConnecting = 5169;      ///< "Connecting to %s..." (server or proxy)
inline constexpr uint32_t kSubmitSending = 5093;   ///< progress before each submitted entry
inline constexpr uint32_t kLookupClosing = 5092;   ///< progress before closing a CDDB connection
inline constexpr uint32_t kFreedbUnknownArtist = 5191;  ///< artist of a match line without one
inline constexpr uint32_t kVariousArtists = 5383;       ///< "Various Artists"
inline constexpr uint32_t kUnknownArtist = 5622;        ///< "Unknown Artist"
inline constexpr uint32_t kUnknownAlbum = 5661;         ///< "Unknown Album"
inline constexpr uint32_t kBinaryBody = 5776;           ///< transcript line for a binary body
inline constexpr uint32_t kServiceErrorCode = 6101;     ///< "Service error %d"
}  // namespace strings

/// The text under `id`: the language file's when loaded, else the built-in
/// English one, else an empty string.
std::string LoadHostString(uint32_t id);

/// True when a text exists under `id` (built in or loaded).
bool HasHostString(uint32_t id);

/// The numbers of all built-in texts, ascending.
std::vector<uint32_t> BuiltinStringIds();

/// Loads a language file that overrides texts: lines "NUMBER=text" (an optional
/// "[strings]" header, '#' or ';' comments); "\n", "\t" and "\\" escapes are
/// honoured in the text. Returns the number of texts loaded, or -1 when the file
/// cannot be read (*error says why).
int LoadLanguageFile(const std::filesystem::path& path, std::string* error = nullptr);

/// Drops every loaded override, back to the built-in texts.
void ResetLanguage();

}  // namespace dischive
