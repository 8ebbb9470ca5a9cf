#include "runner.h"

#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace tsbackup {

namespace {

/// Records a refusal that a line of the log tells of.
void judge_line(const char *line, BackupRun &run) {
    const char *denied = std::strstr(line, "Permission denied");
    if (std::strstr(line, "No space left") != nullptr)
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "%s", line);
    else if (denied != nullptr)
        TSBACKUP_ERROR_SET(denied == line ? error_code::rsync_error_line : error_code::login_refused, &run, "%s", line);
    else
        return;
    error_log_line(run, "%s", line);
}

bool is_kept(const char *line) {
    return std::strcmp(line, "receiving incremental file list\n") != 0 && std::strstr(line, "100%") == nullptr;
}

} // namespace

void rsync_finish_copy_log(BackupRun &run, std::int32_t result) {
    const std::string path = paths::copy_log(run.job_id);
    const std::string filtered_path = path + "." + std::to_string(getpid());
    UniqueFile copy_log(std::fopen(path.c_str(), "re"));
    UniqueFile filtered(copy_log ? std::fopen(filtered_path.c_str(), "we") : nullptr);
    if (!filtered) return;

    std::array<char, paths::buffer_size> line{};
    while (std::fgets(line.data(), line.size(), copy_log.get()) != nullptr) {
        judge_line(line.data(), run);
        if (is_kept(line.data())) std::fputs(line.data(), filtered.get());
    }
    if (result != 0) {
        error_log_line(run, "'rsync' command returns rc=%d\n", result);
        TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "'rsync' command returns rc=%d", result);
    }
    copy_log.reset();
    // A list that could not be written whole does not replace the one that was.
    const bool failed = std::ferror(filtered.get()) != 0;
    if (std::fclose(filtered.release()) != 0 || failed) {
        unlink(filtered_path.c_str());
        return;
    }
    unlink(path.c_str());
    std::rename(filtered_path.c_str(), path.c_str());
}

} // namespace tsbackup
