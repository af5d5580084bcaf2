#include "dischive/ini.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "dischive/text.h"
#include "platform/replace_file.h"

namespace dischive {

IniDocument IniDocument::Parse(std::string_view text) {
  IniDocument doc;
  // A UTF-8 byte order mark in front is not part of the first line.
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view raw = text.substr(pos, end - pos);
    pos = end + 1;
    if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);

    Line line;
    line.text = std::string(raw);
    const std::string_view trimmed = TrimBlanks(raw);
    if (trimmed.size() >= 2 && trimmed.front() == '[' &&
        trimmed.find(']') != std::string_view::npos) {
      line.kind = Line::Kind::kSection;
      line.name = std::string(TrimBlanks(trimmed.substr(1, trimmed.find(']') - 1)));
    } else if (!trimmed.empty() && trimmed.front() != ';' && trimmed.front() != '#') {
      const size_t eq = trimmed.find('=');
      if (eq != std::string_view::npos && eq > 0) {
        line.kind = Line::Kind::kPair;
        line.name = std::string(TrimBlanks(trimmed.substr(0, eq)));
        line.value = std::string(TrimBlanks(trimmed.substr(eq + 1)));
      }
    }
    doc.lines_.push_back(std::move(line));
  }
  return doc;
}

IniDocument IniDocument::Load(const std::filesystem::path& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (errno != ENOENT && error != nullptr) {
      *error = path.string() + ": " + std::strerror(errno);
    }
    return {};
  }
  std::ostringstream buffer;
  buffer << in.rdbuf();
  if (in.bad() && error != nullptr) *error = path.string() + ": read error";
  return Parse(buffer.str());
}

std::optional<std::pair<size_t, size_t>> IniDocument::FindSection(std::string_view section) const {
  bool inside = section.empty();  // lines before the first header form section ""
  size_t begin = 0;
  for (size_t i = 0; i < lines_.size(); ++i) {
    if (lines_[i].kind != Line::Kind::kSection) continue;
    if (inside) return std::make_pair(begin, i);
    if (EqualsIgnoreCase(lines_[i].name, section)) {
      inside = true;
      begin = i + 1;
    }
  }
  if (inside) return std::make_pair(begin, lines_.size());
  return std::nullopt;
}

std::optional<std::string> IniDocument::Get(std::string_view section, std::string_view key) const {
  const auto range = FindSection(section);
  if (!range) return std::nullopt;
  for (size_t i = range->first; i < range->second; ++i) {
    const Line& line = lines_[i];
    if (line.kind == Line::Kind::kPair && EqualsIgnoreCase(line.name, key)) return line.value;
  }
  return std::nullopt;
}

void IniDocument::Set(std::string_view section, std::string_view key, std::string_view value) {
  Line pair;
  pair.kind = Line::Kind::kPair;
  pair.name = std::string(key);
  pair.value = std::string(value);

  auto range = FindSection(section);
  if (!range) {
    // A blank line before a new section keeps files readable.
    if (!lines_.empty() && !TrimBlanks(lines_.back().text).empty()) lines_.push_back(Line{});
    Line header;
    header.kind = Line::Kind::kSection;
    header.name = std::string(section);
    header.text = "[" + header.name + "]";
    lines_.push_back(std::move(header));
    lines_.push_back(std::move(pair));
    return;
  }
  size_t insert_at = range->first;
  for (size_t i = range->first; i < range->second; ++i) {
    Line& line = lines_[i];
    if (line.kind == Line::Kind::kPair && EqualsIgnoreCase(line.name, key)) {
      line.value = std::string(value);
      return;
    }
    // New pairs go after the last non-blank line of the section, so trailing
    // blank lines keep separating it from the next one.
    if (!TrimBlanks(line.text).empty() || line.kind == Line::Kind::kPair) insert_at = i + 1;
  }
  lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(insert_at), std::move(pair));
}

bool IniDocument::Remove(std::string_view section, std::string_view key) {
  const auto range = FindSection(section);
  if (!range) return false;
  bool removed = false;
  for (size_t i = range->second; i-- > range->first;) {
    if (lines_[i].kind == Line::Kind::kPair && EqualsIgnoreCase(lines_[i].name, key)) {
      lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(i));
      removed = true;
    }
  }
  return removed;
}

bool IniDocument::RemoveSection(std::string_view section) {
  const auto range = FindSection(section);
  if (!range) return false;
  const size_t header = section.empty() ? range->first : range->first - 1;
  lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(header),
               lines_.begin() + static_cast<std::ptrdiff_t>(range->second));
  return true;
}

std::vector<std::string> IniDocument::Sections() const {
  std::vector<std::string> names;
  for (const Line& line : lines_) {
    if (line.kind != Line::Kind::kSection) continue;
    bool seen = false;
    for (const std::string& n : names)
      seen = seen || EqualsIgnoreCase(n, line.name);
    if (!seen) names.push_back(line.name);
  }
  return names;
}

std::vector<std::pair<std::string, std::string>> IniDocument::Entries(
    std::string_view section) const {
  std::vector<std::pair<std::string, std::string>> out;
  const auto range = FindSection(section);
  if (!range) return out;
  for (size_t i = range->first; i < range->second; ++i) {
    const Line& line = lines_[i];
    if (line.kind != Line::Kind::kPair) continue;
    bool seen = false;
    for (const auto& entry : out)
      seen = seen || EqualsIgnoreCase(entry.first, line.name);
    if (!seen) out.emplace_back(line.name, line.value);
  }
  return out;
}

std::string IniDocument::Serialize() const {
  std::string out;
  for (const Line& line : lines_) {
    if (line.kind == Line::Kind::kPair) {
      out += line.name;
      out += '=';
      out += line.value;
    } else {
      out += line.text;
    }
    out += '\n';
  }
  return out;
}

bool IniDocument::Save(const std::filesystem::path& path, std::string* error) const {
  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  return platform::ReplaceFile(path, Serialize(), error) == kOk;
}

}  // namespace dischive
