#include "display.h"

#include <clocale>
#include <cwchar>

namespace tsbackup {

namespace {

constexpr std::string_view kCutMark = "...";

struct Character {
    std::size_t bytes = 1;
    int columns = -1; ///< negative: not to be shown
};

/// Characters without a look of their own that reorder or hide their neighbours.
bool is_invisible_control(wchar_t code) {
    return code == 0xad || code == 0x61c || (code >= 0x200b && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2060 && code <= 0x206f) || code == 0xfeff || (code >= 0xfff9 && code <= 0xfffb) ||
           (code >= 0xe0000 && code <= 0xe0fff);
}

/// The character at the start of a text that is not empty.
Character next_character(std::string_view text) {
    std::mbstate_t state{};
    wchar_t letter = 0;
    const std::size_t bytes = std::mbrtowc(&letter, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size()) return {};
    return {bytes, is_invisible_control(letter) ? -1 : wcwidth(letter)};
}

} // namespace

void display_prepare() { std::setlocale(LC_CTYPE, ""); }

std::string display_text(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Character character = next_character(text);
        if (character.columns < 0)
            shown += '?';
        else
            shown += text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return shown;
}

std::size_t display_width(std::string_view shown) {
    std::size_t width = 0;
    while (!shown.empty()) {
        const Character character = next_character(shown);
        if (character.columns > 0) width += static_cast<std::size_t>(character.columns);
        shown.remove_prefix(character.bytes);
    }
    return width;
}

std::string display_cut(const std::string &shown, std::size_t columns) {
    if (display_width(shown) <= columns) return shown;
    const std::string_view mark = kCutMark.substr(0, columns);
    const std::size_t room = columns - mark.size();
    std::size_t width = 0;
    std::size_t bytes = 0;
    while (bytes < shown.size()) {
        const Character character = next_character(std::string_view(shown).substr(bytes));
        const std::size_t more = character.columns > 0 ? static_cast<std::size_t>(character.columns) : 0;
        if (width + more > room) break;
        width += more;
        bytes += character.bytes;
    }
    return shown.substr(0, bytes) + std::string(mark);
}

std::string display_padded(const std::string &shown, std::size_t columns, bool to_the_right) {
    const std::size_t width = display_width(shown);
    const std::string blanks(width < columns ? columns - width : 0, ' ');
    return to_the_right ? blanks + shown : shown + blanks;
}

} // namespace tsbackup
