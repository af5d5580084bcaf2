// INI files as the Windows profile functions know them: "[section]" headers and
// "key=value" lines, section and key names compared without regard to case.
// Rewriting keeps comments, blank lines and the order of everything untouched.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dischive {

class IniDocument {
 public:
  IniDocument() = default;
  /// Parses text; never fails (lines that are neither a header, a pair, a
  /// comment nor blank are kept as they stand and otherwise ignored).
  static IniDocument Parse(std::string_view text);
  /// Reads a file; a missing file gives an empty document and *error stays empty,
  /// any other failure fills *error.
  static IniDocument Load(const std::filesystem::path& path, std::string* error = nullptr);

  /// The value of key in section (white space around it trimmed), if present.
  std::optional<std::string> Get(std::string_view section, std::string_view key) const;
  /// Sets a value: replaces the first existing pair in place, or appends the
  /// pair to the section, creating the section at the end when needed.
  void Set(std::string_view section, std::string_view key, std::string_view value);
  /// Removes every pair with that key from the section; true when one existed.
  bool Remove(std::string_view section, std::string_view key);
  /// Removes a whole section with its pairs and comments.
  bool RemoveSection(std::string_view section);

  std::vector<std::string> Sections() const;
  /// Pairs of a section in file order (first occurrence of each key wins).
  std::vector<std::pair<std::string, std::string>> Entries(std::string_view section) const;

  /// The document as text, "\n" line ends.
  std::string Serialize() const;
  /// Writes the document to a temporary file beside `path` and renames it into
  /// place, so a failure never leaves a half-written file.
  bool Save(const std::filesystem::path& path, std::string* error = nullptr) const;

 private:
  struct Line {
    enum class Kind { kOther, kSection, kPair } kind = Kind::kOther;
    std::string text;   // the raw line (for kOther and kSection)
    std::string name;   // section name, or key
    std::string value;  // value of a pair
  };
  // Index range [begin, end) of the lines belonging to a section (after its
  // header); the lines before the first header form the unnamed section "".
  std::optional<std::pair<size_t, size_t>> FindSection(std::string_view section) const;

  std::vector<Line> lines_;
};

}  // namespace dischive
