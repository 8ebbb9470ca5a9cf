#include "remote_run.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

SystemCalls *current = nullptr;

int log_in_memory(const char *name) {
    const int descriptor = memfd_create(name, MFD_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error("cannot keep a log in memory");
    return descriptor;
}

std::string content_of(int descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(descriptor, text.data(), text.size(), 0) != status.st_size) return "(the log cannot be read)";
    return text;
}

bool is_mount_point(const char *path) { return std::strncmp(path, "/job_", 5) == 0; }

/// Notes a call; the answer that takes its place.
std::optional<int> note(const std::string &call) {
    if (current == nullptr) return std::nullopt;
    current->made.push_back(call);
    return current->answer ? current->answer(call) : std::nullopt;
}

int give(int error) {
    errno = error;
    return error == 0 ? 0 : -1;
}

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

LoggedRun::LoggedRun() {
    job_id = 7;
    start_time = 1700000000;
    copy_log = log_in_memory("copy log");
    error_log = log_in_memory("error log");
    struct statfs statistics {};
    if (statfs("/", &statistics) != 0) throw std::runtime_error("cannot examine the root");
    std::memcpy(root_fsid.data(), &statistics.f_fsid, sizeof root_fsid);
}

LoggedRun::~LoggedRun() {
    close(copy_log);
    close(error_log);
}

std::string LoggedRun::errors() const { return content_of(error_log); }
std::string LoggedRun::copies() const { return content_of(copy_log); }

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

SystemCalls::SystemCalls() { current = this; }
SystemCalls::~SystemCalls() { current = nullptr; }

SilentSource::SilentSource()
    : users_before_(read_file("/etc/passwd")), folder_before_(std::filesystem::current_path()) {
    write_file("/etc/passwd", users_before_ + user + ":x:1234:1234::.:/bin/sh\n");
    std::filesystem::current_path("/");
}

SilentSource::~SilentSource() {
    write_file("/etc/passwd", users_before_);
    std::filesystem::current_path(folder_before_);
}

} // namespace tsbackup::test

// Definitions of the program itself come before the libraries'.
using tsbackup::test::give;
using tsbackup::test::is_mount_point;
using tsbackup::test::next;
using tsbackup::test::note;

extern "C" {

int umount(const char *path) noexcept {
    if (is_mount_point(path))
        if (const auto answer = note(std::string("umount ") + path)) return give(*answer);
    return next<int(const char *)>("umount")(path);
}

int umount2(const char *path, int flags) noexcept {
    if (is_mount_point(path))
        if (const auto answer = note(std::string("umount2 ") + path + " " + std::to_string(flags)))
            return give(*answer);
    return next<int(const char *, int)>("umount2")(path, flags);
}

int mkdir(const char *path, mode_t mode) noexcept {
    if (is_mount_point(path) && std::strchr(path + 1, '/') == nullptr) {
        std::string digits;
        for (const int shift : {6, 3, 0})
            digits += static_cast<char>('0' + ((mode >> shift) & 7U));
        if (const auto answer = note(std::string("mkdir ") + path + " " + digits)) return give(*answer);
    }
    return next<int(const char *, mode_t)>("mkdir")(path, mode);
}

int rmdir(const char *path) noexcept {
    if (is_mount_point(path))
        if (const auto answer = note(std::string("rmdir ") + path)) return give(*answer);
    return next<int(const char *)>("rmdir")(path);
}

int lchown(const char *path, uid_t owner, gid_t group) noexcept {
    if (is_mount_point(path)) {
        if (const auto answer =
                note(std::string("chown ") + path + " " + std::to_string(owner) + " " + std::to_string(group)))
            return give(*answer);
    }
    return next<int(const char *, uid_t, gid_t)>("lchown")(path, owner, group);
}

void sync() noexcept {
    if (!note("sync")) next<void()>("sync")();
}

int sync_fs(const char *path) {
    if (const auto answer = note(std::string("sync_fs ") + path)) return give(*answer);
    return next<int(const char *)>("sync_fs")(path);
}

std::FILE *popen(const char *command, const char *mode) {
    note(std::string("shell ") + command);
    return next<std::FILE *(const char *, const char *)>("popen")(command, mode);
}
}
