#pragma once

#include <cstdint>

namespace tsbackup {

/// Resolution, in nanoseconds, in which modification times are compared: chosen by the file system of the
/// destination folder visited last, and kept from one call to the next within a process.
extern std::int32_t timestamp_resolution_ns;

/// 1 once a destination was a network mount, for the rest of the process: its times may be coarse.
extern std::int32_t coarse_dst_times;

} // namespace tsbackup
