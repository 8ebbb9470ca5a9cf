// Any line of the archive pipeline's output is a file that arrived, a sum or nothing, and its failures have codes of
// their own.

#include "archive_log.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

void check_line(const std::string &text) {
    const tsbackup::ArchiveLine line = tsbackup::archive_line(text);
    require(line.connection_error == 0 || line.connection_error == 1 || line.connection_error == 8);
    require(line.status_error == 0 || line.status_error == 6 || line.status_error == 7 || line.status_error == 99);
    require(line.extracted == text.starts_with("."));
    if (line.extracted)
        require(line.kept == text && line.status_error == 0 && line.connection_error != 1);
    else if (!line.kept.empty())
        require(line.kept == "\nCopied " + text.substr(12));
    // What the server says can change the result of a file that arrived only by the words for a full disk.
    if (line.connection_error == 8) require(text.find("No space left") != std::string::npos);
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
