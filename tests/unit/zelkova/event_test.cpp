#include "private_world.h"
#include "support.h"
#include "zelkova.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>

namespace tsbackup::test {
namespace {

using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kSocket[] = "/var/run/zelkovad/event";

sockaddr_un address_of(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpyt(address.sun_path, path, sizeof address.sun_path);
    return address;
}

UniqueFd bind_datagram_socket(const char *path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = address_of(path);
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return socket;
}

std::vector<std::string> datagrams_of(int socket) {
    std::vector<std::string> datagrams;
    std::string room(1 << 18, '\0');
    ssize_t got = 0;
    while ((got = recv(socket, room.data(), room.size(), 0)) >= 0)
        datagrams.push_back(room.substr(0, static_cast<std::size_t>(got)));
    return datagrams;
}

/// Sends to the daemon's socket until its queue takes no more, and returns how many it took.
std::size_t fill_queue() {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un daemon = address_of(kSocket);
    std::size_t taken = 0;
    while (sendto(socket.get(), "x", 1, 0, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon) == 1)
        ++taken;
    EXPECT_EQ(errno, EAGAIN);
    return taken;
}

double seconds_since(steady_clock::time_point start) { return duration<double>(steady_clock::now() - start).count(); }

class Event : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_APPLIANCE(); }
};

TEST_F(Event, IsOneDatagramByteForByte) {
    const std::string large(100'000, 'm');
    const struct {
        const char *name, *kind, *source, *message;
        int first, second;
        std::string expected;
    } cases[] = {
        {"job result", "backup", "zelkovad", "<xs:add-s resource-type=\"Backup\"><job id=\"7\"/></xs:add-s>", 0, 0,
         "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><job id=\"7\"/></xs:add-s>"},
        {"numbers", "ui", "me", "m", -2147483647 - 1, 2147483647, "ui\nme\n-2147483648 2147483647\nm"},
        {"lines and control characters", "k", "s", "one\ntwo\r\n\t\x01\x7f\n", 1, 2,
         "k\ns\n1 2\none\ntwo\r\n\t\x01\x7f\n"},
        {"directives of a format", "%s", "%n", "100%d %%", 0, 0, "%s\n%n\n0 0\n100%d %%"},
        {"bytes beyond ASCII", "k", "s", "\xc3\xa4 \xff\xfe", 0, 0, "k\ns\n0 0\n\xc3\xa4 \xff\xfe"},
        {"empty texts", "", "", "", 0, 0, "\n\n0 0\n"},
        {"null texts", nullptr, nullptr, nullptr, 0, 0, "\n\n0 0\n"},
        {"large", "k", "s", large.c_str(), 0, 0, "k\ns\n0 0\n" + large},
    };
    remove_tree(kSocket);
    make_folder("/var/run/zelkovad");
    const UniqueFd daemon = bind_datagram_socket(kSocket);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(event_push(test.kind, test.source, test.message, test.first, test.second), 0);
        EXPECT_THAT(datagrams_of(daemon.get()), testing::ElementsAre(test.expected));
    }
    remove_tree(kSocket);
}

TEST_F(Event, LeavesNoDescriptorOpen) {
    const auto before = list_folder("/proc/self/fd").size();
    {
        EventReceiver daemon;
        EXPECT_EQ(event_push("k", "s", "m", 0, 0), 0);
    }
    EXPECT_EQ(event_push("k", "s", "m", 0, 0), -1);
    EXPECT_EQ(list_folder("/proc/self/fd").size(), before);
}

TEST_F(Event, WaitsForAFullSocketThatIsEmptiedInTime) {
    EventReceiver daemon;
    const std::size_t queued = fill_queue();
    std::vector<std::string> events;
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(500));
        events = daemon.received();
    });
    const auto start = steady_clock::now();
    EXPECT_EQ(event_push("k", "s", "late", 0, 0), 0);
    EXPECT_GE(seconds_since(start), 0.4);
    EXPECT_LT(seconds_since(start), 1.9);
    reader.join();
    const std::vector<std::string> rest = daemon.received();
    events.insert(events.end(), rest.begin(), rest.end());
    ASSERT_EQ(events.size(), queued + 1);
    EXPECT_EQ(events.back(), "k\ns\n0 0\nlate");
}

