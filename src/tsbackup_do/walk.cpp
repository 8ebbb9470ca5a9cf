#include "walk.h"

#include "copy_file.h"
#include "listing.h"
#include "metadata.h"
#include "scout.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/paths.h"
#include "tsbackup_do.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tsbackup {

namespace {

constexpr std::int32_t kDefaultResolution = 100'000;
constexpr std::int32_t kFullSecondResolution = 1'000'000'000;

} // namespace

std::int32_t timestamp_resolution_ns = kDefaultResolution;
std::int32_t coarse_dst_times = 0;

namespace {

constexpr long kNtfsMagic = 0x5346544E;
constexpr long kSmbMagic = 0xFE534D42;
constexpr long kSmbMagicMask = 0xFEFFFFFF;

/// So many files ahead of the one being copied are looked at, opened and announced to the kernel, which reads them
/// from a cold disk side by side.
constexpr std::size_t kLookAhead = 16;
/// Of a file that long only the beginning is announced; the kernel reads on by itself.
constexpr off_t kAnnounced = off_t{1024} * 1024;
/// Folders nested deeper than this are reached by their whole path, so that no tree uses up the descriptors.
constexpr int kHeldLevels = 200;
/// So many subfolders at most are divided between the walk and its scout at a time.
constexpr std::size_t kScoutedFolders = 32;

// ---- paths -----------------------------------------------------------------------------------------------------

/// The path of the entry at hand, as long as the program's path buffers; what does not fit is cut.
class PathBuffer {
  public:
    explicit PathBuffer(const char *root) : length_(std::min(std::strlen(root), kLimit)) {
        std::memcpy(text_.data(), root, length_);
        text_[length_] = '\0';
    }
    const char *text() const { return text_.data(); }
    std::size_t length() const { return length_; }
    /// Appends "/" and a name. False when the path had to be cut.
    bool enter(const char *name) {
        const std::size_t name_length = std::strlen(name);
        const bool fits = length_ + 1 + name_length <= kLimit;
        if (length_ < kLimit) text_[length_++] = '/';
        const std::size_t room = std::min(name_length, kLimit - length_);
        std::memcpy(&text_[length_], name, room);
        length_ += room;
        text_[length_] = '\0';
        return fits;
    }
    void leave_to(std::size_t length) {
        length_ = length;
        text_[length_] = '\0';
    }

  private:
    static constexpr std::size_t kLimit = paths::buffer_size - 1;
    std::array<char, paths::buffer_size> text_;
    std::size_t length_;
};

/// A file that the walk has looked at before its turn.
struct UpcomingFile {
    bool to_be_copied = false;
    bool seen_by_scout = false;        ///< unchanged, as the scout says
    std::optional<struct stat> status; ///< no value: it could not be examined
    UniqueFd fd;                       ///< -1: it is opened when its turn comes
    std::uint64_t copies_before = 0;   ///< how many files the walk had copied when it looked
};

/// What lasts as long as the walk through one tree.
struct Walk {
    Walk(BackupRun &backup_run, const char *src_root, const char *dst_root)
        : run(backup_run), src(src_root), dst(dst_root) {}

    BackupRun &run;
    PathBuffer src;
    PathBuffer dst;
    CopyBuffer buffer;
    std::array<UpcomingFile, kLookAhead> upcoming;
    std::uint64_t copies = 0;  ///< files that the walk has copied, or tried to
    dev_t dst_root_device = 0; ///< with the inode: the destination's root, 0 while unknown
    ino_t dst_root_inode = 0;
    dev_t src_device = 0; ///< where the walk was last, and its file-system type; 0: nowhere yet
    long src_type = 0;
    Scout scout;
    std::optional<ScoutReport> report; ///< of the folder that is about to be entered
    std::uint64_t copies_at_last_folder = 0;
};

/// One folder of the tree and its counterpart.
struct Folder {
    Walk &walk;
    UniqueFd src_fd; ///< -1: entries are reached by their whole path
    UniqueFd dst_fd;
    dev_t src_device = 0; ///< with the inode: which folder it is, 0 while unknown
    ino_t src_inode = 0;
    ino_t dst_inode = 0;
    FolderFacts facts;
    Listing listing;
    std::string unchanged; ///< what the scout says of the entries; empty: nothing
    std::uint64_t copies_before_scout = 0;
    std::size_t scouted_up_to = 0;    ///< the entry behind the last subfolder that the scout was sent to
    std::uint64_t scouted_copies = 0; ///< the walk's copies at that time
};

/// The places of an entry on both sides, for as long as the object lives.
class EntryPlaces {
  public:
    EntryPlaces(Folder &folder, const char *name)
        : walk_(folder.walk), src_length_(walk_.src.length()), dst_length_(walk_.dst.length()) {
        const bool src_fits = walk_.src.enter(name);
        const bool dst_fits = walk_.dst.enter(name);
        src = place(folder.src_fd.get(), src_fits, name, walk_.src.text());
        dst = place(folder.dst_fd.get(), dst_fits, name, walk_.dst.text());
    }
    ~EntryPlaces() {
        walk_.src.leave_to(src_length_);
        walk_.dst.leave_to(dst_length_);
    }
    EntryPlaces(const EntryPlaces &) = delete;
    EntryPlaces &operator=(const EntryPlaces &) = delete;

