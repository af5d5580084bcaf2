// The built-in contents of the user-editable value lists (formats, genres,
// ...) that a catalogue offers until the user changes them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dischive {

/// Keys of the built-in user lists: the ten lists of kUserListKeys and "user_spars".
std::vector<std::string> DefaultUserListKeys();
/// The built-in entries of a user list, in order; empty for an unknown key.
std::vector<std::string> DefaultUserListEntries(std::string_view key);
/// The built-in text of a user list: the entries joined with "\n" (no
/// newline after the last); empty for an unknown key.
std::string DefaultUserList(std::string_view key);
/// Splits a user list text at "\n" into its non-empty entries (a "\r" before
/// the "\n" is dropped as well).
std::vector<std::string> SplitUserList(std::string_view text);

}  // namespace dischive
