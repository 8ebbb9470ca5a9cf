#include "copy_file.h"

#include "metadata.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup_do.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// The progress of a file is counted, and its space reserved, in units of this size.
constexpr off_t kSlice = 0x1000000;

/// Up to this size the reservation is left to the write itself, which finds a full disk just as surely.
constexpr off_t kReservedByWriting = off_t{64} * 1024;

const char *relative_source(const CopyTask &task, const BackupRun &run) {
    return below_root(task.src.path, run.src_root_len);
}

const char *relative_destination(const CopyTask &task, const BackupRun &run) {
    return below_root(task.dst.path, run.dst_root_len);
}

/// Opens a file without waiting for a reader or a writer, should a pipe have taken its place. A file that another
/// program holds a lease on is waited for.
int open_regular(const Place &place, int flags, mode_t mode) {
    const int common = flags | O_CLOEXEC | O_NOCTTY;
    const int fd = openat(place.folder, place.name, common | O_NONBLOCK, mode);
    if (fd >= 0 || errno != EAGAIN) return fd;
    return openat(place.folder, place.name, common, mode);
}

// ---- reports ---------------------------------------------------------------------------------------------------

int report_read_failure(const CopyTask &task, BackupRun &run, int error) {
    const char *path = relative_source(task, run);
    error_log_line(run, "Cannot read file '%s' (error: %s)!\n", path, error_text(error).c_str());
    TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "cannot read file %s", path);
    return error;
}

void record_write_failure(const CopyTask &task, BackupRun &run, int error) {
    if (error == ENOSPC)
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "No space left on destination.");
    else if (error == EROFS)
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "Destination is Read-Only.");
    else
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "cannot write file %s", relative_destination(task, run));
}

int report_write_failure(const CopyTask &task, BackupRun &run, int error) {
    error_log_line(run, "Cannot write file '%s' (error: %s)!\n", relative_destination(task, run),
                   error_text(error).c_str());
    record_write_failure(task, run, error);
    return error;
}

int report_reservation_failure(const CopyTask &task, BackupRun &run, int error) {
    const char *path = relative_destination(task, run);
    TSBACKUP_LOG(level::error, "fallocate() failed. errno=%d.\n", error);
    error_log_line(run, "Failed to allocate space for file '%s' (error: %s)!\n", path, error_text(error).c_str());
    if (error == EINVAL || error == EFBIG)
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "File is too big: %s", path);
    else if (error == ENOSPC)
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "No space left: %s", path);
    else if (error == EROFS)
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "Destination is Read-Only.");
    else
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "cannot create file %s", path);
    return error;
}

int report_statfs_failure(const char *path, const char *relative, BackupRun &run, int error) {
    TSBACKUP_LOG(level::error, "statfs(%s) fail. errno=%d\n", path, error);
    error_log_line(run, "Cannot get filesystem statistics of file '%s' (error: %s)!\n", relative,
                   error_text(error).c_str());
    return EINVAL;
}

// ---- the bytes -------------------------------------------------------------------------------------------------

/// Reads exactly `size` bytes. 0, or an errno value; a file that ends too early has shrunk since it was examined.
int read_exactly(int fd, char *buffer, std::size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t got = pread(fd, buffer, size, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        if (got == 0) return EIO;
        buffer += got;
        size -= static_cast<std::size_t>(got);
        offset += got;
    }
    return 0;
}

int write_exactly(int fd, const char *buffer, std::size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t put = pwrite(fd, buffer, size, offset);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return errno;
        buffer += put;
        size -= static_cast<std::size_t>(put);
        offset += put;
    }
    return 0;
}

/// The two open ends of a file on its way. After a failure `written` tells how much of the copy is good.
struct Transfer {
    const CopyTask &task;
    int dst_fd;
    off_t size;
    bool reserved_by_writing; ///< a write that finds no space is the reservation's failure
    off_t written = 0;
};

