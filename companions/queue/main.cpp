// tsbackup-q: runs what is put into a queue, one task at a time.

#include "queue_daemon.h"
#include "service.h"
#include "tell.h"
#include "tsbackup/log.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr char kName[] = "tsbackup-q";
constexpr int kWrongUsage = 2;

constexpr char kHelp[] = "usage: tsbackup-q [OPTION]...\n"
                         "\n"
                         "Runs the backup jobs that are put into its queue, one at a time in the order asked.\n"
                         "\n"
                         "  --camera        run the camera imports of their own queue instead\n"
                         "  --worker PATH   the program that runs a job (tsbackup in the folder of this program)\n"
                         "  --pipe PATH     the named pipe of the requests (%s; camera: %s);\n"
                         "                  not used when the service manager hands one over\n"
                         "  --state PATH    where the queue is kept (%s; camera: %s)\n"
                         "  --help          show this text and end\n"
                         "  --version       show the version and end\n";

struct CommandLine {
    bool camera = false;
    std::string worker;
    std::string pipe;
    std::string state;
};

/// Exit status when there is nothing to serve; the settings otherwise.
struct Parsed {
    int status = -1;
    CommandLine line;
};

Parsed parse(int argc, char **argv) {
    enum Option { kCamera = 1, kWorker, kPipe, kState, kHelpOption, kVersion };
    static constexpr std::array<option, 7> kOptions = {{
        {"camera", no_argument, nullptr, kCamera},
        {"worker", required_argument, nullptr, kWorker},
        {"pipe", required_argument, nullptr, kPipe},
        {"state", required_argument, nullptr, kState},
        {"help", no_argument, nullptr, kHelpOption},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    }};
    Parsed parsed;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
        case kCamera:
            parsed.line.camera = true;
            break;
        case kWorker:
            parsed.line.worker = optarg;
            break;
        case kPipe:
            parsed.line.pipe = optarg;
            break;
        case kState:
            parsed.line.state = optarg;
            break;
        case kHelpOption:
            std::printf(kHelp, job_queue().pipe, camera_queue().pipe, job_queue().state_file,
                        camera_queue().state_file);
            return {0, {}};
        case kVersion:
            std::printf("%s %s\n", kName, TSBACKUP_VERSION);
            return {0, {}};
        default:
            return {kWrongUsage, {}};
        }
    }
    if (optind < argc) {
        tell(LOG_ERR, "unexpected argument \"%s\"; see --help", argv[optind]);
        return {kWrongUsage, {}};
    }
    for (const std::string *path : {&parsed.line.worker, &parsed.line.pipe, &parsed.line.state}) {
        if (path->empty() || path->front() == '/') continue;
        tell(LOG_ERR, "\"%s\" is no absolute path", path->c_str());
        return {kWrongUsage, {}};
    }
    return parsed;
}

std::string worker_beside_this_program() {
    std::array<char, 4096> own{};
    const ssize_t length = readlink("/proc/self/exe", own.data(), own.size() - 1);
    const std::string path(own.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + "tsbackup";
}

/// Held by the one daemon of a queue. Nothing after the failure was told.
UniqueFd lock_state(const std::string &state_file) {
    mkdir_p(state_file.substr(0, state_file.rfind('/')), 0755);
    const std::string path = state_file + ".lock";
    UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock) {
        tell(LOG_ERR, "cannot open %s: %s", path.c_str(), error_text(errno).c_str());
    } else if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        tell(LOG_ERR, "another daemon serves this queue (%s is locked)", path.c_str());
        lock.reset();
    }
    return lock;
}

std::optional<QueuePipe> open_pipe(const std::string &path) {
    InheritedDescriptor inherited = service_inherited();
    if (inherited.count == Inherited::none) return QueuePipe::open(path);
    if (inherited.count == Inherited::one) return QueuePipe::inherit(std::move(inherited.descriptor));
    tell(LOG_ERR, "the service manager handed over more than one descriptor");
    return std::nullopt;
}

int serve(const CommandLine &line) {
    const QueueKind &kind = line.camera ? camera_queue() : job_queue();
    const auto or_default = [](const std::string &text, const std::string &value) {
        return text.empty() ? value : text;
    };
    const QueueSettings settings{or_default(line.worker, worker_beside_this_program()),
                                 or_default(line.state, kind.state_file)};
    std::optional<QueuePipe> pipe = open_pipe(or_default(line.pipe, kind.pipe));
    if (!pipe) return 1;
    const UniqueFd lock = lock_state(settings.state_file);
    if (!lock) return 1;
    const UniqueFd end_requests = service_end_requests();
    if (!end_requests) {
        tell(LOG_ERR, "cannot wait for signals: %s", error_text(errno).c_str());
        return 1;
    }

    QueueDaemon daemon(kind, settings, std::move(*pipe));
    daemon.restore();
    service_ready();
    const bool regular = daemon.serve(end_requests.get());
    service_stopping();
    return regular ? 0 : 1;
}

} // namespace

} // namespace tsbackup

int main(int argc, char **argv) {
    tsbackup::service_prepare();
    tsbackup::tell_as(tsbackup::kName);
    const tsbackup::Parsed parsed = tsbackup::parse(argc, argv);
    return parsed.status >= 0 ? parsed.status : tsbackup::serve(parsed.line);
}
