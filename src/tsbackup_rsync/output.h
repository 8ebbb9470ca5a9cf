// rsync's output, read while it runs.

#pragma once

#include "tsbackup/run.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tsbackup {

/// What has been read so far. The counters and the lines do not depend on how the output was cut into chunks.
struct RsyncOutput {
    std::string carry_over;       ///< the beginning of a line whose end is still to come
    std::int64_t finished = 0;    ///< bytes of the files that are complete
    std::int64_t in_progress = 0; ///< bytes of the file on its way
};

/// Takes in a chunk of output, a carriage return counting as a line's end and a line without one as ended after 1 MiB.
/// Whole lines that are no progress, and the progress lines that finish a file, are appended to `kept`, each with a
/// line feed; progress goes to the run. Counts that exceed 64 bits stay at the largest number.
void rsync_output_feed(RsyncOutput &output, std::string_view chunk, BackupRun &run, std::string &kept);

/// Follows the output behind `fd` until its end: writes the job's copy log anew and feeds the run's progress. Returns 0
/// at the end of the output or on a cancel, kExecCancelled after three hours of silence, -5 when the copy log cannot
/// be opened.
std::int32_t _parse_output(BackupRun *run, int fd);

} // namespace tsbackup