bool is_out_of_space(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

int copy_slice(Transfer &transfer, off_t end, char *buffer, BackupRun &run) {
    const CopyTask &task = transfer.task;
    while (transfer.written < end) {
        const auto piece = static_cast<std::size_t>(std::min<off_t>(end - transfer.written, off_t{CopyBuffer::size}));
        if (const int error = read_exactly(task.src_fd.get(), buffer, piece, transfer.written))
            return report_read_failure(task, run, error);
        if (const int error = write_exactly(transfer.dst_fd, buffer, piece, transfer.written)) {
            if (transfer.reserved_by_writing && is_out_of_space(error))
                return report_reservation_failure(task, run, error);
            return report_write_failure(task, run, error);
        }
        transfer.written += static_cast<off_t>(piece);
    }
    return 0;
}

int copy_slices(Transfer &transfer, CopyBuffer &buffer, BackupRun &run) {
    if (transfer.size > 0 && buffer.get() == nullptr) return ENOMEM;
    while (transfer.written < transfer.size) {
        const off_t slice = std::min(transfer.size - transfer.written, kSlice);
        if (const int error = copy_slice(transfer, transfer.written + slice, buffer.get(), run)) return error;
        run.bytes += slice;
        backup_progress_record(&run, 1);
    }
    return 0;
}

/// Opens the source unless the walk has done so.
int open_source(CopyTask &task, BackupRun &run) {
    if (task.src_fd) return 0;
    task.src_fd.reset(open_regular(task.src, O_RDONLY | (task.follow_source ? 0 : O_NOFOLLOW), 0));
    return task.src_fd ? 0 : report_read_failure(task, run, errno);
}

/// Reserves the file's whole size, so that a copy that cannot fit fails before its first byte. The size itself grows
/// with the bytes: a disk that is pulled while they are still in memory must not keep a file of zeros with the source's
/// size and time, which no later run would copy again.
int reserve(int fd, off_t size) {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && static_cast<rlim_t>(size) > limit.rlim_cur) return EFBIG;
    if (fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size) == 0) return 0;
    if (errno != EOPNOTSUPP) return errno;
    if (const int error = write_exactly(fd, "", 1, size - 1)) return error;
    return ftruncate(fd, 0) == 0 ? 0 : errno;
}

// Between two native Linux file systems. The bytes move by reading and writing: that costs half of what two mappings
// cost, and a source that shrinks or a destination that fills up is an error here where a mapping would be a SIGBUS.
int _do_copy_mmap(Transfer &transfer, CopyBuffer &buffer, BackupRun &run) {
    const CopyTask &task = transfer.task;
    if (transfer.size == 0) return 0;

    transfer.reserved_by_writing = transfer.size <= kReservedByWriting;
    if (!transfer.reserved_by_writing) {
        if (const int error = reserve(transfer.dst_fd, transfer.size))
            return report_reservation_failure(task, run, error);
    }
    if (const int error = copy_slices(transfer, buffer, run)) return error;
    backup_progress_record(&run, 0);
    TSBACKUP_LOG(level::debug, "_do_copy_mmap(\"%s\", \"%s\"),transferred=%lld\n", task.src.path, task.dst.path,
                 static_cast<long long>(transfer.written));
    return 0;
}

// Where at least one side is a network mount or a foreign file system.
int _do_copy_dumb(Transfer &transfer, CopyBuffer &buffer, BackupRun &run) {
    const CopyTask &task = transfer.task;
    if (const int error = copy_slices(transfer, buffer, run)) return error;
    backup_progress_record(&run, 0);
    TSBACKUP_LOG(level::debug, "_do_copy_dumb(\"%s\", \"%s\"),transferred=%lld\n", task.src.path, task.dst.path,
                 static_cast<long long>(transfer.written));
    return 0;
}

// ---- one file --------------------------------------------------------------------------------------------------

bool is_native(long file_system_type) {
    return file_system_type == BTRFS_SUPER_MAGIC || file_system_type == EXT4_SUPER_MAGIC;
}

