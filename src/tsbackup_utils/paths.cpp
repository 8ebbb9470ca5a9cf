#include "tsbackup/paths.h"

#include "tsbackup_utils.h"

#include <array>

namespace tsbackup::paths {

namespace {

using Buffer = std::array<char, buffer_size>;

} // namespace

std::string pid_file(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "/var/run/zelkovad/backup_%03d.pid", job_id);
}

std::string status_file(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/status_backup_%03d", log_folder, job_id);
}

std::string camera_status_file(const char *device) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/status_mtpbackup_%s", log_folder, device);
}

std::string history(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/backup_%03d.log", log_folder, job_id);
}

std::string history_scratch(std::int32_t job_id) { return history(job_id) + ".4"; }

std::string copy_log(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%sbackup_%03d_copy.log", work_folder, job_id);
}

std::string kept_copy_log(std::int32_t job_id, std::int32_t start_time) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/%s%d.log", log_folder, kept_copy_log_prefix(job_id).c_str(),
                        start_time);
}

std::string kept_copy_log_prefix(std::int32_t job_id) {
    Buffer name{};
    return str_snprintf(name.data(), name.size(), "backup_%03d_copy.", job_id);
}

std::string error_log(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/backup_%03d_error.log", log_folder, job_id);
}

std::string last_full_record(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/.last_full_backup_%03d", log_folder, job_id);
}

std::string mount_point(std::int32_t job_id) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "/job_%03d", job_id);
}

std::string camera_log(const char *device) {
    Buffer path{};
    return str_snprintf(path.data(), path.size(), "%s/mtpbackup_%s.log", log_folder, device);
}

} // namespace tsbackup::paths
