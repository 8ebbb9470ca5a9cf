#include "local_ends.h"

#include "tsbackup/owners.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/loop.h>
#include <linux/major.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr char kTool[] = "/sbin/btrfs";
constexpr unsigned kLoopControlMajor = 10;
constexpr unsigned kLoopControlMinor = 237;

int log_in_memory(const char *name) {
    const int descriptor = memfd_create(name, MFD_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error("cannot keep a log in memory");
    return descriptor;
}

void must(const std::string &command) {
    const std::string output = shell_output("if " + command + "; then printf DONE; fi");
    if (output.size() < 4 || output.compare(output.size() - 4, 4, "DONE") != 0)
        throw std::runtime_error(command + ": " + output);
}

/// Attaches an image to a free loop device and mounts it. The device lives only as long as the mount, and keeps the
/// image alive without its name.
void mount_image(const std::string &image, const std::string &type, const std::string &place) {
    mknod("/dev/loop-control", S_IFCHR | 0600, makedev(kLoopControlMajor, kLoopControlMinor));
    const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    const UniqueFd file(open(image.c_str(), O_RDWR | O_CLOEXEC));
    loop_config configuration{};
    configuration.fd = static_cast<__u32>(file.get());
    configuration.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    // Another process may take the free device first.
    for (int attempt = 0; attempt < 50; ++attempt) {
        const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) break;
        const std::string name = "/dev/loop" + std::to_string(number);
        mknod(name.c_str(), S_IFBLK | 0600, makedev(LOOP_MAJOR, static_cast<unsigned>(number)));
        const UniqueFd device(open(name.c_str(), O_RDWR | O_CLOEXEC));
        if (device && ioctl(device.get(), LOOP_CONFIGURE, &configuration) == 0) {
            if (mount(name.c_str(), place.c_str(), type.c_str(), 0, nullptr) == 0) return;
            break;
        }
        if (errno != EBUSY) break;
    }
    throw std::runtime_error(std::string("cannot mount an image: ") + std::strerror(errno));
}

/// Mounts a new file system on `place` for this process alone.
void mount_new(const std::string &type, const std::string &size, const std::string &place) {
    make_folder(place);
    const TempFolder scratch;
    const std::string image = scratch / "image";
    must("truncate -s " + size + " " + image + " && mkfs." + type + " -q " + image);
    mount_image(image, type, place);
}

/// The reason why this process can have no volumes of its own; empty when they are mounted.
std::string mount_volumes() {
    if (!is_real_root()) return "needs root on the machine, for loop devices";
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("needs a mount namespace of its own: ") + std::strerror(errno);
    try {
        mount_new("btrfs", "128M", "/data");
        mount_new("ext4", "32M", "/media/USB");
    } catch (const std::runtime_error &error) {
        return std::string("needs loop devices: ") + error.what();
    }
    return "";
}

/// Removes what a test left in a folder, snapshots included.
void empty_volume(const std::string &volume) {
    shell_output("for snapshot in " + volume + "/._share/*/.snapshot/*; do btrfs subvolume delete \"$snapshot\"; done");
    for (const std::string &name : list_folder(volume))
        if (name != "lost+found") remove_tree(fs::path(volume) / name);
}

} // namespace

LoggedRun::LoggedRun() {
    job_id = 7;
    copy_log = log_in_memory("copy log");
    error_log = log_in_memory("error log");
    root_fsid = {file_system_id_half("/", 0), file_system_id_half("/", 1)};
}

LoggedRun::~LoggedRun() {
    close(copy_log);
    close(error_log);
}

std::string LoggedRun::errors() const {
    struct stat status {};
    fstat(error_log, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(error_log, text.data(), text.size(), 0) != status.st_size) return "(the error log cannot be read)";
    return text;
}

testing::AssertionResult LoggedRun::recorded(int code, const std::string &message,
                                             const std::string &error_log_text) const {
    if (error_code == code && error_message == message && errors() == error_log_text)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "recorded " << error_code << ", " << testing::PrintToString(error_message)
                                       << " with the error log \"" << errors() << "\"\nexpected " << code << ", \""
                                       << message << "\" with the error log \"" << error_log_text << "\"";
}