/// 0, or an errno value. What the folder's walk already knows is not asked again.
int destination_type(const CopyTask &task, dev_t device, const FolderFacts &facts, long &type) {
    type = facts.dst_type;
    if (type != 0 && device == facts.dst_device) return 0;
    struct statfs statistics {};
    if (statfs(task.dst.path, &statistics) != 0) return errno;
    type = statistics.f_type;
    return 0;
}

/// The same for the source, which is opened for it: a snapshot that was deleted meanwhile has no path any more, and its
/// files are still to be copied.
int source_type(CopyTask &task, const FolderFacts &facts, long &type) {
    type = facts.src_type;
    if (type != 0 && task.src_status->st_dev == facts.src_device) return 0;
    if (!task.src_fd) task.src_fd.reset(open_regular(task.src, O_RDONLY | (task.follow_source ? 0 : O_NOFOLLOW), 0));
    struct statfs statistics {};
    const int result = task.src_fd ? fstatfs(task.src_fd.get(), &statistics) : statfs(task.src.path, &statistics);
    if (result != 0) return errno;
    type = statistics.f_type;
    return 0;
}

/// Gives a file's owner the right to write to it. False when that is not what is missing.
bool make_writable(const Place &place) {
    struct stat status {};
    return fstatat(place.folder, place.name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & S_IWUSR) == 0 && fchmodat(place.folder, place.name, status.st_mode | S_IWUSR, 0) == 0;
}

/// Opens the destination for writing. On a share the server refuses a file that nobody may write to, whoever asks: the
/// copy of such a file would never be renewed. On a disk of the appliance that cannot happen.
UniqueFd create_destination(const Place &place) {
    UniqueFd fd(open_regular(place, O_WRONLY | O_CREAT, 0666));
    if (fd || errno != EACCES) return fd;
    if (make_writable(place)) return UniqueFd(open_regular(place, O_WRONLY | O_CREAT, 0666));
    errno = EACCES;
    return fd;
}

/// Creates or empties the destination and fills `status`. An empty owner and `errno` on failure.
///
/// The file is examined before it is emptied: what is no regular file takes no copy, and a destination that is the
/// very source would lose its content. Both are EINVAL in `refusal`.
UniqueFd open_destination(const CopyTask &task, struct stat &status, int &refusal) {
    UniqueFd fd = create_destination(task.dst);
    if (!fd) return fd;
    if (fstat(fd.get(), &status) != 0) return UniqueFd();
    const bool is_source = status.st_dev == task.src_status->st_dev && status.st_ino == task.src_status->st_ino;
    if (!S_ISREG(status.st_mode) || is_source)
        refusal = EINVAL;
    else if (status.st_size > 0 && ftruncate(fd.get(), 0) != 0)
        return UniqueFd();
    return fd;
}

/// Closes a written file. 0, or the errno of bytes that a server or a quota refused only now.
int close_written(UniqueFd &fd) { return close(fd.release()) == 0 || errno == EINTR ? 0 : errno; }

/// Moves the bytes and the metadata of a file whose destination is open. 0 or an errno value.
int transfer_file(CopyTask &task, UniqueFd &dst_fd, const struct stat &dst_status, bool native,
                  const FolderFacts &facts, CopyBuffer &buffer, BackupRun &run) {
    TSBACKUP_LOG(level::debug, native ? "_do_copy_mmap(\"%s\", \"%s\")\n" : "_do_copy_dumb(\"%s\", \"%s\")\n",
                 task.src.path, task.dst.path);
    if (const int error = open_source(task, run)) return error;

    Transfer transfer{task, dst_fd.get(), task.src_status->st_size, false};
    if (const int error = native ? _do_copy_mmap(transfer, buffer, run) : _do_copy_dumb(transfer, buffer, run)) {
        // What was reserved but never written must not pass for content.
        static_cast<void>(ftruncate(dst_fd.get(), transfer.written));
        return error;
    }
    // A server takes over times only once its client has closed the file.
    if (!native) {
        if (const int error = close_written(dst_fd)) return report_write_failure(task, run, error);
    }

    struct stat source {};
    if (fstat(task.src_fd.get(), &source) != 0) return 0;
    // A source that changed while it was read keeps the time it had before: the next run copies it again.
    source.st_mtim = task.src_status->st_mtim;
    MetaTarget target;
    target.place = task.dst;
    target.fd = dst_fd.get();
    target.status = &dst_status;
    target.may_have_access_list = !facts.dst_is_fresh || facts.dst_hands_down_lists;
    apply_metadata(source, task.src.path, task.src_fd.get(), target, run);
    return 0;
}

