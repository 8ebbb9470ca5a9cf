// Status files of jobs and of camera imports.

#include "tsbackup_utils.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"

#include <array>
#include <cinttypes>

namespace tsbackup {

namespace {

constexpr std::size_t kLineSize = 1024;
using Line = std::array<char, kLineSize>;

/// False for a code without a line.
bool format_job_line(Line &line, BackupStatusCode code, std::int32_t timestamp, std::int32_t full) {
    switch (code) {
    case BackupStatusCode::in_progress:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__IN_PROGRESS,%d!!%d!!OK", full, timestamp);
        return true;
    case BackupStatusCode::in_queue:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__IN_QUEUE!!%d!!OK", timestamp);
        return true;
    case BackupStatusCode::failed:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__FAILED!!%d!!warn", timestamp);
        return true;
    case BackupStatusCode::cancelling:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__CANCELLING!!%d!!notice", timestamp);
        return true;
    case BackupStatusCode::cancelled:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__CANCELLED!!%d!!notice", timestamp);
        return true;
    case BackupStatusCode::completed:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__COMPLETED!!%d!!OK", timestamp);
        return true;
    case BackupStatusCode::wol_waking:
        str_snprintf(line.data(), line.size(), "BACKUP_STATUS__WOL_WAKING!!%d!!OK", timestamp);
        return true;
    }
    return false;
}

/// State and severity word of a camera import's line.
struct CameraState {
    const char *name;
    const char *severity;
};

std::optional<CameraState> camera_state(MtpBackupStatusCode code) {
    switch (code) {
    case MtpBackupStatusCode::active_copying:
        return CameraState{"MBACKUP_STATUS__ACTIVE_COPYING", "OK"};
    case MtpBackupStatusCode::active_removing:
        return CameraState{"MBACKUP_STATUS__ACTIVE_REMOVING", "OK"};
    case MtpBackupStatusCode::failed:
        return CameraState{"MBACKUP_STATUS__FAILED", "warn"};
    case MtpBackupStatusCode::partly_completed:
        return CameraState{"MBACKUP_STATUS__PARTLY_COMPLETED", "notice"};
    case MtpBackupStatusCode::completed:
        return CameraState{"MBACKUP_STATUS__COMPLETED", "OK"};
    }
    return std::nullopt;
}

/// False when the file cannot be opened.
bool replace_with_line(const std::string &path, const Line &line) {
    const UniqueFile file(std::fopen(path.c_str(), "we"));
    if (!file) return false;
    std::fprintf(file.get(), "%s\n", line.data());
    return true;
}

} // namespace

void backup_status_write(std::int32_t job_id, BackupStatusCode code, std::uint32_t timestamp, std::int32_t full) {
    Line line;
    if (!format_job_line(line, code, static_cast<std::int32_t>(timestamp), full)) return;

    const std::string path = paths::status_file(job_id);
    replace_with_line(path, line);
    TSBACKUP_LOG(level::debug, "write(%s,%s)\n", path.c_str(), line.data());
}

std::optional<std::string> backup_status_read(std::int32_t job_id) {
    return read_first_line(paths::status_file(job_id).c_str(), kLineSize);
}

void mtpbackup_status_write(const char *device, MtpBackupStatusCode code, std::int32_t timestamp,
                            const MtpBackupStatistics &statistics) {
    const std::optional<CameraState> state = camera_state(code);
    if (!state) return;

    Line line;
    str_snprintf(line.data(), line.size(), "%s!!%d!!%s!!%" PRIu64 "!!%" PRIu64 "!!%" PRIu64 "!!%" PRIu64 "!!%lf",
                 state->name, timestamp, state->severity, statistics.total_bytes, statistics.copied_bytes,
                 statistics.total_files, statistics.copied_files, statistics.rate);

    const std::string path = paths::camera_status_file(device);
    if (!replace_with_line(path, line)) TSBACKUP_LOG(level::error, "Can't open %s ?\n", path.c_str());
}

} // namespace tsbackup
