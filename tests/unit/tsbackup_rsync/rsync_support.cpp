#include "rsync_support.h"

#include "tsbackup_error.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

std::vector<std::string> texts_of(const std::string &path) {
    const std::string content = read_file(path);
    std::vector<std::string> texts;
    for (std::size_t start = 0; start < content.size(); start += texts.back().size() + 1)
        texts.emplace_back(content.c_str() + start);
    return texts;
}

} // namespace

LoggedRun::LoggedRun() {
    job_id = 7;
    start_time = 1700000000;
    root_fsid = {1, 1};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &started);
    started.tv_sec -= 10;
    last_write = started;
    error_log = memfd_create("error log", MFD_CLOEXEC);
    if (error_log < 0) throw std::runtime_error("cannot keep a log in memory");
}

LoggedRun::~LoggedRun() { close(error_log); }

std::string LoggedRun::errors() const {
    struct stat status {};
    fstat(error_log, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(error_log, text.data(), text.size(), 0) != status.st_size) return "(the error log cannot be read)";
    return text;
}

StandIn::StandIn() : path_before_(std::getenv("PATH")) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "rsync_stand_in";
    std::filesystem::create_symlink(program, folder_ / "nice");
    setenv("PATH", (folder_.path() + ":" + path_before_).c_str(), 1);
}

StandIn::~StandIn() { setenv("PATH", path_before_.c_str(), 1); }

StandIn &StandIn::plays(int call, const std::string &script) {
    write_file(folder_ / ("script." + std::to_string(call)), script);
    return *this;
}

std::vector<Call> StandIn::calls() const {
    std::vector<Call> calls;
    while (true) {
        const std::string number = std::to_string(calls.size() + 1);
        if (!file_exists(file("arguments." + number))) return calls;
        calls.push_back({texts_of(file("arguments." + number)), texts_of(file("environment." + number))});
        calls.back().arguments.erase(calls.back().arguments.begin());
    }
}

void when_aborted(const std::function<void()> &body) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        backup_abort_request();
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "a check failed in the aborted process, see above";
}

} // namespace tsbackup::test
