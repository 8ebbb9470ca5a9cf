// zelkova-eventd: receives the events of backup jobs, records them, and hands them on.

#include "config.h"
#include "eject.h"
#include "event.h"
#include "event_socket.h"
#include "handler.h"
#include "record.h"
#include "service.h"
#include "tell.h"
#include "tsbackup/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>
#include <getopt.h>
#include <poll.h>
#include <sstream>

namespace tsbackup {

namespace {

constexpr char kName[] = "zelkova-eventd";
constexpr int kWrongUsage = 2;
constexpr char kSocket[] = "/var/run/zelkovad/event";
constexpr char kConfigFile[] = "/etc/tsbackup/eventd.conf";

constexpr char kHelp[] =
    "usage: zelkova-eventd [OPTION]...\n"
    "\n"
    "Receives the events of backup jobs: writes them to the journal, hands them to a command, and\n"
    "unmounts the disks that they ask to eject.\n"
    "\n"
    "  --config PATH   the configuration (%s, which may be missing)\n"
    "  --socket PATH   the socket of the events (%s);\n"
    "                  not used when the service manager hands one over\n"
    "  --help          show this text and end\n"
    "  --version       show the version and end\n";

struct CommandLine {
    int status = -1; ///< the exit status when there is nothing to serve
    std::string config;
    std::string socket = kSocket;
};

CommandLine parse(int argc, char **argv) {
    enum Option { kConfig = 1, kSocketOption, kHelpOption, kVersion };
    static constexpr std::array<option, 5> kOptions = {{
        {"config", required_argument, nullptr, kConfig},
        {"socket", required_argument, nullptr, kSocketOption},
        {"help", no_argument, nullptr, kHelpOption},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    }};
    CommandLine line;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case kConfig:
            line.config = optarg;
            break;
        case kSocketOption:
            line.socket = optarg;
            break;
        case kHelpOption:
            std::printf(kHelp, kConfigFile, kSocket);
            line.status = 0;
            return line;
        case kVersion:
            std::printf("%s %s\n", kName, TSBACKUP_VERSION);
            line.status = 0;
            return line;
        default:
            line.status = kWrongUsage;
            return line;
        }
    }
    if (optind < argc) {
        tell(LOG_ERR, "unexpected argument \"%s\"; see --help", argv[optind]);
        line.status = kWrongUsage;
    } else if (!line.socket.starts_with('/')) {
        tell(LOG_ERR, "\"%s\" is no absolute path", line.socket.c_str());
        line.status = kWrongUsage;
    }
    return line;
}

/// False after the fault was told. A file that was not asked for may be missing.
bool read_config(const std::string &asked_for, EventConfig &config) {
    const std::string path = asked_for.empty() ? kConfigFile : asked_for;
    std::ifstream file(path);
    if (!file) {
        if (asked_for.empty() && errno == ENOENT) return true;
        tell(LOG_ERR, "cannot read %s: %s", path.c_str(), error_text(errno).c_str());
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    const std::optional<ConfigFault> fault = config_read(text.str(), config);
    if (fault) tell(LOG_ERR, "%s:%d: %s", path.c_str(), fault->line, fault->reason.c_str());
    return !fault;
}

UniqueFd open_socket(const std::string &path) {
    InheritedDescriptor inherited = service_inherited();
    if (inherited.count == Inherited::none) return event_socket_bind(path);
    if (inherited.count == Inherited::one) return event_socket_inherit(std::move(inherited.descriptor));
    tell(LOG_ERR, "the service manager handed over more than one descriptor");
    return UniqueFd();
}

void take_event(const std::string &datagram, const EventConfig &config, Handler &handler, Ejects &ejects) {
    const std::optional<Event> event = event_parse(datagram);
    if (!event) {
        constexpr std::size_t kShown = 100;
        tell(LOG_WARNING, "dropped a datagram of %zu bytes that is no event: \"%s\"", datagram.size(),
             datagram.substr(0, kShown).c_str());
        return;
    }
    event_record(*event);
    handler.add(*event);
    const std::optional<std::string> device = event_eject_device(*event);
    if (device && config.eject) ejects.add(*device);
}

/// Takes in what has arrived; however much that is, the rest of the work gets its turn.
void take_events(int socket, const EventConfig &config, Handler &handler, Ejects &ejects) {
    constexpr int kMostAtOnce = 1000;
    for (int count = 0; count < kMostAtOnce; ++count) {
        const std::optional<std::string> datagram = event_socket_receive(socket);
        if (!datagram) return;
        take_event(*datagram, config, handler, ejects);
    }
}

/// Milliseconds until the earlier of two moments; -1 when there is neither.
int patience(std::optional<Handler::Clock::time_point> one, std::optional<Handler::Clock::time_point> other) {
    if (!one && !other) return -1;
    const auto first =
        std::min(one.value_or(Handler::Clock::time_point::max()), other.value_or(Handler::Clock::time_point::max()));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Handler::Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

int serve(const EventConfig &config, int socket, int end_requests) {
    Handler handler(config);
    Ejects ejects(config);
    while (true) {
        // A descriptor of -1 is left out by poll().
        std::array<pollfd, 3> sources = {pollfd{end_requests, POLLIN, 0}, pollfd{socket, POLLIN, 0},
                                         pollfd{handler.descriptor(), POLLIN, 0}};
        if (poll(sources.data(), sources.size(), patience(handler.deadline(), ejects.deadline())) < 0 &&
            errno != EINTR) {
            tell(LOG_ERR, "poll failed: %s", error_text(errno).c_str());
            return 1;
        }
        take_events(socket, config, handler, ejects);
        handler.work();
        ejects.work();
        if (sources[0].revents != 0) break;
    }
    if (handler.waiting() > 0) tell(LOG_WARNING, "%zu events were not handed over", handler.waiting());
    return 0;
}

int start(const CommandLine &line) {
    EventConfig config;
    if (!read_config(line.config, config)) return 1;
    const UniqueFd socket = open_socket(line.socket);
    if (!socket) return 1;
    const UniqueFd end_requests = service_end_requests();
    if (!end_requests) {
        tell(LOG_ERR, "cannot wait for signals: %s", error_text(errno).c_str());
        return 1;
    }
    service_ready();
    const int status = serve(config, socket.get(), end_requests.get());
    service_stopping();
    return status;
}

} // namespace

} // namespace tsbackup

int main(int argc, char **argv) {
    tsbackup::service_prepare();
    tsbackup::tell_as(tsbackup::kName);
    const tsbackup::CommandLine line = tsbackup::parse(argc, argv);
    return line.status >= 0 ? line.status : tsbackup::start(line);
}
