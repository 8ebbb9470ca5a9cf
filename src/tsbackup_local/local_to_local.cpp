#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup_do.h"
#include "tsbackup_local.h"

namespace tsbackup {

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
    if (destination)
        backup_do_cp(job, run, source->c_str(), destination->c_str());
    else
        TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "No DST");

    local_endpoint_release(job, run, *source, Side::source);
    if (destination) local_endpoint_release(job, run, *destination, Side::destination);
}

} // namespace tsbackup
