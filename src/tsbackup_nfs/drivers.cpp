#include "mount.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup_do.h"
#include "tsbackup_local.h"
#include "tsbackup_nfs.h"
#include "tsbackup_utils.h"

namespace tsbackup {

void backup_nfs_to_local(const BackupJob &job, BackupRun &run) {
    const auto source = _mount_nfs(job, run, Side::source);
    if (!source) return;
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) {
        nfs_umount(job);
        return;
    }
    backup_do_cp(job, run, source->c_str(), destination->c_str());
    nfs_umount(job);
    local_endpoint_release(job, run, *destination, Side::destination);
}

void backup_local_to_nfs(const BackupJob &job, BackupRun &run) {
    const auto source = local_path_resolve(job, run, Side::source);
    if (!source) {
        const char *share = text_or_empty(job.src_share_proto);
        const char *path = text_or_empty(job.src_path);
        error_log_line(run, "/%s/%s does not exist!\n", share, path);
        TSBACKUP_ERROR_SET(error_code::path_missing, &run, "/%s/%s not exists", share, path);
        return;
    }
    const auto destination = _mount_nfs(job, run, Side::destination);
    if (!destination) {
        local_endpoint_release(job, run, *source, Side::source);
        return;
    }
    backup_do_cp(job, run, source->c_str(), destination->c_str());
    local_source_check(*source, run);
    local_endpoint_release(job, run, *source, Side::source);
    nfs_umount(job);
}

} // namespace tsbackup
