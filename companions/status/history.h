// The history of a job: one entry a run, newest first.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tsbackup {

struct HistoryEntry {
    std::string name;
    std::optional<bool> full; ///< no value: the run was never decided
    std::string protocol;
    std::string source;      ///< as the entry shows it
    std::string destination; ///< the same
    std::int32_t start = 0;  ///< seconds since the epoch
    std::int32_t finish = 0;
    std::int32_t status = 0; ///< error code of the run
};

/// The first `most` entries of a history or of its beginning. What is no whole entry is passed over; a name or a path
/// with line ends in it stays part of its entry.
std::vector<HistoryEntry> history_parse(std::string_view text, std::size_t most);

} // namespace tsbackup
