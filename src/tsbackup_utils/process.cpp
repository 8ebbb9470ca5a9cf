#include "tsbackup_utils.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr int kNotExecuted = 100;
constexpr int kShellNotExecuted = 127;
constexpr int kLastClosedDescriptor = 254;

/// A disposition of SIGPIPE that holds as long as the object.
class SigpipeDisposition {
  public:
    explicit SigpipeDisposition(sighandler_t handler) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(SIGPIPE, &action, &before_);
    }
    ~SigpipeDisposition() {
        const int saved = errno;
        sigaction(SIGPIPE, &before_, nullptr);
        errno = saved;
    }
    SigpipeDisposition(const SigpipeDisposition &) = delete;
    SigpipeDisposition &operator=(const SigpipeDisposition &) = delete;

  private:
    struct sigaction before_ {};
};

struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

/// Moves a descriptor away from 0, 1 and 2, which a process without standard streams hands out for pipes: the child
/// places its channels there one after the other and must not overwrite one that it still needs.
void move_above_standard(UniqueFd &descriptor) {
    if (descriptor.get() <= STDERR_FILENO) descriptor.reset(fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 3));
}

bool open_pipe(Pipe &pipe) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    pipe.read.reset(ends[0]);
    pipe.write.reset(ends[1]);
    move_above_standard(pipe.read);
    if (pipe.read) move_above_standard(pipe.write);
    return pipe.read && pipe.write;
}

struct Channels {
    Pipe input;
    Pipe output;
    Pipe error;
};

/// What the child needs, prepared before the fork.
struct Program {
    const char *file;
    char *const *argv;
    char *const *envp;
    bool keeps_priority;
};

/// The child's side: async-signal-safe calls alone, no allocation, no return.
[[noreturn]] void run_child(const Channels &channels, const Program &program) {
    if (channels.input.read) dup2(channels.input.read.get(), STDIN_FILENO);
    if (channels.output.write) dup2(channels.output.write.get(), STDOUT_FILENO);
    if (channels.error.write) {
        dup2(channels.error.write.get(), STDERR_FILENO);
    } else if (channels.output.write) {
        dup2(channels.output.write.get(), STDERR_FILENO);
    }

    if (close_range(STDERR_FILENO + 1, kLastClosedDescriptor, 0) != 0) {
        for (int descriptor = STDERR_FILENO + 1; descriptor <= kLastClosedDescriptor; ++descriptor)
            close(descriptor);
    }
    // The program ignores SIGPIPE, and an ignored signal stays ignored across an exec: a tool of a pipeline would
    // then go on writing after its reader has left.
    std::signal(SIGPIPE, SIG_DFL);
    if (!program.keeps_priority) setpriority(PRIO_PROCESS, 0, 0);
    execvpe(program.file, program.argv, program.envp);
    _exit(kNotExecuted);
}

/// Writes the whole text. A child that ends or closes its input early just misses the rest.
void write_input(UniqueFd descriptor, const char *text) {
    const UniqueFile stream(fdopen(descriptor.get(), "w"));
    if (!stream) {
        TSBACKUP_LOG(level::error, "Failed to open spool input pipe. [%s]\n", error_text(errno).c_str());
        return;
    }
    descriptor.release();

    // Unbuffered, so that what an interrupted call has written is known.
    std::setvbuf(stream.get(), nullptr, _IONBF, 0);
    std::size_t left = std::strlen(text);
    while (left > 0) {
        const std::size_t written = std::fwrite(text, 1, left, stream.get());
        text += written;
        left -= written;
        if (left > 0 && errno != EINTR) return;
        std::clearerr(stream.get());
    }
}

/// Collects what `descriptor` delivers, up to its end or until `buffer` is full; each piece counts as a text.
void collect_text(const UniqueFd &descriptor, char *buffer, std::size_t size) {
    std::array<char, 1024> piece{};
    std::size_t length = 0;
    if (size > 0) buffer[0] = '\0';
    do {
        const ssize_t got = TEMP_FAILURE_RETRY(read(descriptor.get(), piece.data(), piece.size() - 1));
        if (got <= 0 || size == 0) return;
        const std::size_t taken = std::min(strnlen(piece.data(), static_cast<std::size_t>(got)), size - 1 - length);
        std::memcpy(buffer + length, piece.data(), taken);
        length += taken;
        buffer[length] = '\0';
    } while (length + 1 < size);
}