    Place src;
    Place dst;

  private:
    static Place place(int folder, bool fits, const char *name, const char *path) {
        return folder >= 0 && fits ? Place{folder, name, path} : Place::of_path(path);
    }

    Walk &walk_;
    std::size_t src_length_;
    std::size_t dst_length_;
};

// ---- the destination folder ------------------------------------------------------------------------------------

/// Creates the destination folder with its source's metadata. Before any content on purpose: its times end up as
/// the copying of its content leaves them. 0 or an errno value.
int create_destination(const Folder &folder, const Place &src, const Place &dst) {
    BackupRun &run = folder.walk.run;
    const char *relative = below_root(dst.path, run.dst_root_len);
    if (mkdirat(dst.folder, dst.name, 0777) != 0) {
        const int error = errno;
        error_log_line(run, "Cannot create directory %s!\n", relative);
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "cannot create directory %s!", relative);
        TSBACKUP_LOG(level::error, "Cannot mkdir(%s) ==> %d.\n", dst.path, error);
        return error;
    }
    // A folder that may not be read lends its metadata all the same; a file or a link in its place lends nothing.
    struct stat source {};
    const int result = folder.src_fd ? fstat(folder.src_fd.get(), &source)
                                     : fstatat(src.folder, src.name, &source, AT_SYMLINK_NOFOLLOW);
    if (result == 0 && S_ISDIR(source.st_mode)) {
        MetaTarget target;
        target.place = dst;
        apply_metadata(source, src.path, folder.src_fd.get(), target, run);
    }
    copy_log_line(run, "Copy Folder  %s\n", relative);
    return 0;
}

/// Takes the resolution of time stamps from the destination's file system. 0 or an errno value.
int choose_time_resolution(Folder &folder, const Place &dst) {
    struct statfs statistics {};
    const int result = folder.dst_fd ? fstatfs(folder.dst_fd.get(), &statistics) : statfs(dst.path, &statistics);
    if (result != 0) {
        const int error = errno;
        BackupRun &run = folder.walk.run;
        TSBACKUP_LOG(level::error, "statfs(%s) fail. errno=%d\n", dst.path, error);
        error_log_line(run, "Cannot get filesystem statistics of file '%s' (error: %s)!\n",
                       below_root(dst.path, run.dst_root_len), error_text(error).c_str());
        return error;
    }

    const long type = statistics.f_type;
    folder.facts.dst_type = type;
    if (type == MSDOS_SUPER_MAGIC || type == kNtfsMagic) {
        if (timestamp_resolution_ns != kFullSecondResolution) {
            TSBACKUP_LOG(level::debug, "Doing full-second timestamp resolution for destination FS type.\n");
            timestamp_resolution_ns = kFullSecondResolution;
        }
        return 0;
    }
    if ((type & kSmbMagicMask) == (kSmbMagic & kSmbMagicMask) && coarse_dst_times == 0) {
        TSBACKUP_LOG(level::debug, "Backing up to remote destination.\n");
        coarse_dst_times = 1;
    }
    if (timestamp_resolution_ns != kDefaultResolution) {
        TSBACKUP_LOG(level::debug, "Doing default timestamp resolution for destination FS type.\n");
        timestamp_resolution_ns = kDefaultResolution;
    }
    return 0;
}

