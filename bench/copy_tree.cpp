// What a run does around the copy engine, and nothing else: opens its two logs, starts its clock, copies one tree.
// The status file of job 0 is written as in any run, when its folder exists.
//
//   bench_copy_tree SOURCE DESTINATION LOG_FOLDER

#include "tsbackup/job.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/run.h"
#include "tsbackup_do.h"

#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <string>

namespace {

tsbackup::UniqueFd open_log(const std::string &path) {
    return tsbackup::UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666));
}

} // namespace

int main(int argc, char *argv[]) {
    using namespace tsbackup;
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_copy_tree SOURCE DESTINATION LOG_FOLDER\n");
        return 2;
    }
    diagnostic_stream_set(stderr);

    const UniqueFd copy_log = open_log(argv[3] + std::string("/copy.log"));
    const UniqueFd error_log = open_log(argv[3] + std::string("/error.log"));
    if (!copy_log || !error_log) {
        std::perror("bench_copy_tree: logs");
        return 2;
    }

    BackupJob job;
    BackupRun run;
    run.start_time = static_cast<std::int32_t>(std::time(nullptr));
    run.src_is_dir = 1;
    run.copy_log = copy_log.get();
    run.error_log = error_log.get();
    clock_gettime(CLOCK_MONOTONIC_COARSE, &run.started);

    backup_do_cp(job, run, argv[1], argv[2]);

    if (run.error_code == 0) return 0;
    std::fprintf(stderr, "bench_copy_tree: error %d: %s\n", run.error_code,
                 run.error_message ? run.error_message->c_str() : "");
    return 1;
}
