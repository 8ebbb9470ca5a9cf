// One program in five roles: the command line picks one, this file prepares the process and hands over.

#include "tsbackup.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_error.h"
#include "tsbackup_mtp.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr int kCoreLimitMebibytes = 512;
constexpr std::uint32_t kEnqueueDelayMicroseconds = 20000;

/// A log opened by a process without standard streams must not become one of them.
void standard_streams_ensure() {
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

void process_prepare() {
    standard_streams_ensure();
    diagnostic_stream_set(stderr);
    set_core_limit(kCoreLimitMebibytes);
    // A cancel signals the whole group: this process and every child of the job.
    setpgid(0, 0);
    // A reader of the diagnostics that goes away must not end a backup.
    std::signal(SIGPIPE, SIG_IGN);
    // Nor may a limit of the file size: the file that exceeds it is reported, and the others are still copied.
    std::signal(SIGXFSZ, SIG_IGN);
}

int usage_exit(const char *program) {
    std::fputs(usage_text(program).c_str(), stdout);
    return 1;
}

void work_folder_ensure() {
    if (mkdir(paths::work_folder, 0755) != 0 && errno != EEXIST)
        TSBACKUP_LOG(level::error, "mkdir(%s) failed.\n", paths::work_folder);
}

/// Makes the mounts of a job invisible to the rest of the system; they vanish with the process. The antivirus service
/// has to see them, so with it they are made in the shared namespace.
void mount_namespace_enter() {
    const UniqueText antivirus(get_ts_services_setting("ANTIVIRUS"));
    if (antivirus && std::strcmp(antivirus.get(), "1") == 0) return;
    if (unshare(CLONE_NEWNS) == 0) mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

void execute(std::int32_t job_id) {
    hangup_handler_install();
    backup_snapshot_cleanup(0);
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK) return;
    job_entry(job_id);
    curl_global_cleanup();
}

/// The jobs of one moment ask one after the other, in the order of their numbers.
void enqueue(std::int32_t job_id) {
    usleep(static_cast<std::uint32_t>(job_id) * kEnqueueDelayMicroseconds);
    queue_request_send("enqueue:%d", job_id);
}

void camera_import(const ImportArguments &import) {
    perform_mtpbackup(import.kind, import.bus, import.device, import.name);
}

void hand_over(const CommandLine &line, std::int32_t job_id, const ImportArguments &import) {
    if (line.kill) return job_cancel(job_id);
    if (line.execute) return execute(job_id);
    if (line.arrival_hook) return static_cast<void>(camera_arrival());
    if (line.import_worker) return camera_import(import);
    enqueue(job_id);
}

int run(int argc, char **argv) {
    process_prepare();
    const char *program = argc > 0 ? argv[0] : nullptr;
    const CommandLine line = command_line_parse(argc, argv);
    if (line.verbosity) diagnostic_threshold_set(*line.verbosity);
    if (line.fault == CommandLineFault::missing_job_id) TSBACKUP_LOG(level::error, "Error: Missing jobid.\n");
    if (line.fault != CommandLineFault::none) return usage_exit(program);
    transfer_trace_set(line.transfer_trace);

    work_folder_ensure();
    const std::int32_t job_id = decimal_value(line.job_id);
    if (job_id < 0) {
        TSBACKUP_LOG(level::error, "Error: Jobid must be non-negative number.\n");
        return usage_exit(program);
    }
    mount_namespace_enter();
    hand_over(line, job_id, import_arguments(argc, argv));
    return 0;
}

} // namespace

} // namespace tsbackup

int main(int argc, char **argv) { return tsbackup::run(argc, argv); }
