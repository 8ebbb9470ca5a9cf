#include "settings_file.h"

#include <cstring>

namespace tsbackup {

namespace {

/// The value within `line` when the line's name is `name`, else null.
const char *value_of(const char *line, const char *name) {
    const std::size_t length = std::strcspn(line, "=");
    if (line[length] != '=' || length != std::strlen(name) || std::strncmp(line, name, length) != 0) return nullptr;
    return line + length + 1;
}

} // namespace

bool settings_file_find(const char *path, const char *name, UniqueText &value) {
    value.reset();
    const UniqueFile file(std::fopen(path, "re"));
    if (file == nullptr) return false;

    char *buffer = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    const char *found = nullptr;
    while (found == nullptr && (length = getline(&buffer, &capacity, file.get())) >= 0) {
        if (length > 0 && buffer[length - 1] == '\n') buffer[length - 1] = '\0';
        found = value_of(buffer, name);
    }
    const UniqueText line(buffer);
    if (found == nullptr) return std::feof(file.get()) != 0;
    value.reset(strdup(found));
    return value != nullptr;
}

} // namespace tsbackup
