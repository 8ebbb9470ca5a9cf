// Events to the management daemon, and to the system log when the daemon does not take them.

#include "zelkova.h"

#include "tsbackup/owners.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;
using tsbackup::UniqueFd;
using tsbackup::UniqueText;

constexpr char kEventSocket[] = "/var/run/zelkovad/event";
constexpr microseconds kPatience = std::chrono::seconds(2);

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

bool limit_send_wait(int socket, microseconds limit) {
    constexpr auto kPerSecond = microseconds(std::chrono::seconds(1)).count();
    timeval timeout{};
    timeout.tv_sec = limit.count() / kPerSecond;
    timeout.tv_usec = limit.count() % kPerSecond;
    return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == 0;
}

/// Sends one datagram to the daemon. However often a signal interrupts it, it waits no longer than kPatience in all.
bool send_to_daemon(int socket, const char *datagram, std::size_t length) {
    sockaddr_un daemon{};
    daemon.sun_family = AF_UNIX;
    static_assert(sizeof kEventSocket <= sizeof daemon.sun_path);
    std::memcpy(daemon.sun_path, kEventSocket, sizeof kEventSocket);

    const steady_clock::time_point deadline = steady_clock::now() + kPatience;
    // A time-out of zero would mean to wait for ever: the loop ends before one is set.
    for (microseconds left = kPatience; left.count() > 0;
         left = std::chrono::duration_cast<microseconds>(deadline - steady_clock::now())) {
        if (!limit_send_wait(socket, left)) return false;
        if (sendto(socket, datagram, length, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&daemon),
                   sizeof daemon) >= 0)
            return true;
        if (errno != EINTR) return false;
    }
    return false;
}

bool deliver(const char *kind, const char *source, const char *message, int first, int second) {
    char *text = nullptr;
    const int length = safe_asprintf(&text, "%s\n%s\n%d %d\n%s", kind, source, first, second, message);
    const UniqueText datagram(text);
    if (datagram == nullptr) return false;

    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket && send_to_daemon(socket.get(), datagram.get(), static_cast<std::size_t>(length));
}

void leave_trace(const char *kind, const char *source, const char *message, int first, int second) {
    // The identity can only be set for the whole process. Afterwards the process logs under its own name and the
    // general facility again, like one that never called openlog().
    openlog("zelkova", 0, LOG_USER);
    syslog(LOG_DAEMON | LOG_NOTICE, "event %s from %s (%d %d) was not delivered: %s", kind, source, first, second,
           message);
    closelog();
}

} // namespace

int event_push(const char *kind, const char *source, const char *message, int first, int second) {
    kind = text_or_empty(kind);
    source = text_or_empty(source);
    message = text_or_empty(message);
    if (deliver(kind, source, message, first, second)) return 0;
    leave_trace(kind, source, message, first, second);
    return -1;
}
