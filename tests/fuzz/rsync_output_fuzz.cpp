// Any output of rsync, cut into chunks in any way, leads to the same lines and the same counts.

#include "output.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

struct Followed {
    tsbackup::RsyncOutput output;
    tsbackup::BackupRun run;
    std::string kept;

    Followed() { run.clock_failed = 1; } // no status file
    void feed(std::string_view chunk) {
        rsync_output_feed(output, chunk, run, kept);
        require(output.finished >= 0 && output.in_progress >= 0 && run.bytes >= 0);
        require(output.carry_over.find_first_of("\r\n") == std::string::npos);
    }
};

} // namespace

// The first byte seeds the sizes of the chunks.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0) return 0;
    std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::uint32_t state = data[0] + 1U;

    Followed whole;
    whole.feed(text);
    require(whole.kept.size() + whole.output.carry_over.size() <= text.size());

    Followed pieces;
    while (!text.empty()) {
        state = state * 1664525 + 1013904223;
        const std::size_t length = std::min<std::size_t>(text.size(), (state >> 16) % 40);
        pieces.feed(text.substr(0, length));
        text.remove_prefix(length);
    }
    require(pieces.kept == whole.kept && pieces.output.carry_over == whole.output.carry_over);
    require(pieces.output.finished == whole.output.finished);
    require(pieces.output.in_progress == whole.output.in_progress && pieces.run.bytes == whole.run.bytes);
    return 0;
}
