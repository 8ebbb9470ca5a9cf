#pragma once

#include "tsbackup/run.h"

#include <ctime>
#include <sys/vfs.h>

namespace tsbackup {

/// The wall clock, in seconds since the epoch.
inline std::int32_t wall_clock() { return static_cast<std::int32_t>(std::time(nullptr)); }

/// A time as status files take it.
inline std::uint32_t stamp(std::int32_t time) { return static_cast<std::uint32_t>(time); }

/// Starts the run's clock; false when it cannot be read.
inline bool run_clock_start(BackupRun &run) {
    run.clock_failed = clock_gettime(CLOCK_MONOTONIC_COARSE, &run.started);
    run.last_write = run.started;
    return run.clock_failed == 0;
}

/// Notes the file system of "/", which no run may write to; left 0 when it cannot be examined.
inline void run_root_file_system_note(BackupRun &run) {
    struct statfs status {};
    if (statfs("/", &status) != 0) return;
    run.root_fsid = {status.f_fsid.__val[0], status.f_fsid.__val[1]};
}

} // namespace tsbackup
