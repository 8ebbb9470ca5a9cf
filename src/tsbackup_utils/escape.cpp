#include "tsbackup_utils.h"

#include <array>
#include <cstdio>

namespace tsbackup {

namespace {

constexpr std::string_view kShellSpecial = " !\t\\&()|^<>?*[]$`\"'{}";
constexpr std::string_view kUrlSpecial = " !*'();:@&=+$,?%#[]";

bool is_in(std::string_view set, char character) { return set.find(character) != std::string_view::npos; }

bool is_outside_ascii(char character) { return static_cast<unsigned char>(character) >= 128; }

} // namespace

std::optional<std::string> shell_escape(const char *text) {
    if (text == nullptr) return std::nullopt;
    std::string escaped;
    for (; *text != '\0'; ++text) {
        if (is_in(kShellSpecial, *text)) escaped += '\\';
        escaped += *text;
    }
    return escaped;
}

std::string shell_word(std::string_view text) {
    std::string word;
    for (const char character : text) {
        // A backslash before a newline removes both; only a quotation keeps the newline.
        if (character == '\n' || character == '\r') {
            word.append({'\'', character, '\''});
            continue;
        }
        const bool acts_at_start = word.empty() && (character == '#' || character == '~');
        if (is_in(kShellSpecial, character) || character == ';' || acts_at_start) word += '\\';
        word += character;
    }
    return word;
}

std::optional<std::string> url_escape(const char *text) {
    if (text == nullptr) return std::nullopt;
    std::string escaped;
    for (; *text != '\0'; ++text) {
        if (!is_in(kUrlSpecial, *text) && !is_outside_ascii(*text)) {
            escaped += *text;
            continue;
        }
        std::array<char, 4> code{};
        escaped += str_snprintf(code.data(), code.size(), "%%%02x", static_cast<unsigned char>(*text));
    }
    return escaped;
}

std::string &url_unescape(std::string &text) {
    std::size_t kept = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        char character = text[at];
        if (character == '%' && text.size() - at > 2) {
            character = static_cast<char>(hexval(text[at + 1]) * 16 + hexval(text[at + 2]));
            at += 2;
        }
        text[kept++] = character;
    }
    text.resize(kept);
    return text;
}

std::optional<std::string> escape_for_xml(const char *text) {
    if (text == nullptr) return std::nullopt;
    std::string escaped;
    for (; *text != '\0'; ++text) {
        switch (*text) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&apos;";
            break;
        default:
            escaped += *text;
        }
    }
    return escaped;
}

} // namespace tsbackup
