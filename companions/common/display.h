// Texts of other people on a terminal: names and messages may hold anything.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tsbackup {

/// Takes the character set of the terminal's user from the environment; plain ASCII before and without it.
void display_prepare();

/// The text as it may be shown: what is no printable character of the character set, and what would change the order
/// or the place of others, becomes "?". Never holds a control character.
std::string display_text(std::string_view text);

/// Columns that a text of `display_text` takes.
std::size_t display_width(std::string_view shown);

/// The text, or its beginning and "..." when it takes more columns.
std::string display_cut(const std::string &shown, std::size_t columns);

/// The text with blanks up to so many columns, behind it or, for numbers, in front of it.
std::string display_padded(const std::string &shown, std::size_t columns, bool to_the_right = false);

} // namespace tsbackup
