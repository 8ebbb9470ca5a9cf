// Status files of jobs and of camera imports.

#include "tsbackup_utils.h"

#include "read_number.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"

#include <array>
#include <cinttypes>

namespace tsbackup {

namespace {

constexpr std::size_t kLineSize = 1024;
using Line = std::array<char, kLineSize>;

/// A state's name and the severity word that ends its line.
template <typename Code> struct StateWords {
    Code code;
    const char *name;
    const char *severity;
};

constexpr char kSeparator[] = "!!";

constexpr StateWords<BackupStatusCode> kJobStates[] = {
    {BackupStatusCode::in_progress, "BACKUP_STATUS__IN_PROGRESS", "OK"},
    {BackupStatusCode::in_queue, "BACKUP_STATUS__IN_QUEUE", "OK"},
    {BackupStatusCode::failed, "BACKUP_STATUS__FAILED", "warn"},
    {BackupStatusCode::cancelling, "BACKUP_STATUS__CANCELLING", "notice"},
    {BackupStatusCode::cancelled, "BACKUP_STATUS__CANCELLED", "notice"},
    {BackupStatusCode::completed, "BACKUP_STATUS__COMPLETED", "OK"},
    {BackupStatusCode::wol_waking, "BACKUP_STATUS__WOL_WAKING", "OK"},
};

constexpr StateWords<MtpBackupStatusCode> kCameraStates[] = {
    {MtpBackupStatusCode::active_copying, "MBACKUP_STATUS__ACTIVE_COPYING", "OK"},
    {MtpBackupStatusCode::active_removing, "MBACKUP_STATUS__ACTIVE_REMOVING", "OK"},
    {MtpBackupStatusCode::failed, "MBACKUP_STATUS__FAILED", "warn"},
    {MtpBackupStatusCode::partly_completed, "MBACKUP_STATUS__PARTLY_COMPLETED", "notice"},
    {MtpBackupStatusCode::completed, "MBACKUP_STATUS__COMPLETED", "OK"},
};

/// The row of a code; null for a code without a line.
template <typename Row, std::size_t rows, typename Code> const Row *words_of(const Row (&table)[rows], Code code) {
    for (const Row &row : table)
        if (row.code == code) return &row;
    return nullptr;
}

/// The row of a name; null for an unknown one.
template <typename Row, std::size_t rows> const Row *state_named(const Row (&table)[rows], const std::string &name) {
    for (const Row &row : table)
        if (name == row.name) return &row;
    return nullptr;
}

/// False for a code without a line.
bool format_job_line(Line &line, BackupStatusCode code, std::int32_t timestamp, std::int32_t full) {
    const StateWords<BackupStatusCode> *state = words_of(kJobStates, code);
    if (state == nullptr) return false;
    if (code == BackupStatusCode::in_progress)
        str_snprintf(line.data(), line.size(), "%s,%d!!%d!!%s", state->name, full, timestamp, state->severity);
    else
        str_snprintf(line.data(), line.size(), "%s!!%d!!%s", state->name, timestamp, state->severity);
    return true;
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

std::optional<BackupStatus> backup_status_parse(const std::string &line) {
    const std::vector<std::string> fields = str_split_all(line, kSeparator);
    if (fields.size() != 3) return std::nullopt;

    const std::vector<std::string> name_and_full = str_split_all(fields[0], ",");
    const StateWords<BackupStatusCode> *state = state_named(kJobStates, name_and_full[0]);
    BackupStatus status;
    if (state == nullptr || fields[2] != state->severity || !read_number(fields[1], status.timestamp))
        return std::nullopt;
    status.code = state->code;
    const bool in_progress = status.code == BackupStatusCode::in_progress;
    if (name_and_full.size() != (in_progress ? 2 : 1)) return std::nullopt;
    if (in_progress && !read_number(name_and_full[1], status.full)) return std::nullopt;
    return status;
}

std::optional<MtpBackupStatus> mtpbackup_status_parse(const std::string &line) {
    const std::vector<std::string> fields = str_split_all(line, kSeparator);
    if (fields.size() != 8) return std::nullopt;

    const StateWords<MtpBackupStatusCode> *state = state_named(kCameraStates, fields[0]);
    MtpBackupStatus status;
    if (state == nullptr || fields[2] != state->severity || !read_number(fields[1], status.timestamp) ||
        !read_number(fields[3], status.statistics.total_bytes) ||
        !read_number(fields[4], status.statistics.copied_bytes) ||
        !read_number(fields[5], status.statistics.total_files) ||
        !read_number(fields[6], status.statistics.copied_files) || !read_number(fields[7], status.statistics.rate))
        return std::nullopt;
    status.code = state->code;
    return status;
}

void mtpbackup_status_write(const char *device, MtpBackupStatusCode code, std::int32_t timestamp,
                            const MtpBackupStatistics &statistics) {
    const StateWords<MtpBackupStatusCode> *state = words_of(kCameraStates, code);
    if (state == nullptr) return;

    Line line;
    str_snprintf(line.data(), line.size(), "%s!!%d!!%s!!%" PRIu64 "!!%" PRIu64 "!!%" PRIu64 "!!%" PRIu64 "!!%lf",
                 state->name, timestamp, state->severity, statistics.total_bytes, statistics.copied_bytes,
                 statistics.total_files, statistics.copied_files, statistics.rate);

    const std::string path = paths::camera_status_file(device);
    if (!replace_with_line(path, line)) TSBACKUP_LOG(level::error, "Can't open %s ?\n", path.c_str());
}

} // namespace tsbackup
