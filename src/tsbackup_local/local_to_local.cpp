#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup_do.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"

#include <sys/stat.h>

namespace tsbackup {

void local_source_check(const std::string &source, BackupRun &run) {
    struct stat status {};
    if (!run.snapshot_path || stat(source.c_str(), &status) == 0) return;
    error_log_line(run, "Path %s does not exist!\n", source.c_str());
    TSBACKUP_ERROR_SET(error_code::path_missing, &run, "'%s' not exists", source.c_str());
}

void backup_local_to_local(const BackupJob &job, BackupRun &run) {
    const auto source = local_path_resolve(job, run, Side::source);
    if (!source) {
        TSBACKUP_ERROR_SET(error_code::invalid_source, &run, "No SRC");
        // The destination is resolved all the same: its failure is recorded, or its eject is still due.
        if (const auto destination = local_path_resolve(job, run, Side::destination))
            local_endpoint_release(job, run, *destination, Side::destination);
        else
            TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "No DST");
        return;
    }

    const auto destination = local_path_resolve(job, run, Side::destination);
    if (destination) {
        backup_do_cp(job, run, source->c_str(), destination->c_str());
        local_source_check(*source, run);
    } else {
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "No DST");
    }

    local_endpoint_release(job, run, *source, Side::source);
    if (destination) local_endpoint_release(job, run, *destination, Side::destination);
}

} // namespace tsbackup
