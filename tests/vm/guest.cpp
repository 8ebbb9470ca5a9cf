#include "guest.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tsbackup::test {

namespace {

constexpr char kCopiedFile[] = "Copy File  ";

} // namespace

bool in_guest() { return std::getenv("TSBACKUP_VM") != nullptr && in_appliance(); }

void must_succeed(const std::string &command) {
    const std::string said = shell_output(command + " || echo FAILED");
    if (said.ends_with("FAILED\n")) throw std::runtime_error(command + ": " + said);
}

void start_in_guest() {
    reset_appliance();
    // The one that holds all the guest's devices; the appliance's own has none that can be mounted.
    if (!file_exists("/dev/loop-control") && mount("devices", "/dev", "devtmpfs", 0, nullptr) != 0)
        throw std::runtime_error("the guest's devices cannot be shown");
}

// A type that the kernel does not know, and cannot load, is refused before anything else is looked at.
bool kernel_has(const DiskFormat &format) {
    return mount("none", "/srv", format.kernel_type, 0, nullptr) == 0 || errno != ENODEV;
}

Disk::Disk(const DiskFormat &format, const std::string &at, const std::string &options)
    : format_(format), at_(at), image_("/srv/disk" + std::to_string(std::hash<std::string>()(at)) + ".img") {
    must_succeed("truncate -s " + std::to_string(format_.mebibytes) + "M " + image_ + " && " + format_.make + " " +
                 image_ + " >/dev/null");
    make_folder(at_);
    mount_it(options);
}

Disk::~Disk() {
    if (!wait_until([this] { return umount(at_.c_str()) == 0; }, std::chrono::seconds(10)))
        ADD_FAILURE() << at_ << " is still in use";
    remove_tree(image_);
    remove_tree(at_);
}

void Disk::remount(const std::string &options) {
    must_succeed("umount " + at_);
    mount_it(options);
}

void Disk::mount_it(const std::string &options) {
    must_succeed(std::string("mount ") + format_.mount + " -o loop" + (options.empty() ? "" : "," + options) + " " +
                 image_ + " " + at_);
}

void write_dated(const std::string &path, const std::string &content, timespec time) {
    write_file(path, content);
    const timespec times[] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

void cut_times(const std::string &folder, long step_ns) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
        timespec time = modification_time(entry.path());
        time.tv_nsec -= time.tv_nsec % step_ns;
        const timespec times[] = {time, time};
        ASSERT_EQ(utimensat(AT_FDCWD, entry.path().c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << entry.path();
    }
}

timespec modification_time(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mtim;
}

Outcome run_job(const Settings &settings, const ProgramOptions &options, int verbosity) {
    for (std::string kept = kept_copy_log_path(kJob); !kept.empty(); kept = kept_copy_log_path(kJob))
        remove_tree(kept);
    JobFile().job(kJob, settings).write();
    return run_program({"-v", std::to_string(verbosity), "-e", std::to_string(kJob)}, options);
}

std::string error_log() { return read_file(error_log_path(kJob)); }

std::vector<std::string> copied_files() {
    std::vector<std::string> names;
    std::istringstream log(read_file(kept_copy_log_path(kJob)));
    std::string line;
    while (std::getline(log, line))
        if (line.starts_with(kCopiedFile)) names.push_back(line.substr(std::size(kCopiedFile) - 1));
    return names;
}

} // namespace tsbackup::test
