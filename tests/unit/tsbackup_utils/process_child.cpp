// What the tests of the process runner start: one small behaviour for each first argument.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

std::string argument(int argc, char **argv, int index) { return index < argc ? argv[index] : ""; }

int number(int argc, char **argv, int index) {
    return static_cast<int>(std::strtol(argument(argc, argv, index).c_str(), nullptr, 10));
}

void put(int descriptor, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
        if (written < 0) std::_Exit(120);
        done += static_cast<std::size_t>(written);
    }
}

std::string whole_input() {
    std::string input;
    std::array<char, 4096> piece{};
    ssize_t got = 0;
    while ((got = read(STDIN_FILENO, piece.data(), piece.size())) > 0)
        input.append(piece.data(), static_cast<std::size_t>(got));
    return input;
}

void pause_milliseconds(int milliseconds) {
    const timespec pause{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    nanosleep(&pause, nullptr);
}

/// Ends by a signal, without a core file.
int end_by(int signal) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    return 121;
}

int print_descriptors() {
    std::string list;
    for (int descriptor = 0; descriptor < 1024; ++descriptor)
        if (fcntl(descriptor, F_GETFD) != -1) list += std::to_string(descriptor) + " ";
    put(STDOUT_FILENO, list);
    return 0;
}

/// Waits until it is hung up (or a minute is over), and ends with 42 then.
int wait_for_hang_up() {
    std::signal(SIGHUP, [](int) { std::_Exit(42); });
    alarm(60);
    put(STDOUT_FILENO, "ready");
    while (true)
        pause();
}

} // namespace

int main(int argc, char **argv) {
    const std::string mode = argument(argc, argv, 1);
    if (mode == "exit") return number(argc, argv, 2);
    if (mode == "signal") return end_by(number(argc, argv, 2));
    if (mode == "wait for hang-up") return wait_for_hang_up();
    if (mode == "descriptors") return print_descriptors();
    if (mode == "arguments") {
        for (int i = 0; i < argc; ++i)
            put(STDOUT_FILENO, std::string(argv[i]) + "\n");
        return 0;
    }
    if (mode == "environment") {
        for (char **entry = environ; *entry != nullptr; ++entry)
            put(STDOUT_FILENO, std::string(*entry) + "\n");
        return 0;
    }
    if (mode == "echo input") { // all of it first
        put(STDOUT_FILENO, whole_input());
        return 0;
    }
    if (mode == "size of slow input") { // a writer that finds the pipe full is interrupted more than once
        std::array<char, 65536> piece{};
        std::size_t size = 0;
        do {
            pause_milliseconds(20);
            const ssize_t got = read(STDIN_FILENO, piece.data(), piece.size());
            if (got <= 0) break;
            size += static_cast<std::size_t>(got);
        } while (true);
        put(STDOUT_FILENO, std::to_string(size));
        return 0;
    }
    if (mode == "close input") {
        close(STDIN_FILENO);
        pause_milliseconds(number(argc, argv, 2));
        return 7;
    }
    if (mode == "both outputs") {
        put(STDOUT_FILENO, "out 1\n");
        put(STDERR_FILENO, "err 1\n");
        put(STDOUT_FILENO, "out 2\n");
        put(STDERR_FILENO, "err 2\n");
        return 0;
    }
    if (mode == "error text") { // as many letters as asked for, then the exit code asked for
        std::string text;
        while (text.size() < static_cast<std::size_t>(number(argc, argv, 2)))
            text += static_cast<char>('a' + text.size() % 26);
        put(STDERR_FILENO, text);
        return number(argc, argv, 3);
    }
    if (mode == "error text with zero bytes") { // in two pieces
        close(STDOUT_FILENO);
        put(STDERR_FILENO, std::string("ab\0cd", 5));
        pause_milliseconds(200);
        put(STDERR_FILENO, "ef");
        return 0;
    }
    if (mode == "close outputs") {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        pause_milliseconds(200);
        return 9;
    }
    if (mode == "priority") {
        put(STDOUT_FILENO, std::to_string(getpriority(PRIO_PROCESS, 0)));
        return 0;
    }
    if (mode == "sigpipe") { // 0: the default action, and not blocked
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        sigset_t blocked;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        return action.sa_handler == SIG_DFL && sigismember(&blocked, SIGPIPE) == 0 ? 0 : 1;
    }
    std::fprintf(stderr, "unknown mode '%s'\n", mode.c_str());
    return 122;
}