/// The result of a child that is left to end by itself.
std::int32_t wait_for(pid_t child) {
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended <= 0) return ended;
    return WIFSIGNALED(status) ? -2 : WEXITSTATUS(status);
}

void log_command(const char *command) { TSBACKUP_LOG(level::debug, "cmd=%s\n", command); }

/// The child's side of a shell that ignores hang-ups, as all that it starts does.
[[noreturn]] void run_shell_past_hang_up(const char *command) {
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGPIPE, SIG_DFL);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing > STDIN_FILENO) dup2(nothing, STDIN_FILENO);
    execl("/bin/sh", "sh", "-c", command, nullptr);
    _exit(kShellNotExecuted);
}

} // namespace

std::int32_t _backup_execvp(const char *file, const char *stdin_text, char *stderr_buf, std::size_t stderr_buf_size,
                            char *const argv[], char *const envp[], BackupRun *run, StdoutReader stdout_reader) {
    Channels channels;
    if ((stdin_text != nullptr && !open_pipe(channels.input)) ||
        (stdout_reader != nullptr && !open_pipe(channels.output)) ||
        (stderr_buf != nullptr && !open_pipe(channels.error))) {
        TSBACKUP_LOG(level::error, "%s: pipe error [%s]\n", __func__, error_text(errno).c_str());
        return -1;
    }
    const UniqueText name(strdup(file));
    if (!name) return -1;
    const Program program{name.get(), argv, envp, std::strcmp(name.get(), "nice") == 0};

    const pid_t child = fork();
    if (child == 0) run_child(channels, program);
    if (child < 0) {
        TSBACKUP_LOG(level::error, "%s: fork error [%s]", __func__, error_text(errno).c_str());
        return -1;
    }
    channels.input.read.reset();
    channels.output.write.reset();
    channels.error.write.reset();

    if (stdin_text != nullptr) {
        const SigpipeDisposition ignored(SIG_IGN);
        write_input(std::move(channels.input.write), stdin_text);
    }

    std::int32_t reader_result = 0;
    if (stdout_reader != nullptr) {
        reader_result = stdout_reader(run, channels.output.read.get());
        if (reader_result == kExecCancelled) {
            channels.error.read.reset();
            channels.output.read.reset();
            kill(child, SIGHUP);
            return kExecCancelled;
        }
        channels.output.read.reset();
    }

    if (stderr_buf != nullptr) {
        collect_text(channels.error.read, stderr_buf, stderr_buf_size);
        channels.error.read.reset();
    }

    const std::int32_t result = wait_for(child);
    return reader_result < 0 ? reader_result : result;
}

std::int32_t backup_system(const char *command) {
    log_command(command);
    std::FILE *shell = nullptr;
    {
        // The shell hands its disposition on to the commands of a pipeline, which end by this signal.
        const SigpipeDisposition by_default(SIG_DFL);
        shell = popen(command, "we");
    }
    return shell != nullptr ? pclose(shell) : -1;
}

std::int32_t backup_system_past_hang_up(const char *command) {
    log_command(command);
    const pid_t shell = fork();
    if (shell == 0) run_shell_past_hang_up(command);
    int status = -1;
    if (shell > 0 && TEMP_FAILURE_RETRY(waitpid(shell, &status, 0)) != shell) status = -1;
    return status;
}

std::int32_t backup_systemf(const char *format, ...) {
    std::array<char, 2048> command{};
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(command.data(), command.size(), format, arguments);
    va_end(arguments);
    return length >= 0 ? backup_system(command.data()) : -1;
}

void set_core_limit(int megabytes) {
    constexpr rlim_t kMebibyte = rlim_t{1024} * 1024;
    const rlim_t bytes = static_cast<rlim_t>(std::max(megabytes, 0)) * kMebibyte;
    const rlimit limit{bytes, bytes};
    setrlimit(RLIMIT_CORE, &limit);
}

} // namespace tsbackup