/// Notes what the files of the folder would otherwise ask one by one.
void gather_facts(Folder &folder, const Place &dst) {
    Walk &walk = folder.walk;
    if (folder.src_inode != 0) {
        struct statfs statistics {};
        if (folder.src_device != walk.src_device && fstatfs(folder.src_fd.get(), &statistics) == 0) {
            walk.src_device = folder.src_device;
            walk.src_type = statistics.f_type;
        }
        if (folder.src_device == walk.src_device) {
            folder.facts.src_device = folder.src_device;
            folder.facts.src_type = walk.src_type;
        }
    }
    struct stat status {};
    if (!folder.dst_fd || fstat(folder.dst_fd.get(), &status) != 0) {
        folder.facts.dst_type = 0;
        return;
    }
    folder.facts.dst_device = status.st_dev;
    folder.dst_inode = status.st_ino;
    if (walk.dst_root_inode == 0) {
        walk.dst_root_device = status.st_dev;
        walk.dst_root_inode = status.st_ino;
    }
    if (folder.facts.dst_is_fresh)
        folder.facts.dst_hands_down_lists = getxattr(dst.path, "system.posix_acl_default", nullptr, 0) > 0;
}

// ---- entries ---------------------------------------------------------------------------------------------------

/// Names that belong to the appliance and are never copied, at any depth.
bool is_reserved_name(const char *name) {
    return std::strcmp(name, ".snapshot") == 0 || std::strncmp(name, "._snap-", 7) == 0 ||
           std::strcmp(name, ".apps") == 0 || std::strcmp(name, ".vault") == 0;
}

bool is_up_to_date(const struct stat &source, const Place &dst) {
    struct stat status {};
    return fstatat(dst.folder, dst.name, &status, 0) == 0 && status.st_size == source.st_size &&
           mtime_compare(source, status, timestamp_resolution_ns, coarse_dst_times) == 0;
}

