#include "services.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

namespace tsbackup {

namespace {

constexpr std::size_t kLineLength = 4224;
constexpr std::size_t kKeyLength = 127;
constexpr std::size_t kValueLength = 4095;
constexpr char kEnabledKey[] = "MTPBACKUP";
constexpr std::size_t kNumberSize = 32;

using Line = std::array<char, kLineLength + 1>;

/// One line without its end; of a line that is too long, its beginning. Nothing at the end of the file.
std::optional<std::string_view> read_line(std::FILE *file, Line &line) {
    if (std::fgets(line.data(), static_cast<int>(line.size()), file) == nullptr) return std::nullopt;
    std::string_view text = line.data();
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
        return text;
    }
    for (int rest = std::fgetc(file); rest != EOF && rest != '\n';)
        rest = std::fgetc(file);
    return text;
}

/// The value of a line with that key, else nothing.
std::optional<std::string_view> value_of(std::string_view line, std::string_view key) {
    const std::size_t equals = line.find('=');
    // A line without a "=" has its end beyond any key's.
    if (equals > kKeyLength || line.substr(0, equals) != key) return std::nullopt;
    return line.substr(equals + 1, kValueLength);
}

int not_readable() {
    TSBACKUP_LOG(level::error, "Failed to open service file %s!\n", paths::services_file);
    return -1;
}

} // namespace

int services_get(const char *key, char *value, std::size_t size) {
    if (key == nullptr || value == nullptr || size == 0) {
        TSBACKUP_LOG(level::error, "Invalid input\n");
        return -1;
    }
    const UniqueFile file(std::fopen(paths::services_file, "re"));
    if (!file) return not_readable();

    Line buffer;
    while (const auto line = read_line(file.get(), buffer)) {
        if (const auto found = value_of(*line, key)) {
            std::fill_n(value, size, '\0');
            found->copy(value, size);
            return 0;
        }
    }
    return std::ferror(file.get()) != 0 ? not_readable() : 0;
}

int mtpbackup_enabled() {
    std::array<char, kNumberSize> value{};
    if (services_get(kEnabledKey, value.data(), value.size() - 1) != 0) {
        TSBACKUP_LOG(level::error, "Get MTPBACKUP tag error.\n");
        return -1;
    }
    if (std::strtol(value.data(), nullptr, 10) == 1) return 1;
    TSBACKUP_LOG(level::info, "Automatically media backup is disabled.\n");
    return 0;
}

} // namespace tsbackup
