#include "tsbackup_utils.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tsbackup {

namespace {

/// The white space of the C locale, whatever the process's own: a byte of a UTF-8 letter never counts.
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

/// Length of `text` without the white space at its end.
std::size_t trimmed_length(std::string_view text) { return text.find_last_not_of(kWhiteSpace) + 1; }

} // namespace

int hexval(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    return 0;
}

std::int32_t decimal_value(const char *text) {
    if (text == nullptr) return 0;
    static_assert(sizeof(long) == 8);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(std::strtol(text, nullptr, 10)));
}

std::int32_t decimal_value(const JobText &text) { return decimal_value(text_or_empty(text)); }

const char *text_or_empty(const JobText &text) { return text ? text->c_str() : ""; }

std::optional<std::string> str_printf(const char *format, ...) {
    char *formatted = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&formatted, format, arguments);
    va_end(arguments);
    if (length < 0) return std::nullopt;
    const UniqueText text(formatted);
    return text.get();
}

char *str_snprintf(char *buffer, std::size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    if (size > 0 && strnlen(buffer, size) == size) buffer[0] = '\0';
    return buffer;
}

char *str_snprintf_whole(char *buffer, std::size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    const bool fits = length >= 0 && static_cast<std::size_t>(length) < size;
    if (size > 0 && !fits) buffer[0] = '\0';
    return buffer;
}

std::string str_concat(std::optional<std::string> first, std::initializer_list<std::string_view> rest) {
    std::string text = std::move(first).value_or("");
    for (const std::string_view piece : rest)
        text += piece;
    return text;
}

std::string &backslash_strip(std::string &text) {
    remove_char(text, '\\');
    return text;
}

std::optional<std::string> read_first_line(const char *path, std::size_t size) {
    if (size < 2) return std::nullopt;
    const UniqueFile file(std::fopen(path, "re"));
    if (!file) return std::nullopt;
    const auto buffer = std::make_unique<char[]>(size);
    const int limit = static_cast<int>(std::min<std::size_t>(size, INT32_MAX));
    if (std::fgets(buffer.get(), limit, file.get()) == nullptr) return std::nullopt;
    std::string line = buffer.get();
    rtrim_space(line);
    return line;
}

void rtrim_space(std::string &text) {
    if (text.empty()) return;
    text.resize(std::max<std::size_t>(trimmed_length(text), 1));
}

std::string &trim_space(std::string &text) {
    text.resize(trimmed_length(text));
    text.erase(0, text.find_first_not_of(kWhiteSpace));
    return text;
}

void remove_char(std::string &text, char character) { std::erase(text, character); }

void replace_char(std::string &text, char from, char to) { std::replace(text.begin(), text.end(), from, to); }

std::size_t skip_to_char(const char *&cursor, char character) {
    const char *start = cursor;
    while (*cursor != '\0' && *cursor != character)
        ++cursor;
    return static_cast<std::size_t>(cursor - start);
}

char *strtokstr_r(char *text, const char *separator, char **saveptr) {
    assert(saveptr);
    char *token = text != nullptr ? text : *saveptr;
    if (token == nullptr) return nullptr;

    const std::size_t length = std::strlen(separator);
    char *end = length > 0 ? std::strstr(token, separator) : nullptr;
    if (end != nullptr) {
        *end = '\0';
        end += length;
    }
    *saveptr = end;
    return token;
}

std::string str_split_first(const std::string &text, const std::string &separator, std::optional<std::string> &rest) {
    const std::size_t at = separator.empty() ? std::string::npos : text.find(separator);
    std::string first = text.substr(0, at);
    std::string behind = at != std::string::npos ? text.substr(at + separator.size()) : "";
    rest.reset();
    if (!behind.empty()) rest = std::move(behind);
    return first;
}

std::vector<std::string> str_split_all(const std::string &text, const std::string &separator) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    std::size_t at = 0;
    while (!separator.empty() && (at = text.find(separator, start)) != std::string::npos) {
        pieces.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

void *realloc_or_free(void *block, std::size_t size) {
    if (size == 0) {
        std::free(block);
        return nullptr;
    }
    void *grown = std::realloc(block, size);
    if (grown == nullptr) std::free(block);
    return grown;
}

} // namespace tsbackup
