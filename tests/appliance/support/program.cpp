#include "appliance_support.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {

namespace {

constexpr int kCannotStart = 127;

/// Whether an assignment of the environment is one of the name.
bool assigns(const std::string &assignment, const std::string &name) { return assignment.starts_with(name + "="); }

void put(std::vector<std::string> &environment, const std::string &name, const std::string &value) {
    std::erase_if(environment, [&](const std::string &assignment) { return assigns(assignment, name); });
    environment.push_back(name + "=" + value);
}

std::vector<std::string> environment_of(const ProgramOptions &options) {
    std::vector<std::string> environment;
    for (char **assignment = environ; *assignment != nullptr; ++assignment)
        environment.emplace_back(*assignment);
    if (!options.preload.empty()) {
        std::string libraries;
        for (const std::string &library : options.preload)
            libraries += (libraries.empty() ? "" : ":") + library;
        put(environment, "LD_PRELOAD", libraries);
        // A preloaded library comes before the sanitizer's own, which is harmless here.
        const char *sanitizer = std::getenv("ASAN_OPTIONS");
        put(environment, "ASAN_OPTIONS",
            (sanitizer != nullptr ? std::string(sanitizer) + ":" : std::string()) + "verify_asan_link_order=0");
    }
    for (const auto &[name, value] : options.environment)
        put(environment, name, value);
    return environment;
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
    std::vector<char *> result;
    result.reserve(texts.size() + 1);
    for (std::string &text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

std::string content_of(std::FILE *file) {
    std::string content(static_cast<std::size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
    const ssize_t got = pread(fileno(file), content.data(), content.size(), 0);
    content.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return content;
}

} // namespace

Program::Program(const std::vector<std::string> &arguments, const ProgramOptions &options)
    : out_(std::tmpfile()), err_(std::tmpfile()) {
    if (out_ == nullptr || err_ == nullptr) throw std::runtime_error("cannot make a temporary file");
    std::vector<std::string> words{options.program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = environment_of(options);
    const std::vector<char *> argv = pointers(words);
    const std::vector<char *> envp = pointers(environment);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("cannot fork");
    // On both sides: the group is there when either goes on.
    setpgid(pid_, pid_);
    if (pid_ > 0) return;
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(fileno(out_), STDOUT_FILENO);
    dup2(fileno(err_), STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    execvpe(argv.front(), argv.data(), envp.data());
    _exit(kCannotStart);
}

Program::~Program() {
    if (!ended_) {
        killpg(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::fclose(out_);
    std::fclose(err_);
}

bool Program::running() {
    if (ended_) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
    ended_ = true;
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return false;
}

void Program::signal(int number) const {
    if (!ended_) kill(pid_, number);
}

Outcome Program::wait(std::chrono::seconds limit) {
    if (!wait_until([this] { return !running(); }, limit)) {
        ADD_FAILURE() << "the program has not ended within " << limit.count() << " s";
        killpg(pid_, SIGKILL);
        wait_until([this] { return !running(); });
    }
    return {status_, content_of(out_), content_of(err_)};
}

Outcome run_program(const std::vector<std::string> &arguments, const ProgramOptions &options) {
    return Program(arguments, options).wait();
}

bool wait_until(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace tsbackup::test
