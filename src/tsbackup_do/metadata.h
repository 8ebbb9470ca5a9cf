#pragma once

#include "place.h"
#include "tsbackup/run.h"

#include <sys/stat.h>

namespace tsbackup {

/// What is known of a copy that is to receive metadata, so that the kernel is not asked for it again.
struct MetaTarget {
    Place place;
    int fd = -1;                         ///< open descriptor of the copy, -1: work through the path
    const struct stat *status = nullptr; ///< the copy's status before the change, null: unknown
    bool may_have_access_list = true;    ///< false: certainly none beyond its mode
};

/// Gives the target the times, the owner, the mode and the access lists of a source whose status is `source` and
/// whose path or (when not -1) descriptor is given. Failures are logged at most.
void apply_metadata(const struct stat &source, const char *source_path, int source_fd, const MetaTarget &target,
                    const BackupRun &run);

} // namespace tsbackup