TEST_F(Event, GivesUpAFullSocketAfterTwoSeconds) {
    EventReceiver daemon;
    const std::size_t queued = fill_queue();
    const auto start = steady_clock::now();
    EXPECT_EQ(event_push("k", "s", "m", 0, 0), -1);
    EXPECT_GE(seconds_since(start), 1.9);
    EXPECT_LT(seconds_since(start), 2.5);
    EXPECT_EQ(daemon.received().size(), queued);
}

TEST_F(Event, CountsTheWaitAcrossSignals) {
    EventReceiver daemon;
    fill_queue();
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 30'000}, {0, 30'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = steady_clock::now();
    EXPECT_EQ(event_push("k", "s", "m", 0, 0), -1);
    const double waited = seconds_since(start);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(waited, 1.9);
    EXPECT_LT(waited, 2.5);
}

TEST_F(Event, SurvivesADaemonThatReadsNoMore) {
    const UniqueFd daemon = bind_datagram_socket(kSocket);
    ASSERT_EQ(shutdown(daemon.get(), SHUT_RD), 0);
    EXPECT_EQ(event_push("k", "s", "m", 0, 0), -1);
    remove_tree(kSocket);
}

/// Text of a system log line, whose time is left out: "<29>Nov 21 02:35:16 zelkova: text" gives "<29>zelkova: text".
std::string without_time(const std::string &line) {
    const std::size_t end = line.find('>');
    constexpr std::size_t kTime = sizeof "Nov 21 02:35:16 " - 1;
    if (end == std::string::npos || line.size() < end + 1 + kTime) return line;
    return line.substr(0, end + 1) + line.substr(end + 1 + kTime);
}

/// In a private world: a system log of one's own.
UniqueFd own_system_log() {
    if (mount("none", "/dev", "tmpfs", 0, nullptr) != 0) refuse("cannot replace /dev");
    return bind_datagram_socket("/dev/log");
}

std::vector<std::string> log_lines(const UniqueFd &log) {
    std::vector<std::string> lines = datagrams_of(log.get());
    std::transform(lines.begin(), lines.end(), lines.begin(), without_time);
    return lines;
}

constexpr char kTrace[] = "<29>zelkova: event backup from zelkovad (1 -2) was not delivered: <m n=\"100%s\"/>";
static_assert((LOG_DAEMON | LOG_NOTICE) == 29);

int push_traced() { return event_push("backup", "zelkovad", "<m n=\"100%s\"/>", 1, -2); }

TEST_F(Event, GoesToTheSystemLogOnEveryFailure) {
    EXPECT_IN_PRIVATE_WORLD(0, [] {
        const UniqueFd log = own_system_log();

        remove_tree(kSocket);
        EXPECT_EQ(push_traced(), -1);
        EXPECT_THAT(log_lines(log), testing::ElementsAre(kTrace)) << "no socket";

        write_file(kSocket, "");
        EXPECT_EQ(push_traced(), -1);
        EXPECT_THAT(log_lines(log), testing::ElementsAre(kTrace)) << "not a socket";
        remove_tree(kSocket);

        bind_datagram_socket(kSocket);
        EXPECT_EQ(push_traced(), -1);
        EXPECT_THAT(log_lines(log), testing::ElementsAre(kTrace)) << "the daemon has ended";
        remove_tree(kSocket);

        const UniqueFd daemon = bind_datagram_socket(kSocket);
        EXPECT_EQ(push_traced(), 0);
        EXPECT_THAT(log_lines(log), testing::IsEmpty()) << "delivered";
        fill_queue();
        EXPECT_EQ(push_traced(), -1);
        EXPECT_THAT(log_lines(log), testing::ElementsAre(kTrace)) << "the socket stays full";
        remove_tree(kSocket);
    });
}

TEST_F(Event, LeavesTheSystemLogAsAProcessFindsIt) {
    EXPECT_IN_PRIVATE_WORLD(0, [] {
        const UniqueFd log = own_system_log();
        remove_tree(kSocket);
        EXPECT_EQ(push_traced(), -1);
        syslog(LOG_ERR, "own line");
        const std::vector<std::string> lines = log_lines(log);
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1],
                  "<" + std::to_string(LOG_USER | LOG_ERR) + ">" + program_invocation_short_name + ": own line");
    });
}

TEST_F(Event, DoesNotNeedASystemLog) {
    EXPECT_IN_PRIVATE_WORLD(0, [] {
        if (mount("none", "/dev", "tmpfs", 0, nullptr) != 0) refuse("cannot replace /dev");
        remove_tree(kSocket);
        EXPECT_EQ(push_traced(), -1);
    });
}

} // namespace
} // namespace tsbackup::test
