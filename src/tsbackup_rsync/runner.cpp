#include "runner.h"

#include "command.h"
#include "output.h"
#include "staging.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup_error.h"
#include "tsbackup_local.h"
#include "tsbackup_rsync.h"
#include "tsbackup_utils.h"

#include <array>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace tsbackup {

namespace {

constexpr int kNiceness = 10;
constexpr int kAttempts = 2;
constexpr int kRunsPerAttempt = 2;
constexpr std::int32_t kRsyncStartFailed = 5; ///< rsync's exit code for a log-in or module that was refused
constexpr std::int32_t kRsyncProtocol = 12;   ///< and for a connection that was cut or could not be made by ssh

/// The rsync server of a job, taken apart.
struct Server {
    std::array<char, 64> host{};
    const char *path = nullptr; ///< null: the job names no server
    int remote_shell = 0;
    std::string login_prefix;
    std::string environment_entry;

    Server(const BackupJob &job, int as_source) {
        const RsyncEndpoint endpoint = rsync_endpoint(job, as_source);
        path = rsync_split_remote_path(text_or_empty(endpoint.path), host.data(), host.size(), &remote_shell);
        if (path == nullptr) return;
        if (*path == '/') ++path;
        rsync_login_and_password(endpoint, remote_shell, login_prefix, environment_entry);
        // An argument that begins like an option would be taken for one, and an option can name a program to run.
        if (argument().front() == '-') path = nullptr;
    }
    std::string argument() const { return login_prefix + host.data() + (remote_shell != 0 ? ":" : "::") + path; }
};

/// Runs one command line; a run that stays silent for too long is started once more.
std::int32_t run_with_retry(const char *caller, const Server &server, std::vector<std::string> &arguments,
                            BackupRun &run) {
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    // A daemon's transfer gets the password's entry and nothing else (an empty entry without a password), ssh no entry
    // at all: whatever this process was started with, rsync writes its output as it is read here.
    std::string entry = server.environment_entry;
    std::array<char *, 2> envp = {server.remote_shell != 0 ? nullptr : entry.data(), nullptr};

    std::int32_t result = 0;
    for (int left = kRunsPerAttempt; left > 0 && !backup_aborted(); --left) {
        result = _backup_execvp(argv[0], nullptr, nullptr, 0, argv.data(), envp.data(), &run, _parse_output);
        if (result != kExecCancelled) break;
        TSBACKUP_LOG(level::error, "%s rsync download failed, rtry %d.\n", caller, left);
    }
    return result;
}

std::vector<std::string> command_start() { return {"nice", "-n " + std::to_string(kNiceness), "rsync"}; }

// ---- download --------------------------------------------------------------------------------------------------

void record_download_failure(std::int32_t result, BackupRun &run) {
    error_log_line(run, "Failed to run rsync, return rc %d\n", result);
    TSBACKUP_ERROR_SET(result == kRsyncStartFailed ? error_code::tool_failed : error_code::copy_failed, &run,
                       "rsync returns rc=%d\n", result);
}

/// Makes up to two attempts. The final result, or nothing when the local disk is not there (that was reported).
std::optional<std::int32_t> download(const BackupJob &job, BackupRun &run, const Server &server,
                                     const std::string &destination) {
    std::int32_t result = 0;
    for (int attempt = 0; attempt < kAttempts && !backup_aborted(); ++attempt) {
        std::vector<std::string> arguments = command_start();
        if (rsync_build_options(job, run, 1, server.remote_shell, attempt, arguments) != 0) {
            error_log_line(run, "Invalid destination path %s\n", text_or_empty(job.dst_path));
            TSBACKUP_ERROR_SET(error_code::invalid_destination, &run, "Destination is not available path=%s\n",
                               text_or_empty(job.dst_path));
            return std::nullopt;
        }
        arguments.push_back(server.argument());
        arguments.push_back(destination);
        result = run_with_retry("backup_rsync_to_local", server, arguments, run);
        if (result == 0) break;
        if (attempt == kAttempts - 1 || backup_aborted()) {
            record_download_failure(result, run);
            break;
        }
    }
    return result;
}

// ---- upload ----------------------------------------------------------------------------------------------------

void record_upload_failure(std::int32_t result, BackupRun &run) {
    const std::int32_t code = result == kRsyncStartFailed ? error_code::tool_failed
                              : result == kRsyncProtocol  ? error_code::rsync_protocol
                                                          : error_code::copy_failed;
    TSBACKUP_ERROR_SET(code, &run, "rsync returns rc=%d\n", result);
    error_log_line(run, "Failed to run rsync, return rc %d\n", result);
}

std::int32_t upload(const BackupJob &job, BackupRun &run, const Server &server, const std::string &source) {
    std::int32_t result = 0;
    for (int attempt = 0; attempt < kAttempts && !backup_aborted(); ++attempt) {
        std::vector<std::string> arguments = command_start();
        result = rsync_build_options(job, run, 0, server.remote_shell, attempt, arguments);
        if (result != 0) break;
        arguments.push_back(source);
        arguments.push_back(server.argument() + "/");
        result = run_with_retry("backup_local_to_rsync", server, arguments, run);
        if (result == 0) break;
    }
    return result;
}

/// Uploads a resolved source, from a staging mount when it is a folder.
void upload_source(const BackupJob &job, BackupRun &run, const Server &server, const std::string &source,
                   bool is_folder) {
    std::optional<StagingMount> staging;
    std::string argument = source;
    if (is_folder && source.back() != '/') {
        staging.emplace(source, staging_name(job));
        argument = staging->path() + (job.src_type == "usb" ? "/" : "");
    }
    // An empty staging folder must never be taken for the source: with "--delete" the server would lose everything.
    std::int32_t result = staging && !staging->made() ? -1 : 0;
    if (result == 0 && !backup_aborted()) result = upload(job, run, server, argument);
    if (result != 0) record_upload_failure(result, run);
    rsync_finish_copy_log(run, result);
}

} // namespace

