#include "service.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>

namespace tsbackup {

void service_prepare() {
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
    std::signal(SIGPIPE, SIG_IGN);
}

UniqueFd service_end_requests() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) return UniqueFd();
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

InheritedDescriptor service_inherited() {
    const int count = sd_listen_fds(1);
    if (count <= 0) return {};
    if (count > 1) return {Inherited::several, UniqueFd()};
    return {Inherited::one, UniqueFd(SD_LISTEN_FDS_START)};
}

void service_ready() { sd_notify(0, "READY=1"); }

void service_status(const std::string &text) { sd_notify(0, ("STATUS=" + text).c_str()); }

void service_stopping() { sd_notify(0, "STOPPING=1"); }

std::vector<std::string> service_child_environment() {
    constexpr std::string_view kOwn[] = {
        "NOTIFY_SOCKET=", "LISTEN_PID=", "LISTEN_FDS=", "LISTEN_FDNAMES=", "WATCHDOG_PID=", "WATCHDOG_USEC="};
    std::vector<std::string> environment;
    for (char **assignment = environ; *assignment != nullptr; ++assignment) {
        bool own = false;
        for (const std::string_view start : kOwn)
            own = own || std::string_view(*assignment).starts_with(start);
        if (!own) environment.emplace_back(*assignment);
    }
    return environment;
}

} // namespace tsbackup
