// The output of the archive pipeline, read when it has ended.

#pragma once

#include "tsbackup/run.h"

#include <cstdint>
#include <string>

namespace tsbackup {

/// What a line of smbclient's and tar's output tells.
struct ArchiveLine {
    std::int32_t connection_error = 0; ///< 1 no connection, 8 no space left; 0: neither
    std::int32_t status_error = 0;     ///< 7 refused, 99 any other status of the server, 6 a file not read; 0: none
    std::string kept;                  ///< what the copy log gets of it
    bool extracted = false;            ///< tells of a file or folder that arrived
};

ArchiveLine archive_line(const std::string &line);

/// The line below the list of what arrived, with an empty line in front; empty when nothing did.
std::string archive_summary(std::uint64_t entries);

/// Puts the list of what arrived in place of the pipeline's output, which is the run's copy log until then. `status` is
/// the pipeline's wait status.
///
/// Every failure that a line tells of is recorded (1, 6, 7, 8, 99) and copied to the error log, and then a status other
/// than 0 with 6. Without a copy log nothing is recorded at all; when the list cannot be written the output stays as it
/// is.
void cifsab_parse_log(BackupRun &run, std::int32_t status);

} // namespace tsbackup