void backup_rsync_to_local(const BackupJob &job, BackupRun &run) {
    const Server server(job, 1);
    if (server.path == nullptr) {
        error_log_line(run, "Invalid path %s\n", text_or_empty(job.src_path));
        TSBACKUP_ERROR_SET(error_code::source_setup, &run, "Mulformed path=%s\n", text_or_empty(job.src_path));
        return;
    }
    const auto destination = local_path_resolve(job, run, Side::destination);
    if (!destination) return;
    const auto result = download(job, run, server, *destination);
    if (!result) return;
    rsync_finish_copy_log(run, *result);
    local_endpoint_release(job, run, *destination, Side::destination);
}

void backup_local_to_rsync(const BackupJob &job, BackupRun &run) {
    const auto source = local_path_resolve(job, run, Side::source);
    if (!source) return;
    struct stat status {};
    const bool found = stat(source->c_str(), &status) == 0;
    const Server server(job, 0);
    if (!found) {
        const char *share = text_or_empty(job.src_share_proto);
        const char *path = text_or_empty(job.src_path);
        error_log_line(run, "Source path /%s/%s does not exist!\n", share, path);
        TSBACKUP_ERROR_SET(error_code::path_missing, &run, "/%s/%s not exists", share, path);
    } else if (server.path == nullptr) {
        error_log_line(run, "Invalid path %s!\n", text_or_empty(job.dst_path));
        // Kept as it is: the message names the source's path although the destination's is at fault.
        TSBACKUP_ERROR_SET(error_code::not_available, &run, "Mulformed path=%s\n", text_or_empty(job.src_path));
    } else {
        upload_source(job, run, server, *source, S_ISDIR(status.st_mode));
    }
    local_endpoint_release(job, run, *source, Side::source);
}

} // namespace tsbackup
