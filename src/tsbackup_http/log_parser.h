// wget's log, read when wget has ended.

#pragma once

#include "tsbackup/run.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tsbackup {

/// The copy log's line for a line of wget's log: what was fetched without its first `components` components, decoded,
/// and the file that it became. Nothing for a line that tells of no file.
std::optional<std::string> wget_log_entry(const char *line, int components);

/// Puts the list of fetched files in place of wget's log, which is the run's copy log until then. `status` is wget's
/// wait status, `cut_dirs` the number of folders to leave out behind the host.
///
/// Lines that tell of a full disk or a missing permission are recorded (8, 7) and replace what the error log held; a
/// status other than 0 is recorded with 6, otherwise the error log is removed. When one of the files cannot be opened
/// wget's log stays as it is, and so do the records.
void http_parse_log(BackupRun &run, std::int32_t status, int cut_dirs);

} // namespace tsbackup