testing::AssertionResult LoggedRun::silent() const {
    if (error_code == 0 && !error_message && errors().empty()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "recorded " << error_code << ", " << testing::PrintToString(error_message)
                                       << " with the error log \"" << errors() << "\"";
}

BackupJob job_from(JobText type, JobText name, JobText volume, JobText path) {
    BackupJob job;
    job.src_type = std::move(type);
    job.src_share_proto = std::move(name);
    job.src_share_vol = std::move(volume);
    job.src_path = std::move(path);
    return job;
}

BackupJob job_to(JobText type, JobText name, JobText volume, JobText path) {
    BackupJob job;
    job.dst_type = std::move(type);
    job.dst_share_proto = std::move(name);
    job.dst_share_vol = std::move(volume);
    job.dst_path = std::move(path);
    return job;
}

BackupJob job_between(BackupJob from, const BackupJob &to) {
    from.dst_type = to.dst_type;
    from.dst_share_proto = to.dst_share_proto;
    from.dst_share_vol = to.dst_share_vol;
    from.dst_path = to.dst_path;
    return from;
}

std::uint64_t file_system_id(const std::string &path) {
    struct statfs statistics {};
    if (statfs(path.c_str(), &statistics) != 0) throw std::runtime_error("cannot examine " + path);
    std::uint64_t id = 0;
    static_assert(sizeof id == sizeof statistics.f_fsid);
    std::memcpy(&id, &statistics.f_fsid, sizeof id);
    return id;
}

std::int32_t file_system_id_half(const std::string &path, std::size_t half) {
    const std::uint64_t id = file_system_id(path);
    std::array<std::int32_t, 2> halves{};
    std::memcpy(halves.data(), &id, sizeof id);
    return halves.at(half);
}

std::string storage_line(const std::string &mount_name, const std::string &device, const std::string &port) {
    return "-!!" + mount_name + "!!-!!-!!-!!" + device + "!!-!!-!!" + port + "!!-\n";
}

void write_storage_table(const std::string &content) { write_file("/etc/tessera/usb/storage.conf", content); }

SnapshotTool::SnapshotTool(Behaviour behaviour) : real_(fs::read_symlink(kTool)) {
    const std::string script = folder_ / "stand-in";
    write_file(script,
               "#!/bin/sh\n"
               "{ printf '%d\\0' $#; printf '%s\\0' \"$@\"; } >>" +
                   folder_ / "calls" + "\n" +
                   (behaviour == Behaviour::works ? "exec " + real_ + " \"$@\"\n" : "exit 1\n"),
               0755);
    fs::remove(kTool);
    fs::create_symlink(script, kTool);
}

SnapshotTool::~SnapshotTool() {
    std::error_code ignored;
    fs::remove(kTool, ignored);
    fs::create_symlink(real_, kTool, ignored);
}

std::vector<std::vector<std::string>> SnapshotTool::calls() {
    const std::string record = read_file(folder_ / "calls");
    remove_tree(folder_ / "calls");
    std::vector<std::vector<std::string>> calls;
    std::size_t at = 0;
    const auto next = [&record, &at] {
        const std::size_t end = record.find('\0', at);
        std::string word = record.substr(at, end - at);
        at = end == std::string::npos ? record.size() : end + 1;
        return word;
    };
    while (at < record.size()) {
        calls.emplace_back();
        for (int words = std::stoi(next()); words > 0; --words)
            calls.back().push_back(next());
    }
    return calls;
}

void LocalEnds::SetUp() {
    REQUIRE_APPLIANCE();
    work_folder_.emplace();
    fs::current_path(work_folder_->path());
    write_file("/etc/passwd", "root:x:0:0::/root:/bin/sh\n"
                              "alice:x:1000:1000::/home/alice:/bin/sh\n"
                              "untidy:x:1001:1001:://home/./alice//:/bin/sh\n"
                              "relative:x:1002:1002::relative/home:/bin/sh\n"
                              "gone:x:1004:1004::/home/gone:/bin/sh\n"
                              "homeless:x:1003:1003:::/bin/sh\n");
    write_storage_table(storage_line("DISK", "sdb1", "1") + storage_line("USB", "sdc1", "2"));
}

void LocalEnds::TearDown() {
    if (!work_folder_) return;
    EXPECT_EQ(list_folder(work_folder_->path()), std::vector<std::string>()) << "something else was started";
    fs::current_path("/");
    for (const char *place : {"/home", "/volume", "/media/DISK", "/etc/tessera"})
        remove_tree(place);
}

void LocalEndsOnVolumes::SetUp() {
    LocalEnds::SetUp();
    if (IsSkipped()) return;
    static const std::string obstacle = mount_volumes();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
}

void LocalEndsOnVolumes::TearDown() {
    if (!IsSkipped()) {
        fs::current_path("/");
        empty_volume("/data");
        empty_volume("/media/USB");
    }
    LocalEnds::TearDown();
}

void LocalEndsOnVolumes::make_share(const std::string &name) {
    must("btrfs subvolume create '/data/" + name + "' >/dev/null && mkdir -p /data/._share");
}

ReadOnlyDisk::ReadOnlyDisk() {
    if (mount(nullptr, "/media/USB", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        throw std::runtime_error("cannot make the disk read-only");
}

ReadOnlyDisk::~ReadOnlyDisk() { mount(nullptr, "/media/USB", nullptr, MS_REMOUNT | MS_BIND, nullptr); }

Umask::Umask(mode_t mask) : before_(umask(mask)) {}

Umask::~Umask() { umask(before_); }

mode_t mode_of(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

} // namespace tsbackup::test
