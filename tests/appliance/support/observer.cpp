// Runs a command and shows meanwhile what an administration interface and a management daemon would see: a job's
// status file as it changes (each state, and its progress twice a second), and then the events in their order.
//
//   appliance_observer JOB COMMAND [ARG]...

#include "appliance_support.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace tsbackup::test;
using Clock = std::chrono::steady_clock;

std::string first_lines(const std::string &content, std::size_t count) {
    std::string shown;
    std::size_t at = 0;
    while (count-- > 0 && at < content.size()) {
        const std::size_t end = content.find('\n', at);
        if (!shown.empty()) shown += " | ";
        shown += content.substr(at, end == std::string::npos ? end : end - at);
        at = end == std::string::npos ? content.size() : end + 1;
    }
    return shown;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// Prints the contents that have come since the last call: every new state, but progress within a state only when the
/// last line is half a second old.
class StatusPrinter {
  public:
    explicit StatusPrinter(int job_id) : watcher_(job_id), done_(watcher_.seen().size()) {}

    void print_new() {
        const std::vector<std::string> seen = watcher_.seen();
        for (; done_ < seen.size(); ++done_) {
            const Clock::time_point now = Clock::now();
            const std::string state = first_lines(seen[done_], 1);
            const bool last = done_ + 1 == seen.size();
            if (state == state_ && (!last || now - printed_ < kPause)) continue;
            state_ = state;
            printed_ = now;
            std::printf("  %5.2f s  status  %s\n", std::chrono::duration<double>(now - start_).count(),
                        first_lines(seen[done_], 2).c_str());
        }
        std::fflush(stdout);
    }

  private:
    static constexpr std::chrono::milliseconds kPause{500};
    StatusWatcher watcher_;
    std::size_t done_;
    std::string state_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point printed_;
};

/// A datagram holds kind, source, two numbers and the message, one line each.
void show_event(const std::string &datagram) {
    const std::size_t kind = datagram.find('\n');
    const std::size_t source = datagram.find('\n', kind + 1);
    const std::size_t message = datagram.find('\n', source + 1);
    std::printf("  event %-7s %s\n", datagram.substr(0, kind).c_str(), datagram.substr(message + 1).c_str());
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s JOB COMMAND [ARG]...\n", argv[0]);
        return 2;
    }
    EventReceiver daemon;
    StatusPrinter status(std::atoi(argv[1])); // NOLINT(cert-err34-c)
    ProgramOptions options;
    options.program = argv[2];
    Program program({argv + 3, argv + argc}, options);
    while (program.running()) {
        status.print_new();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    status.print_new();
    const Outcome outcome = program.wait();
    for (const std::string &line : lines_of(outcome.out + outcome.err))
        std::printf("  output  %s\n", line.c_str());
    for (const std::string &event : daemon.received())
        show_event(event);
    std::printf("  exit status %d\n", outcome.status);
    return outcome.status;
}