/// Looks at the source unless the walk has done so. False after the failure was reported.
bool examine_source(CopyTask &task, BackupRun &run) {
    if (task.src_status) return true;
    struct stat status {};
    if (fstatat(task.src.folder, task.src.name, &status, task.follow_source ? 0 : AT_SYMLINK_NOFOLLOW) == 0) {
        task.src_status = status;
        return true;
    }
    const std::string reason = error_text(errno);
    TSBACKUP_LOG(level::warning, "Failed to locate file '%s' (%s)\n", task.src.path, reason.c_str());
    error_log_line(run, "Failed to get status of file '%s' (error: %s)!\n", relative_source(task, run), reason.c_str());
    TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "Failed to locate file '%s' (%s)\n", task.src.path,
                       reason.c_str());
    return false;
}

} // namespace

int copy_file(CopyTask &task, const FolderFacts &facts, CopyBuffer &buffer, BackupRun &run) {
    TSBACKUP_LOG(level::debug, "do_copy_file(\"%s\", \"%s\")\n", task.src.path, task.dst.path);
    if (!examine_source(task, run)) return ENOENT;
    if (!S_ISREG(task.src_status->st_mode)) {
        TSBACKUP_LOG(level::info, "File '%s' is not a regular file.  Skipping.\n", task.src.path);
        error_log_line(run, "Skip to copy '%s' because it is not a regular file!\n", relative_source(task, run));
        return 0;
    }

    // Asked before the destination is emptied: without a source to read, an earlier copy stays what it is.
    long src_type = 0;
    if (const int error = source_type(task, facts, src_type))
        return report_statfs_failure(task.src.path, relative_source(task, run), run, error);

    struct stat dst_status {};
    int refusal = 0;
    UniqueFd dst_fd = open_destination(task, dst_status, refusal);
    if (!dst_fd) {
        const int error = errno;
        TSBACKUP_LOG(level::error, "Cannot create file %s (%d)\n", task.dst.path, error);
        error_log_line(run, "Cannot create file '%s' (error: %s)!\n", task.dst.path, error_text(error).c_str());
        // Kept as it is: whatever hindered the creation, the interface has always shown a read-only destination.
        TSBACKUP_ERROR_SET(error_code::destination_read_only, &run, "Destination is Read-Only.");
        return error;
    }

    long dst_type = 0;
    if (const int error = destination_type(task, dst_status.st_dev, facts, dst_type))
        return report_statfs_failure(task.dst.path, relative_destination(task, run), run, error);

    const bool native = is_native(src_type) && is_native(dst_type);
    const int error = refusal != 0 ? refusal : transfer_file(task, dst_fd, dst_status, native, facts, buffer, run);
    if (error != 0) {
        const std::string reason = error_text(error);
        TSBACKUP_LOG(level::error, "Copying file '%s' failed (%s)\n", task.dst.path, reason.c_str());
        error_log_line(run, "Failed to copy file '%s' (error: %s)!\n", relative_source(task, run), reason.c_str());
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "Failed to copy file '%s' (%s)\n", relative_source(task, run),
                           reason.c_str());
        return error;
    }
    copy_log_line(run, "Copy File  %s\n", relative_destination(task, run));
    return 0;
}

int do_copy_file(const char *src, const char *dst, BackupRun &run) {
    CopyTask task;
    task.src = Place::of_path(src);
    task.dst = Place::of_path(dst);
    task.follow_source = true;
    CopyBuffer buffer;
    return copy_file(task, FolderFacts{}, buffer, run);
}

} // namespace tsbackup