/// Opens a file that is going to be copied and announces that it will be read.
UniqueFd open_and_announce(const Place &src, const struct stat &status) {
    if (!S_ISREG(status.st_mode) || status.st_size == 0) return UniqueFd();
    UniqueFd fd(openat(src.folder, src.name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (fd) static_cast<void>(posix_fadvise(fd.get(), 0, std::min(status.st_size, kAnnounced), POSIX_FADV_WILLNEED));
    return fd;
}

/// Whether the scout has seen that a file is unchanged, and nothing was copied since.
bool is_seen_unchanged(const Folder &folder, std::size_t index) {
    return !folder.unchanged.empty() && folder.unchanged[index] != 0 &&
           folder.copies_before_scout == folder.walk.copies;
}

/// Decides whether a file is to be copied.
void look_at_file(Folder &folder, std::size_t index, UpcomingFile &file) {
    file = UpcomingFile{};
    file.copies_before = folder.walk.copies;
    file.seen_by_scout = is_seen_unchanged(folder, index);
    if (file.seen_by_scout) return;
    const char *name = folder.listing.name(index);
    const EntryPlaces places(folder, name);
    const bool full = folder.walk.run.full != 0;

    struct stat status {};
    if (fstatat(places.src.folder, places.src.name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        file.to_be_copied = full;
        return;
    }
    file.status = status;
    file.to_be_copied = full || folder.facts.dst_is_fresh || !is_up_to_date(status, places.dst);
    if (file.to_be_copied) file.fd = open_and_announce(places.src, status);
}

/// The type of an entry, asked of the entry itself where the folder does not tell. 0: no longer there.
mode_t entry_mode(Folder &folder, std::size_t index) {
    switch (folder.listing.type(index)) {
    case DT_REG:
        return S_IFREG;
    case DT_DIR:
        return S_IFDIR;
    default:
        break;
    }
    const EntryPlaces places(folder, folder.listing.name(index));
    struct stat status {};
    return fstatat(places.src.folder, places.src.name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? status.st_mode : 0;
}

/// Looks at files from `from` on, at most kLookAhead of them beyond `current`, and not past a folder: whoever
/// descends holds no opened files. Returns the index behind the last one looked at.
[[gnu::noinline]] std::size_t look_ahead(Folder &folder, std::size_t current, std::size_t from) {
    std::size_t index = std::max(current, from);
    for (; index < folder.listing.size() && index < current + kLookAhead; ++index) {
        if (is_reserved_name(folder.listing.name(index))) continue;
        if (!S_ISREG(entry_mode(folder, index))) break;
        look_at_file(folder, index, folder.walk.upcoming[index % kLookAhead]);
    }
    return index;
}

int copy_folder(Walk &walk, const Place &src, const Place &dst, int depth);

int copy_upcoming_file(Folder &folder, const char *name, UpcomingFile &file) {
    const EntryPlaces places(folder, name);
    ++folder.walk.copies;
    CopyTask task;
    task.src = places.src;
    task.dst = places.dst;
    // What vanished between the look and now is looked at again, and reported.
    if (file.fd || (file.status && (file.status->st_size == 0 || !S_ISREG(file.status->st_mode))))
        task.src_status = file.status;
    task.src_fd = std::move(file.fd);
    return copy_file(task, folder.facts, folder.walk.buffer, folder.walk.run);
}

/// Whether a file that was up to date when it was looked at still is at its turn. A copy made since may have changed
/// it: where names differ in case alone, or two names of the destination are links to one file.
bool is_still_up_to_date(Folder &folder, const char *name, const UpcomingFile &file) {
    if (!file.status || file.copies_before == folder.walk.copies) return true;
    const EntryPlaces places(folder, name);
    return is_up_to_date(*file.status, places.dst);
}

bool is_tmpfs(const char *path) {
    struct statfs statistics {};
    return statfs(path, &statistics) == 0 && statistics.f_type == TMPFS_MAGIC;
}

/// Whether a subfolder is not to be entered.
[[gnu::noinline]] bool is_left_out(const Folder &folder, const Place &src) {
    const Walk &walk = folder.walk;
    struct stat status {};
    if (fstatat(src.folder, src.name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (status.st_dev != folder.src_device && is_tmpfs(src.path)) {
        TSBACKUP_LOG(level::debug, "Skipping tmpfs mount point %s\n", src.path);
        return true;
    }
    // A path that had to be cut right behind its folder names that folder again, and would do so for ever.
    if (status.st_dev == folder.src_device && status.st_ino == folder.src_inode) {
        TSBACKUP_LOG(level::warning, "Failed to scan dir '%s' (%s)\n", src.path, error_text(ENAMETOOLONG).c_str());
        return true;
    }
    // A destination inside its own source would grow into itself until the disk is full.
    if (status.st_dev == walk.dst_root_device && status.st_ino == walk.dst_root_inode) {
        TSBACKUP_LOG(level::debug, "Skipping destination folder %s\n", src.path);
        return true;
    }
    return false;
}

ScoutedState present_state(const Walk &walk) { return {walk.copies, timestamp_resolution_ns, coarse_dst_times}; }

/// Sends the scout to the subfolders behind an entry.
void send_scout_ahead(Folder &folder, std::size_t index) {
    Walk &walk = folder.walk;
    if (walk.run.full != 0 || folder.facts.dst_is_fresh || !folder.src_fd || !folder.dst_fd) return;
    std::vector<std::string> names;
    for (++index; index < folder.listing.size() && names.size() < kScoutedFolders; ++index) {
        const char *name = folder.listing.name(index);
        if (folder.listing.type(index) == DT_DIR && !is_reserved_name(name)) names.emplace_back(name);
    }
    folder.scouted_up_to = index;
    folder.scouted_copies = walk.copies;
    walk.scout.send({folder.src_fd.get(), folder.dst_fd.get(), std::move(names), present_state(walk)});
}

/// Looks for the scout's report of a subfolder whose turn has come, and keeps the scout at work. Where files are being
/// copied it stays behind: its reports would be out of date.
[[gnu::noinline]] void confer_with_scout(Folder &folder, std::size_t index) {
    Walk &walk = folder.walk;
    walk.report.reset();
    if (std::exchange(walk.copies_at_last_folder, walk.copies) != walk.copies) {
        walk.scout.end_all();
        return;
    }
    walk.report = walk.scout.take(folder.src_fd.get(), folder.listing.name(index));
    if (index + 1 >= folder.scouted_up_to || folder.scouted_copies != walk.copies) send_scout_ahead(folder, index);
}

/// Whether a report is of that source folder and still counts.
bool is_report_of_source(const ScoutReport &report, const Folder &folder) {
    return report.src_device == folder.src_device && report.src_inode == folder.src_inode &&
           report.state.copies == folder.walk.copies;
}

/// Takes over what the scout saw of the files, when it was in the same destination.
void take_over_report(Folder &folder, ScoutReport &report) {
    if (report.dst_device != folder.facts.dst_device || report.dst_inode != folder.dst_inode ||
        report.state != present_state(folder.walk))
        return;
    folder.unchanged = std::move(report.unchanged);
    folder.copies_before_scout = report.state.copies;
}

/// Copies a subfolder. No value when it is left out.
std::optional<int> copy_subfolder(Folder &folder, std::size_t index, int depth) {
    confer_with_scout(folder, index);
    const EntryPlaces places(folder, folder.listing.name(index));
    if (is_left_out(folder, places.src)) return std::nullopt;
    return copy_folder(folder.walk, places.src, places.dst, depth + 1);
}

/// Copies a file that stands at its turn. No value when it is left out.
[[gnu::noinline]] std::optional<int> copy_file_at_its_turn(Folder &folder, std::size_t index) {
    const char *name = folder.listing.name(index);
    UpcomingFile file = std::exchange(folder.walk.upcoming[index % kLookAhead], UpcomingFile{});
    if (file.seen_by_scout && file.copies_before != folder.walk.copies) look_at_file(folder, index, file);
    if (!file.to_be_copied && is_still_up_to_date(folder, name, file)) return std::nullopt;
    return copy_upcoming_file(folder, name, file);
}

[[gnu::noinline]] void report_skipped_entry(Folder &folder, std::size_t index, mode_t mode) {
    const EntryPlaces places(folder, folder.listing.name(index));
    TSBACKUP_LOG(level::debug, "skip file:%s, type %d\n", places.src.path, static_cast<int>(mode));
}

/// Copies one entry that stands at its turn. No value when it is left out.
std::optional<int> copy_entry(Folder &folder, std::size_t index, int depth) {
    const mode_t mode = entry_mode(folder, index);
    if (S_ISDIR(mode)) return copy_subfolder(folder, index, depth);
    if (S_ISREG(mode)) return copy_file_at_its_turn(folder, index);
    report_skipped_entry(folder, index, mode);
    return std::nullopt;
}

[[gnu::noinline]] void report_bailing(Folder &folder, int error) {
    TSBACKUP_LOG(level::error, "Bailing backing up directory %s (%s)\n", folder.walk.src.text(),
                 error_text(error).c_str());
    folder.walk.upcoming = {};
}

// Kept as it is: the last entry's result is the folder's, so that an early failure which successes follow is none.
// Callers learn of it from the error record.
int copy_entries(Folder &folder, int depth) {
    int result = 0;
    std::size_t looked_at = 0;
    for (std::size_t index = 0; index < folder.listing.size(); ++index) {
        if (is_reserved_name(folder.listing.name(index))) continue;
        looked_at = look_ahead(folder, index, looked_at);
        const std::optional<int> entry_result = copy_entry(folder, index, depth);
        if (!entry_result) continue;
        result = *entry_result;
        if (result == ENOSPC || result == EROFS) {
            report_bailing(folder, result);
            break;
        }
    }
    if (folder.scouted_up_to != 0) folder.walk.scout.end(folder.src_fd.get());
    return result;
}

// ---- folders ---------------------------------------------------------------------------------------------------

/// Whether the folder is one that holds snapshots of what is being copied.
bool holds_snapshots(const BackupRun &run, const char *path) {
    if (run.snapshot_skip_path && *run.snapshot_skip_path == path) {
        TSBACKUP_LOG(level::debug, "This is a snapshot, don't back up.\n");
        return true;
    }
    return std::strstr(path, "/snapshot") != nullptr && is_share_snapshot_dir(path);
}

void identify_source(Folder &folder) {
    struct stat status {};
    if (!folder.src_fd || fstat(folder.src_fd.get(), &status) != 0) return;
    folder.src_device = status.st_dev;
    folder.src_inode = status.st_ino;
}

int read_listing(Folder &folder, int open_error) {
    return folder.src_fd ? folder.listing.read(folder.src_fd.get()) : open_error;
}

/// Makes the destination where it is missing, and opens and lists the two folders. 0 or an errno value.
[[gnu::noinline]] int open_folder(Folder &folder, const Place &src, const Place &dst, int depth) {
    std::optional<ScoutReport> report = std::exchange(folder.walk.report, std::nullopt);
    // Opened ahead of everything else: what happens to the folder's name from here on changes nothing. Another job that
    // starts now deletes this run's snapshot, which lives on for as long as it is held open.
    const int follow = depth == 0 ? 0 : O_NOFOLLOW;
    folder.src_fd.reset(openat(src.folder, src.name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | follow));
    const int open_error = folder.src_fd ? 0 : errno;
    identify_source(folder);

    struct stat dst_status {};
    if (fstatat(dst.folder, dst.name, &dst_status, 0) != 0) {
        if (const int error = create_destination(folder, src, dst)) return error;
        folder.facts.dst_is_fresh = true;
    }

    if (report && !is_report_of_source(*report, folder)) report.reset();
    if (report) folder.listing = std::move(report->listing);
    if (const int error = report ? 0 : read_listing(folder, open_error)) {
        TSBACKUP_LOG(level::warning, "Failed to scan dir '%s' (%s)\n", src.path, error_text(error).c_str());
        return error;
    }

    folder.dst_fd.reset(openat(dst.folder, dst.name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (const int error = choose_time_resolution(folder, dst)) return error;
    gather_facts(folder, dst);
    if (report) take_over_report(folder, *report);
    if (depth > kHeldLevels) {
        folder.src_fd.reset();
        folder.dst_fd.reset();
    }
    return 0;
}

// A tree may be 2000 levels deep. What a level does besides entering its subfolders stays in functions of its own (the
// ones that are not inlined), so that its stack holds nothing of it while the levels below are at work.
int copy_folder(Walk &walk, const Place &src, const Place &dst, int depth) {
    TSBACKUP_LOG(level::debug, "do_copy_dir(\"%s\", \"%s\")\n", src.path, dst.path);
    if (holds_snapshots(walk.run, src.path)) return 0;
    Folder folder{walk, UniqueFd(), UniqueFd(), 0, 0, 0, {}, {}, {}, 0, 0, 0};
    if (const int error = open_folder(folder, src, dst, depth)) return error;
    return copy_entries(folder, depth);
}

} // namespace

int do_copy_dir(const char *src, const char *dst, BackupRun &run) {
    const std::unique_ptr<Walk> walk(new (std::nothrow) Walk(run, src, dst));
    if (!walk) return ENOMEM;
    return copy_folder(*walk, Place::of_path(walk->src.text()), Place::of_path(walk->dst.text()), 0);
}

void backup_do_cp([[maybe_unused]] const BackupJob &job, BackupRun &run, const char *src, const char *dst) {
    TSBACKUP_LOG(level::debug, "backup_do_cp(\"%s\", \"%s\")\n", src, dst);
    if (run.snapshot_skip_path && *run.snapshot_skip_path == src) {
        TSBACKUP_LOG(level::debug, "This is a snapshot, don't back up.\n");
        return;
    }
    run.src_root_len = static_cast<std::int32_t>(std::strlen(src));
    run.dst_root_len = static_cast<std::int32_t>(std::strlen(dst));
    if (run.src_is_dir == 0) {
        do_copy_file(src, dst, run);
        return;
    }
    struct statfs statistics {};
    if (statfs(dst, &statistics) == 0) std::memcpy(&run.fsid, &statistics.f_fsid, sizeof run.fsid);
    do_copy_dir(src, dst, run);
}

bool is_share_snapshot_dir(const char *path) {
    std::string pieces(path, strnlen(path, paths::buffer_size - 1));
    char *rest = nullptr;
    const char *volume = strtok_r(pieces.data(), "/", &rest);
    const char *share = strtok_r(nullptr, "/", &rest);
    const char *third = strtok_r(nullptr, "/", &rest);
    if (volume == nullptr || share == nullptr || third == nullptr || std::strcmp(third, "snapshot") != 0) return false;

    const auto configuration = str_printf("/%s/._share/%s/snapdir.conf", volume, share);
    if (!configuration) return false;
    const auto line = read_first_line(configuration->c_str(), paths::buffer_size);
    const std::size_t slash = line ? line->find('/') : std::string::npos;
    if (slash == std::string::npos || line->compare(slash, std::string::npos, path) != 0) return false;
    TSBACKUP_LOG(level::debug, "This is a snapshot, don't back up when src is volume.\n");
    return true;
}

} // namespace tsbackup
