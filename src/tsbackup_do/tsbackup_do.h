// The copy engine: copies files and trees between mounted paths, and only what is new or has changed.
//
// It never deletes anything at the destination. Every failure is reported in the error log, in the error record
// and as a diagnostic; a failing file does not stop the walk, a full or read-only destination does.

#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"

#include <cstdint>
#include <sys/stat.h>

namespace tsbackup {

/// Copies `src` to `dst` as the run asks: a tree when `src_is_dir` is set, else a single file. Sets the run's root
/// lengths and, for a tree, `fsid` to the destination's. Records 6 (something could not be copied), 8 (the
/// destination is full or read-only) or 13 (a file could not even be created there).
void backup_do_cp(const BackupJob &job, BackupRun &run, const char *src, const char *dst);

/// Copies the tree `src` into `dst`, which is created when it is missing. Returns 0 or an errno value: the last
/// entry's result is the directory's, so an early failure that successes follow is 0; 28 and 30 stop every level.
int do_copy_dir(const char *src, const char *dst, BackupRun &run);

/// Copies one regular file over `dst` and gives it the source's metadata. Returns 0 or an errno value; 2 when the
/// source cannot be examined, 0 when it is no regular file (the error log has a line then).
int do_copy_file(const char *src, const char *dst, BackupRun &run);

/// Gives `dst` the times of `src` and, unless the run's `no_chown` is set, its owner, mode, access list and (for a
/// directory) default access list. Returns 0, or the errno of a failed stat of `src`; nothing else counts.
int do_copy_meta(const char *src, const char *dst, const BackupRun &run);

/// Removes the tree `path`: directories, regular files and symbolic links. What is of another type stays, and with
/// it the directories above. Returns 0, or an errno value when the directory cannot be opened.
int do_rmtree(const char *path, BackupRun &run);

/// The same for what is inside `path`; the directory itself stays.
int do_rmtree_contents(const char *path, BackupRun &run);

/// Whether `path` is the folder in which a share keeps its own snapshots, as the share's configuration names it.
bool is_share_snapshot_dir(const char *path);

/// Compares modification times in units of `resolution_ns`: -1 when `src` is older, 0 when both count as the same,
/// 1 when it is newer. With `coarse`, a destination time without a sub-second part also counts as the same when the
/// source is less than one second newer or less than two seconds older.
int mtime_compare(const struct stat &src, const struct stat &dst, std::int32_t resolution_ns, std::int32_t coarse);

} // namespace tsbackup
