#pragma once

#include "tsbackup/run.h"

#include <cstdint>

namespace tsbackup {

/// Goes through the copy log of a finished transfer: refusals and a full disk go to the error log and the error
/// record (8, 9, 7), what is no news leaves the log, and a result that is not 0 is recorded with 6.
void rsync_finish_copy_log(BackupRun &run, std::int32_t result);

} // namespace tsbackup
