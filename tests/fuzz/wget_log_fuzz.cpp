// Any line of wget's log leads to one entry of the copy log at most, whose two sides keep to their bounds.

#include "log_parser.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

constexpr std::size_t kLongestField = 1023;
constexpr std::string_view kArrow = " --> ";

/// The part behind the arrow. The part before it may hold an arrow, too, but is never longer than the URL.
void check_entry(const std::string &entry, const std::string &line) {
    require(entry.ends_with("\n") && entry.find(kArrow) != std::string::npos);
    require(entry.size() <= 2 * kLongestField + kArrow.size() + 1);
    require(entry.size() <= line.size() + kArrow.size() + 1);
    require(line.find("URL:") != std::string::npos);
}

void check_line(const std::string &line) {
    bool more = true;
    for (int components = 0; components < 6; ++components) {
        const auto entry = tsbackup::wget_log_entry(line.c_str(), components);
        require(more || !entry); // with fewer components left out there would have been one
        more = entry.has_value();
        if (entry) check_entry(*entry, line);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::size_t length = end == std::string_view::npos ? text.size() : end + 1;
        check_line(std::string(text.substr(0, length)));
        text.remove_prefix(length);
    }
    return 0;
}
