// How one file comes from the camera into the folder of its month.

#include "walk.h"

#include "tsbackup/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;
constexpr std::size_t kMonthSize = 16;
constexpr std::int64_t kMicroseconds = 1'000'000;

/// Brings the process back to the folder in which it was, wherever links have led it in between.
class WorkingFolder {
  public:
    WorkingFolder() : folder_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    ~WorkingFolder() {
        if (folder_ && fchdir(folder_.get()) != 0) TSBACKUP_LOG(level::error, "chdir err: %d.\n", errno);
    }
    WorkingFolder(const WorkingFolder &) = delete;
    WorkingFolder &operator=(const WorkingFolder &) = delete;
    explicit operator bool() const { return static_cast<bool>(folder_); }

  private:
    UniqueFd folder_;
};

/// A file of the working folder that is removed unless it got its own name.
class TemporaryFile {
  public:
    TemporaryFile() : fd_(mkostemp(name_.data(), O_CLOEXEC)) {}
    ~TemporaryFile() {
        if (exists_) unlink(name_.data());
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    explicit operator bool() const { return exists_; }
    int fd() const { return fd_.get(); }
    /// Whether all that was written has arrived.
    bool close() { return ::close(fd_.release()) == 0; }
    bool rename_to(const char *name) {
        if (rename(name_.data(), name) != 0) return false;
        exists_ = false;
        return true;
    }

  private:
    std::array<char, sizeof "tmpXXXXXX"> name_{"tmpXXXXXX"};
    UniqueFd fd_;
    bool exists_ = static_cast<bool>(fd_);
};

mode_t current_umask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

/// Creates a folder of the working folder, if it is missing, and changes into it. A symbolic link is no folder here:
/// who may write to the share must not choose where this process writes. 0, or -1.
int enter_folder(const char *name) {
    const bool made = mkdir(name, kFolderMode) == 0;
    const UniqueFd folder(open(name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder && !made) {
        TSBACKUP_LOG(level::error, "make_dir err.\n");
        return -1;
    }
    if (!folder || fchdir(folder.get()) != 0) {
        TSBACKUP_LOG(level::error, "chdir err: %d.\n", errno);
        return -1;
    }
    return 0;
}

int enter_month(std::time_t time) {
    const auto month = month_folder(time);
    if (!month) return -1;
    const std::size_t slash = month->find('/');
    if (enter_folder(month->substr(0, slash).c_str()) != 0) return -1;
    return enter_folder(month->substr(slash + 1).c_str());
}

bool same_bytes(int first, int second) {
    std::array<char, 65536> left;
    std::array<char, 65536> right;
    off_t offset = 0;
    while (true) {
        const ssize_t length = pread(first, left.data(), left.size(), offset);
        if (length < 0 || pread(second, right.data(), right.size(), offset) != length) return false;
        if (length == 0) return true;
        if (std::memcmp(left.data(), right.data(), static_cast<std::size_t>(length)) != 0) return false;
        offset += length;
    }
}

UniqueFd open_to_compare(const std::string &name, struct stat &status) {
    UniqueFd file(open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) file.reset();
    return file;
}

/// Whether both are files of the same content.
bool same_content(const std::string &first, const std::string &second) {
    struct stat first_status {};
    struct stat second_status {};
    const UniqueFd left = open_to_compare(first, first_status);
    const UniqueFd right = open_to_compare(second, second_status);
    return left && right && first_status.st_size == second_status.st_size && same_bytes(left.get(), right.get());
}

bool is_taken(const std::string &name) {
    struct stat status {};
    return lstat(name.c_str(), &status) == 0;
}

/// The name for an older file that has to make way for one with this time. The file that has this name from an earlier
/// import is replaced only by its equal.
std::string free_name_aside(const std::string &name, std::time_t time) {
    std::string aside = name_aside(name, time);
    for (int number = 1; is_taken(aside) && !same_content(name, aside); ++number) {
        const std::string suffix = "." + std::to_string(number);
        const std::string first = name_aside(name, time);
        aside = first.substr(0, std::min(first.size(), NAME_MAX - suffix.size())) + suffix;
    }
    return aside;
}

enum class Existing { none, unchanged, failed };

/// Deals with what stands where the file is to go.
Existing make_way(const char *file, const CameraFileInfoFile &info, ImportCounters &counters, const std::string &key,
                  std::FILE *log) {
    struct stat status {};
    if (lstat(file, &status) != 0) return Existing::none;
    if (status.st_mtime == info.mtime) {
        TSBACKUP_LOG(level::debug, "File %s exist, skip it.\n", file);
        // The same second alone does not make it the same file: then the camera's one is not deleted.
        const bool has_size = (info.fields & GP_FILE_INFO_SIZE) != 0;
        if (has_size && static_cast<std::uint64_t>(status.st_size) != info.size) counters.kept.insert(key);
        return Existing::unchanged;
    }
    // Kept as it is: the suffix is the new file's time, not the older one's.
    const std::string aside = free_name_aside(file, info.mtime);
    if (rename(file, aside.c_str()) != 0) {
        TSBACKUP_LOG(level::error, "rename %s err!\n", file);
        return Existing::failed;
    }
    if (log != nullptr) std::fprintf(log, "Rename exist file[%s] to %s\n", file, aside.c_str());
    return Existing::none;
}

/// Fetches the file's data; the library closes the descriptor that it writes to.
int fetch(CameraSet &set, const char *folder, const char *file, UniqueCameraFile &data) {
    const int result =
        gp_camera_file_get(set.camera.get(), folder, file, GP_FILE_TYPE_NORMAL, data.get(), set.context.get());
    if (result < 0) TSBACKUP_LOG(level::error, "gp_camera_file_get %s-%s err!\n", folder, file);
    data.reset();
    return result < 0 ? result : GP_OK;
}

/// A file object of the library that writes to a descriptor of its own on the same file; null when it cannot be made.
UniqueCameraFile camera_file_on(int fd) {
    UniqueFd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    CameraFile *file = nullptr;
    if (!own || gp_file_new_from_fd(&file, own.get()) < 0) return nullptr;
    own.release();
    return UniqueCameraFile(file);
}

/// Gives a complete file its name, mode and time. 0, or -1.
int settle(TemporaryFile &temporary, const char *file, std::time_t mtime) {
    // Through the descriptor: what has the name later may be anything.
    fchmod(temporary.fd(), kFileMode & ~current_umask());
    if (!temporary.close() || !temporary.rename_to(file)) {
        TSBACKUP_LOG(level::error, "rename %s err!\n", file);
        return -1;
    }
    const std::array<timespec, 2> times = {timespec{mtime, 0}, timespec{mtime, 0}};
    if (mtime != 0) utimensat(AT_FDCWD, file, times.data(), AT_SYMLINK_NOFOLLOW);
    return 0;
}

std::int64_t microseconds(const timeval &time) { return time.tv_sec * kMicroseconds + time.tv_usec; }

void account(ImportCounters &counters, std::uint64_t size) {
    MtpBackupStatistics &statistics = counters.statistics;
    statistics.copied_bytes += size;
    ++statistics.copied_files;
    timeval now{};
    gettimeofday(&now, nullptr);
    const std::int64_t elapsed = microseconds(now) - microseconds(counters.last_time);
    if (elapsed >= 1) {
        statistics.rate = static_cast<double>(size) / static_cast<double>(elapsed) * static_cast<double>(kMicroseconds);
        counters.last_time = now;
    } else {
        TSBACKUP_LOG(level::error, "Time is not right? started usec [%ld] copied usec[%ld]\n",
                     static_cast<long>(microseconds(counters.last_time)), static_cast<long>(microseconds(now)));
    }
    mtpbackup_status_write(counters.device.c_str(), MtpBackupStatusCode::active_copying,
                           static_cast<std::int32_t>(now.tv_sec), statistics);
}

/// Copies the file into the working folder.
int copy(CameraSet &set, const char *folder, const char *file, const CameraFileInfoFile &info, ImportCounters &counters,
         std::FILE *log) {
    TemporaryFile temporary;
    if (!temporary) {
        TSBACKUP_LOG(level::error, "Can't create tmp file!\n");
        counters.kept.insert(file_on_camera(folder, file));
        return 0;
    }
    UniqueCameraFile data = camera_file_on(temporary.fd());
    if (!data) {
        TSBACKUP_LOG(level::error, "gp_file_new_from_fd err!\n");
        counters.kept.insert(file_on_camera(folder, file));
        return 0;
    }
    int result = fetch(set, folder, file, data);
    if (result != GP_OK) return result;
    result = settle(temporary, file, info.mtime);
    if (result != 0) return result;

    if (counters.accounting != 0) account(counters, info.size);
    if (log != nullptr) std::fprintf(log, "Copy file %s/%s\n", folder, file);
    return 0;
}

} // namespace

std::optional<std::string> month_folder(std::time_t time) {
    std::tm parts{};
    if (localtime_r(&time, &parts) == nullptr) {
        TSBACKUP_LOG(level::error, "localtime_r err.\n");
        return std::nullopt;
    }
    std::array<char, kMonthSize> name{};
    if (std::strftime(name.data(), name.size(), "%Y/%m-%b", &parts) == 0) {
        TSBACKUP_LOG(level::error, "strftime err.\n");
        return std::nullopt;
    }
    return name.data();
}

std::string name_aside(const std::string &name, std::time_t time) {
    const std::string suffix = "." + std::to_string(time);
    return name.substr(0, std::min(name.size(), NAME_MAX - suffix.size())) + suffix;
}

int download_file(CameraSet *set, const char *folder, const char *file, ImportCounters *counters, std::FILE *log) {
    if (set == nullptr || folder == nullptr || file == nullptr || counters == nullptr) {
        TSBACKUP_LOG(level::error, "param is NULL!");
        return GP_ERROR;
    }
    CameraFileInfo info{};
    if (gp_camera_file_get_info(set->camera.get(), folder, file, &info, set->context.get()) < 0) {
        TSBACKUP_LOG(level::error, "gp_camera_file_get_info.\n");
        return GP_ERROR_BAD_PARAMETERS;
    }

    const WorkingFolder job_folder;
    if (!job_folder || enter_month(info.file.mtime) != 0) return GP_ERROR;
    const Existing existing = make_way(file, info.file, *counters, file_on_camera(folder, file), log);
    if (existing == Existing::failed) return GP_ERROR;
    if (existing == Existing::unchanged) return 0;
    if (counters->accounting != 0 && counters->counting_pass == 1) {
        counters->statistics.total_bytes += info.file.size;
        ++counters->statistics.total_files;
        return 0;
    }
    return copy(*set, folder, file, info.file, *counters, log);
}

} // namespace tsbackup
