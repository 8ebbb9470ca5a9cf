// The live view, in a terminal of the test's own.

#include "appliance_support.h"
#include "status_files.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;

constexpr char kEnter[] = "\033[?1049h";
constexpr char kLeave[] = "\033[?1049l";

/// The program in a terminal; killed at the end of the object's life.
class Terminal {
  public:
    Terminal(unsigned short rows, unsigned short columns) {
        const winsize size{rows, columns, 0, 0};
        int master = -1;
        int slave = -1;
        if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) return;
        master_.reset(master);
        slave_.reset(slave);
        tcgetattr(slave, &before_);
        pid_ = fork();
        if (pid_ != 0) return;
        login_tty(slave);
        setenv("TERM", "xterm", 1);
        execl(PROGRAM, "tsbackup-status", "--watch", nullptr);
        _exit(127);
    }
    ~Terminal() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    pid_t pid() const { return pid_; }
    void type(char key) const { ASSERT_EQ(write(master_.get(), &key, 1), 1); }
    void resize(unsigned short rows, unsigned short columns) const {
        const winsize size{rows, columns, 0, 0};
        ioctl(master_.get(), TIOCSWINSZ, &size);
    }

    /// What the program has written since the last call, up to and with `text`; everything when it does not come.
    std::string read_until(const std::string &text) {
        std::string seen;
        const bool found = wait_until([&] {
            seen += read_some();
            return seen.find(text) != std::string::npos;
        });
        EXPECT_TRUE(found) << "waited for " << testing::PrintToString(text) << ", saw " << testing::PrintToString(seen);
        return seen;
    }

    /// The wait status of the program, which ends by itself.
    int wait() {
        int status = -1;
        wait_until([&] {
            read_some();
            return waitpid(pid_, &status, WNOHANG) == pid_;
        });
        pid_ = -1;
        return status;
    }

    bool is_as_before() const {
        termios now{};
        tcgetattr(slave_.get(), &now);
        return now.c_lflag == before_.c_lflag && now.c_cc[VMIN] == before_.c_cc[VMIN];
    }

    bool is_stopped() const {
        int status = 0;
        return waitpid(pid_, &status, WNOHANG | WUNTRACED) == pid_ && WIFSTOPPED(status);
    }

  private:
    std::string read_some() const {
        pollfd event{master_.get(), POLLIN, 0};
        if (poll(&event, 1, 20) <= 0) return "";
        char block[4096];
        const ssize_t got = read(master_.get(), block, sizeof block);
        return got > 0 ? std::string(block, static_cast<std::size_t>(got)) : "";
    }

    UniqueFd master_;
    UniqueFd slave_; ///< keeps the terminal's settings readable behind the program's end
    termios before_{};
    pid_t pid_ = -1;
};

class Watch : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        setenv("LC_ALL", "C.UTF-8", 1);
        setenv("TZ", "UTC", 1);
        unsetenv("NO_COLOR");
        write_files(sample_files());
    }
};

TEST_F(Watch, ShowsTheTableUntilQAndRestoresTheTerminal) {
    Terminal terminal(40, 200);
    const std::string first = terminal.read_until("\033[J");
    EXPECT_THAT(first, HasSubstr(kEnter));
    EXPECT_THAT(first, HasSubstr("JOB"));
    EXPECT_THAT(first, HasSubstr("\033[31mfailed\033[0m"));
    EXPECT_FALSE(terminal.is_as_before());
    terminal.type('x');
    terminal.read_until("\033[J");
    terminal.type('q');
    terminal.read_until(kLeave);
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_TRUE(terminal.is_as_before());
}

TEST_F(Watch, FollowsTheFiles) {
    Terminal terminal(40, 200);
    terminal.read_until("in progress");
    write_file(paths::status_file(1), "BACKUP_STATUS__CANCELLING!!1700000000!!notice\n");
    terminal.read_until("cancelling");
    write_file(paths::job_file, "<half");
    terminal.read_until("Not well-formed");
    terminal.type('q');
    EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(Watch, FollowsTheSizeOfTheTerminal) {
    Terminal terminal(40, 200);
    terminal.read_until("\033[J");
    terminal.resize(6, 20);
    const std::string small = terminal.read_until("more lines");
    EXPECT_THAT(small, HasSubstr("..."));
    terminal.resize(1, 1);
    terminal.read_until("\033[J");
    terminal.resize(40, 200);
    terminal.read_until("Canon");
    terminal.type('q');
    EXPECT_EQ(terminal.wait(), 0);
    EXPECT_TRUE(terminal.is_as_before());
}

TEST_F(Watch, RestoresTheTerminalWhenItIsEndedBySignal) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        SCOPED_TRACE(number);
        Terminal terminal(40, 200);
        terminal.read_until("\033[J");
        kill(terminal.pid(), number);
        terminal.read_until(kLeave);
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_TRUE(terminal.is_as_before());
    }
}

TEST_F(Watch, RestoresTheTerminalWhileItIsStopped) {
    Terminal terminal(40, 200);
    terminal.read_until("\033[J");
    kill(terminal.pid(), SIGTSTP);
    terminal.read_until(kLeave);
    EXPECT_TRUE(wait_until([&] { return terminal.is_stopped(); }));
    EXPECT_TRUE(terminal.is_as_before());
    kill(terminal.pid(), SIGCONT);
    EXPECT_THAT(terminal.read_until("\033[J"), HasSubstr(kEnter));
    EXPECT_FALSE(terminal.is_as_before());
    terminal.type('q');
    EXPECT_EQ(terminal.wait(), 0);
}

} // namespace
} // namespace tsbackup::test
