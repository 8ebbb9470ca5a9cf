#include "sd_card.h"

#include "run_start.h"
#include "tsbackup.h"
#include "tsbackup/codes.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace tsbackup {

namespace {

constexpr std::size_t kStorageLine = 4096; ///< with the terminator; the rest of a longer line is a line of its own
constexpr std::size_t kMediaServerLine = 512;
constexpr std::size_t kNameSize = 128;

/// Status of the event about a card that has nowhere to go.
constexpr std::int32_t kNoTarget = 4;

/// What `pick` makes of the first line of a file that it makes anything of.
template <std::size_t line_size, typename Result>
std::optional<Result> first_in_file(const char *path, std::optional<Result> (*pick)(const std::string &line)) {
    const UniqueFile file(std::fopen(path, "re"));
    std::array<char, line_size> line{};
    while (file && std::fgets(line.data(), line.size(), file.get()) != nullptr)
        if (std::optional<Result> result = pick(line.data())) return result;
    return std::nullopt;
}

/// A card's name is the name of one folder below "/media". Anything else leads elsewhere.
bool is_folder_name(const std::string &name) {
    return name != "." && name != ".." && name.find('/') == std::string::npos;
}

/// The text between a run of "/" that starts at `at` and the next "/"; `at` moves behind it.
std::string next_component(const std::string &line, std::size_t &at) {
    const std::size_t start = line.find_first_not_of('/', at);
    if (start == std::string::npos) return {};
    at = std::min(line.find('/', start), line.size());
    return line.substr(start, at - start);
}

void report_no_target(std::int32_t job_id, std::int32_t start_time) {
    event_sd_card_failed(job_id, kNoTarget, 1);
    backup_status_write(job_id, BackupStatusCode::failed, stamp(start_time), 0);
    event_button_summary(1);
}

/// Runs the card's job without logs of its own; its error code.
std::int32_t copy_card(const BackupJob &job, std::int32_t start_time) {
    BackupRun run;
    run.start_time = start_time;
    run.by_button = 1;
    run_root_file_system_note(run);
    run_clock_start(run);

    full_policy_decide(job, run);
    backup_status_write(job.job_id, BackupStatusCode::in_progress, stamp(start_time), run.full);
    do_backup(&job, &run);
    backup_log_finish(job, run);
    event_job_result(job.job_id, text_or_empty(job.name), run.error_code, 0, 1);
    return run.error_code;
}

} // namespace

std::optional<std::string> sd_card_in(const std::string &line) {
    constexpr std::size_t kName = 1;
    constexpr std::size_t kEnabled = 4;
    if (line.find("SDCARD_") == std::string::npos) return std::nullopt;
    const std::vector<std::string> fields = str_split_all(line, "!!");
    if (fields.size() <= kEnabled || fields[kEnabled] != "1" || !is_folder_name(fields[kName])) return std::nullopt;
    return fields[kName];
}

std::optional<MediaShare> media_share_in(const std::string &line) {
    if (line.find("media_dir=") == std::string::npos) return std::nullopt;
    std::size_t at = line.find('/');
    if (at == std::string::npos) return std::nullopt;
    MediaShare target;
    target.volume = next_component(line, at);
    target.share = next_component(line, at);
    remove_char(target.share, '\n');
    if (target.volume.empty() || target.share.empty()) return std::nullopt;
    return target;
}

BackupJob sd_card_job(const std::string &card, const MediaShare &target) {
    std::array<char, kNameSize> name{};
    BackupJob job;
    job.job_id = 0;
    job.name = str_snprintf(name.data(), name.size(), "SD_to_%s", target.share.c_str());
    job.enabled = "1";
    job.sch_every = "24";
    job.sch_start = "0";
    job.sch_end = "23";
    job.sch_dow = "127";
    job.src_type = "share";
    job.src_share_proto = card;
    job.src_share_vol = "media";
    job.src_path = "";
    job.src_login = "";
    job.src_password = "";
    job.src_port = "0";
    job.dst_type = "share";
    job.dst_share_proto = target.share;
    job.dst_share_vol = target.volume;
    job.dst_path = card;
    job.dst_login = "";
    job.dst_password = "";
    job.dst_port = "0";
    job.opt_full_backup_freq = "FIRST_TIME";
    job.opt_remove_previous_backup = "0";
    job.opt_chown_to_share_owner = "0";
    job.opt_rsync_options = "0";
    job.opt_email_this_to_alert_email = "0";
    job.opt_rsync_exclude = "";
    job.opt_misc_option = "0";
    job.opt_max_log_lines = "1000";
    job.wol_addr = "";
    return job;
}

void sd_card_run(std::int32_t job_id) {
    const std::optional<std::string> card = first_in_file<kStorageLine>(paths::usb_storage_table, sd_card_in);
    if (!card) return;
    const std::int32_t found_time = wall_clock();
    backup_status_write(job_id, BackupStatusCode::in_progress, stamp(found_time), 0);

    const auto target = first_in_file<kMediaServerLine>(paths::media_server_file, media_share_in);
    if (!target) return report_no_target(job_id, found_time);

    const std::int32_t start_time = wall_clock();
    const bool failed = copy_card(sd_card_job(*card, *target), start_time) != 0;
    // Kept: the end is told twice, under the start of the copy and then under the moment the card was found.
    const BackupStatusCode end = failed ? BackupStatusCode::failed : BackupStatusCode::completed;
    backup_status_write(job_id, end, stamp(start_time), 0);
    backup_status_write(job_id, end, stamp(found_time), 0);
    event_button_summary(failed ? 1 : 0);
}

} // namespace tsbackup
