#include "support.h"
#include "zelkova.h"

#include <csignal>
#include <cstdlib>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

int run_shell(const std::string &script) {
    const char *const argv[] = {"sh", "-c", script.c_str(), nullptr};
    return exec_cmd("/bin/sh", argv);
}

TEST(ExecCmd, ReturnsTheExitStatus) {
    const struct {
        const char *script;
        int expected;
    } cases[] = {
        {"exit 0", 0},     {"exit 1", 1},     {"exit 126", 126},     {"exit 127", 127},
        {"exit 128", 128}, {"exit 255", 255}, {"kill -TERM $$", -1}, {"kill -KILL $$", -1},
    };
    for (const auto &test : cases)
        EXPECT_EQ(run_shell(test.script), test.expected) << test.script;
}

TEST(ExecCmd, RefusesWhatCannotBeStarted) {
    const TempFolder folder;
    write_file(folder / "not-executable", "#!/bin/sh\nexit 0\n", 0644);
    write_file(folder / "no-interpreter", "#!/no/such/interpreter\n", 0755);
    const std::string paths[] = {folder / "missing", folder / "not-executable",  folder / "no-interpreter",
                                 folder.path(),      "no-such-program-anywhere", ""};
    for (const std::string &path : paths) {
        const char *const argv[] = {"program", nullptr};
        EXPECT_EQ(exec_cmd(path.c_str(), argv), -1) << path;
    }
    const char *const none[] = {nullptr};
    const char *const some[] = {"true", nullptr};
    EXPECT_EQ(exec_cmd("/bin/true", none), -1);
    EXPECT_EQ(exec_cmd("/bin/true", nullptr), -1);
    EXPECT_EQ(exec_cmd(nullptr, some), -1);
}

TEST(ExecCmd, PassesEveryArgumentAsItIs) {
    const TempFolder folder;
    const std::string output = folder / "output";
    const std::string script = "printf '[%s]' \"$0\" \"$@\" >" + output;
    const char *const argv[] = {"sh", "-c", script.c_str(), "name", "", "a b", "$HOME;*", "line\nend", nullptr};
    EXPECT_EQ(exec_cmd("/bin/sh", argv), 0);
    EXPECT_EQ(read_file(output), "[name][][a b][$HOME;*][line\nend]");
}

TEST(ExecCmd, GivesTheProgramTheNameInTheVector) {
    const TempFolder folder;
    const std::string output = folder / "output";
    const std::string script = "printf %s \"$0\" >" + output;
    const char *const argv[] = {"another-name", "-c", script.c_str(), nullptr};
    EXPECT_EQ(exec_cmd("/bin/sh", argv), 0);
    EXPECT_EQ(read_file(output), "another-name");
}

/// Puts a folder first on the search path for as long as the object lives.
class FirstOnSearchPath {
  public:
    explicit FirstOnSearchPath(const std::string &folder) {
        if (const char *before = std::getenv("PATH")) before_ = before;
        setenv("PATH", (folder + ":" + before_).c_str(), 1);
    }
    ~FirstOnSearchPath() { setenv("PATH", before_.c_str(), 1); }
    FirstOnSearchPath(const FirstOnSearchPath &) = delete;
    FirstOnSearchPath &operator=(const FirstOnSearchPath &) = delete;

  private:
    std::string before_;
};

TEST(ExecCmd, LooksUpANameWithoutAFolderOnTheSearchPath) {
    const TempFolder folder;
    write_file(folder / "tool", "#!/bin/sh\nexit 42\n", 0755);
    const char *const argv[] = {"tool", nullptr};
    EXPECT_EQ(exec_cmd("tool", argv), -1);
    const FirstOnSearchPath path(folder.path());
    EXPECT_EQ(exec_cmd("tool", argv), 42);
    EXPECT_EQ(exec_cmd("./tool", argv), -1) << "a name with a folder is not looked up";
}

TEST(ExecCmd, StartsTheProgramWithNoSignalBlockedOrIgnored) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto pipe_before = std::signal(SIGPIPE, SIG_IGN);
    const auto hangup_before = std::signal(SIGHUP, SIG_IGN);

    // A shell cannot undo what it was started with, so the signal ends it only when nothing was passed on.
    for (const char *signal : {"TERM", "PIPE", "HUP"})
        EXPECT_EQ(run_shell(std::string("kill -") + signal + " $$; exit 3"), -1) << signal;

    std::signal(SIGHUP, hangup_before);
    std::signal(SIGPIPE, pipe_before);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(ExecCmd, LeavesTheProgramInTheProcessGroup) {
    EXPECT_EQ(run_shell("test \"$(ps -o pgid= -p $$ | tr -d ' ')\" = " + std::to_string(getpgrp())), 0);
}

TEST(ExecCmd, WaitsOnWhenASignalInterruptsIt) {
    static volatile std::sig_atomic_t ticks = 0;
    ticks = 0;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ticks = ticks + 1; };
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 20'000}, {0, 20'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(run_shell("sleep 0.4; exit 5"), 5);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(ticks, 3);
}

} // namespace
} // namespace tsbackup::test
