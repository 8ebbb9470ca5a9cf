#include "front_support.h"

#include "tsbackup/paths.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

bool waits_are_noted = false;
std::vector<unsigned> noted_waits;
std::function<void()> next_action;

} // namespace

// Takes the place of the C library's function in this program.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (!waits_are_noted) {
        const timespec wait{static_cast<time_t>(seconds), 0};
        nanosleep(&wait, nullptr);
        return 0;
    }
    noted_waits.push_back(seconds);
    if (next_action) std::exchange(next_action, nullptr)();
    const timespec wait{0, 20'000'000};
    nanosleep(&wait, nullptr);
    return 0;
}

namespace tsbackup::test {

void write_job_file(const std::string &jobs) {
    write_file(paths::job_file,
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<backup_jobs>\n" + jobs + "</backup_jobs>\n");
}

std::string job_element(int job_id, const std::string &settings) {
    return "  <job>\n    <job_id>" + std::to_string(job_id) + "</job_id>\n    " + settings + "\n  </job>\n";
}

void make_system_folders() {
    make_folder("/var/run/zelkovad");
    make_folder(paths::log_folder);
    make_folder(paths::work_folder);
    make_folder("/etc/tessera");
}

Waits::Waits() {
    noted_waits.clear();
    waits_are_noted = true;
}

Waits::~Waits() {
    waits_are_noted = false;
    next_action = nullptr;
}

const std::vector<unsigned> &Waits::seconds() const { return noted_waits; }

void Waits::on_next(std::function<void()> action) { next_action = std::move(action); }

QueuePipe::QueuePipe() {
    make_system_folders();
    unlink(paths::job_queue_pipe);
    if (mkfifo(paths::job_queue_pipe, 0600) != 0) throw std::runtime_error("cannot make the queue pipe");
    reader_.reset(open(paths::job_queue_pipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

QueuePipe::~QueuePipe() { unlink(paths::job_queue_pipe); }

std::string QueuePipe::received() const {
    std::string bytes;
    char block[4096];
    ssize_t got = 0;
    while ((got = read(reader_.get(), block, sizeof block)) > 0)
        bytes.append(block, static_cast<std::size_t>(got));
    return bytes;
}

GroupLeader::GroupLeader(const std::function<int()> &body) : pid_(fork()) {
    if (pid_ == 0) {
        setpgid(0, 0);
        _exit(body());
    }
    setpgid(pid_, pid_);
}

GroupLeader::~GroupLeader() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

int GroupLeader::wait() {
    int status = -1;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

pid_t dead_process() {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    return child;
}

Mount::Mount(const std::string &target, const std::string &source) : target_(target) {
    if (!file_exists(target)) make_folder(target);
    mounted_ = source.empty() ? mount("tmpfs", target.c_str(), "tmpfs", 0, "size=1m") == 0
                              : mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

Mount::~Mount() {
    if (mounted_) umount2(target_.c_str(), MNT_DETACH);
}

} // namespace tsbackup::test
