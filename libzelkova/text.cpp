// Bounded copies of text, and fields of a line.

#include "zelkova.h"

#include <cstring>

int split(char *line, const char *separator, char **fields, int max_fields) {
    if (line == nullptr) return 0;
    const std::size_t width = separator != nullptr ? std::strlen(separator) : 0;
    int count = 0;
    for (char *field = line; field != nullptr;) {
        if (count < max_fields) fields[count] = field;
        ++count;
        // An empty separator is found everywhere, yet separates nothing.
        char *end = width > 0 ? std::strstr(field, separator) : nullptr;
        if (end != nullptr) *end = '\0';
        field = end != nullptr ? end + width : nullptr;
    }
    return count;
}

char *strncpyt(char *dst, const char *src, size_t size) {
    if (size == 0) return dst;
    const std::size_t length = src != nullptr ? strnlen(src, size - 1) : 0;
    if (length > 0) std::memmove(dst, src, length);
    dst[length] = '\0';
    return dst;
}

char *strncat_safe(char *dst, const char *src, size_t size) {
    if (size == 0) return dst;
    const std::size_t used = strnlen(dst, size - 1);
    strncpyt(dst + used, src, size - used);
    return dst;
}
