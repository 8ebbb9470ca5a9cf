#include "screen.h"

#include "tell.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr int kRefresh = 1000; ///< milliseconds
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view kLeave = "\033[?7h\033[?25h\033[?1049l";

/// False when the terminal is gone.
bool write_whole(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

/// The terminal's second screen without a cursor, and keys that arrive at once and are not shown; as before at the end
/// of the object's life.
class Screen {
  public:
    Screen() { enter(); }
    ~Screen() { leave(); }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    void enter() {
        has_keys_ = tcgetattr(STDIN_FILENO, &before_) == 0;
        if (has_keys_) {
            termios keys = before_;
            keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            keys.c_cc[VMIN] = 0;
            keys.c_cc[VTIME] = 0;
            has_keys_ = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
        }
        write_whole(kEnter);
    }

    void leave() {
        write_whole(kLeave);
        if (has_keys_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }

    bool has_keys() const { return has_keys_; }

  private:
    bool has_keys_ = false;
    termios before_{};
};

struct Size {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

Size terminal_size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
    return {size.ws_col, size.ws_row};
}

std::string title() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&now, &parts) != nullptr)
        std::strftime(text.data(), text.size(), "Backup jobs, %Y-%m-%d %H:%M:%S    q: quit", &parts);
    return text.data();
}

bool draw(std::vector<TableLine> lines, bool coloured) {
    const Size size = terminal_size();
    lines.insert(lines.begin(), {{title()}, {""}});
    if (lines.size() > size.rows) {
        const std::size_t hidden = lines.size() - size.rows + 1;
        lines.resize(size.rows - 1);
        lines.push_back({"... " + std::to_string(hidden) + " more lines"});
    }
    std::string text = "\033[H";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) text += "\r\n";
        text += table_line_text(lines[i], size.columns, coloured) + "\033[K";
    }
    return write_whole(text + "\033[J");
}

sigset_t watched_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP})
        sigaddset(&signals, number);
    return signals;
}

/// False when the signal ends the view.
bool act_on(std::uint32_t number, Screen &screen) {
    if (number == SIGWINCH) return true;
    if (number != SIGTSTP) return false;
    screen.leave();
    raise(SIGSTOP);
    screen.enter();
    return true;
}

/// Waits for the next drawing. False when the view ends.
bool wait_for_more(int signals, Screen &screen) {
    std::array<pollfd, 2> events = {{{signals, POLLIN, 0}, {screen.has_keys() ? STDIN_FILENO : -1, POLLIN, 0}}};
    if (poll(events.data(), events.size(), kRefresh) < 0) return errno == EINTR;
    signalfd_siginfo signal{};
    if (events[0].revents != 0 && read(signals, &signal, sizeof signal) == sizeof signal)
        return act_on(signal.ssi_signo, screen);
    char key = 0;
    if (events[1].revents == 0) return true;
    // A terminal that has something to say and nothing to read is gone.
    return read(STDIN_FILENO, &key, 1) == 1 && key != 'q' && key != 'Q';
}

} // namespace

int screen_watch(const std::function<std::vector<TableLine>()> &lines, bool coloured) {
    const sigset_t watched = watched_signals();
    sigset_t before;
    sigprocmask(SIG_BLOCK, &watched, &before);
    const UniqueFd signals(signalfd(-1, &watched, SFD_CLOEXEC));
    if (!signals) {
        tell(LOG_ERR, "cannot wait for signals: %s", error_text(errno).c_str());
        return 1;
    }
    {
        Screen screen;
        while (draw(lines(), coloured) && wait_for_more(signals.get(), screen)) {
        }
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return 0;
}

} // namespace tsbackup
