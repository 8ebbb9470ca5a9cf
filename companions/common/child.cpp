#include "child.h"

#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tsbackup {

namespace {

constexpr int kNotReleased = 126;
constexpr int kCannotExecute = 127;
constexpr int kSignalBase = 128;
constexpr int kGo = STDERR_FILENO + 1; ///< where the child waits for its release

std::vector<char *> pointers(const std::vector<std::string> &texts) {
    std::vector<char *> result;
    result.reserve(texts.size() + 1);
    for (const std::string &text : texts)
        result.push_back(const_cast<char *>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

/// The child's side of the fork: async-signal-safe calls alone.
[[noreturn]] void run_child(int standard_input, int go, char *const argv[], char *const envp[]) {
    setpgid(0, 0);
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &usual, nullptr);

    // A descriptor that already has the wanted number keeps its close-on-exec mark, which is cleared or right.
    if (dup2(standard_input, STDIN_FILENO) < 0 || dup2(go, kGo) < 0) _exit(kCannotExecute);
    close_range(kGo + 1, ~0U, 0);
    char byte = 0;
    if (read(kGo, &byte, 1) != 1) _exit(kNotReleased);
    close(kGo);

    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv, envp);
    _exit(kCannotExecute);
}

/// What stands behind the name in a process's statistics, the state first; empty without such a process.
std::vector<std::string> process_fields(pid_t pid) {
    constexpr std::size_t kLongestLine = 4096;
    const auto line = read_first_line(("/proc/" + std::to_string(pid) + "/stat").c_str(), kLongestLine);
    const std::size_t name_end = line ? line->rfind(") ") : std::string::npos;
    if (name_end == std::string::npos) return {};
    return str_split_all(line->substr(name_end + 2), " ");
}

/// The C library's own wrapper cannot be called from C++ in Debian 12.
int descriptor_of(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

std::string boot_id() {
    constexpr std::size_t kLongestLine = 64;
    return read_first_line("/proc/sys/kernel/random/boot_id", kLongestLine).value_or("");
}

} // namespace

ProcessIdentity process_identity(pid_t pid) {
    constexpr std::size_t kStartField = 19; // of those behind the name
    const std::vector<std::string> fields = process_fields(pid);
    ProcessIdentity identity{boot_id(), pid, ""};
    if (fields.size() > kStartField && fields[0] != "Z" && fields[0] != "X") identity.start = fields[kStartField];
    return identity;
}

std::optional<Child> child_start(const ChildSetup &setup) {
    const std::vector<char *> argv = pointers(setup.arguments);
    const std::vector<char *> envp = pointers(setup.environment);
    const UniqueFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::array<int, 2> go{};
    if (!nothing || pipe2(go.data(), O_CLOEXEC) != 0) return std::nullopt;
    const UniqueFd wait_for_go(go[0]);
    UniqueFd give_go(go[1]);

    const int standard_input = setup.standard_input >= 0 ? setup.standard_input : nothing.get();
    const pid_t pid = fork();
    if (pid < 0) return std::nullopt;
    if (pid == 0) run_child(standard_input, wait_for_go.get(), argv.data(), envp.data());
    setpgid(pid, pid);

    Child child;
    child.identity = process_identity(pid);
    child.ended.reset(descriptor_of(pid));
    child.go = std::move(give_go);
    child.is_ours = true;
    if (!child.ended || child.identity.start.empty()) {
        const int error = errno;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        errno = error;
        return std::nullopt;
    }
    return child;
}

void child_release(Child &child) {
    const char byte = 1;
    static_cast<void>(write(child.go.get(), &byte, 1));
    child.go.reset();
}

std::optional<Child> child_adopt(const ProcessIdentity &identity) {
    if (identity.pid <= 0 || identity.start.empty()) return std::nullopt;
    Child child;
    child.identity = identity;
    child.ended.reset(descriptor_of(identity.pid));
    // Looked at after the descriptor is open: from then on it stays this process, whatever becomes of its number.
    if (!child.ended || process_identity(identity.pid) != identity) return std::nullopt;
    return child;
}

int child_collect(const Child &child) {
    if (!child.is_ours) return -1;
    int status = 0;
    if (waitpid(child.identity.pid, &status, 0) != child.identity.pid) return -1;
    return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string child_end_text(int status) {
    if (status < 0) return "has ended";
    if (status > kSignalBase) return "was ended by signal " + std::to_string(status - kSignalBase);
    if (status == kCannotExecute) return "could not be run";
    return "ended with status " + std::to_string(status);
}

} // namespace tsbackup
