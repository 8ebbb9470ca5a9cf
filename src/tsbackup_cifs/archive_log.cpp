#include "archive_log.h"

#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace tsbackup {

namespace {

bool contains(std::string_view line, std::string_view text) { return line.find(text) != std::string_view::npos; }

/// Takes `start` off the line's start; whether it was there.
bool take_start(std::string_view &line, std::string_view start) {
    if (!line.starts_with(start)) return false;
    line.remove_prefix(start.size());
    return true;
}

std::int32_t connection_error(std::string_view line) {
    std::string_view rest = line;
    take_start(rest, "do_connect: "); // as newer clients begin it
    if (take_start(rest, "Connection to") && contains(rest, "failed")) return error_code::source_setup;
    if (contains(line, "No space left")) return error_code::destination_full;
    return 0;
}

/// Whether a line tells of a status of the server: by itself, or as newer clients do before there is a session.
bool tells_status(std::string_view line) {
    return line.starts_with("NT_") || line.starts_with("session setup failed: NT_STATUS_") ||
           line.starts_with("tree connect failed: NT_STATUS_");
}

std::int32_t status_error(std::string_view line) {
    constexpr std::string_view kRefusals[] = {"NT_STATUS_LOGON_FAILURE", "NT_STATUS_WRONG_PASSWORD",
                                              "NT_STATUS_ACCESS_DENIED"};
    if (tells_status(line)) {
        const bool refused = std::any_of(std::begin(kRefusals), std::end(kRefusals),
                                         [line](std::string_view status) { return contains(line, status); });
        return refused ? error_code::login_refused : error_code::cifs_other;
    }
    return line.starts_with("Error reading file") ? error_code::copy_failed : 0;
}

void record(std::int32_t code, const char *line, BackupRun &run) {
    if (code == 0) return;
    TSBACKUP_ERROR_SET(code, &run, "%s", line);
    error_log_line(run, "%s", line);
}

/// Goes through the output and writes the list, unless there is no place for it.
void parse(BackupRun &run, std::FILE *log, std::FILE *parsed) {
    std::array<char, paths::buffer_size> text{};
    std::uint64_t entries = 0;
    while (std::fgets(text.data(), text.size(), log) != nullptr) {
        const ArchiveLine line = archive_line(text.data());
        record(line.connection_error, text.data(), run);
        record(line.status_error, text.data(), run);
        if (line.extracted) ++entries;
        if (parsed != nullptr) std::fputs(line.kept.c_str(), parsed);
    }
    if (parsed != nullptr) std::fputs(archive_summary(entries).c_str(), parsed);
}

} // namespace

ArchiveLine archive_line(const std::string &line) {
    ArchiveLine told;
    told.connection_error = connection_error(line);
    told.status_error = status_error(line);
    std::string_view rest = line;
    if (take_start(rest, "tar: dumped ")) {
        told.kept = "\nCopied " + std::string(rest);
    } else if (line.starts_with(".")) {
        told.kept = line;
        told.extracted = true;
    }
    return told;
}

std::string archive_summary(std::uint64_t entries) {
    if (entries == 0) return "";
    // Kept as it is: files and folders are counted together, and the words are those that people know.
    const bool many = entries > 1;
    return "\nCopied " + std::to_string(entries) + " file" + (many ? "s" : "") + " and " +
           (many ? "directories" : "directory") + "\n";
}

void cifsab_parse_log(BackupRun &run, std::int32_t status) {
    const std::string path = paths::copy_log(run.job_id);
    const std::string parsed_path = path + "." + std::to_string(getpid());
    UniqueFile log(std::fopen(path.c_str(), "re"));
    if (!log) return;
    UniqueFile parsed(std::fopen(parsed_path.c_str(), "we"));
    parse(run, log.get(), parsed.get());
    // Kept as it is: the message names another command than those that ran.
    if (status != 0) TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "'cp' command returns rc=%d", status);
    if (!parsed) return;

    // A list that could not be written whole does not replace the output that was.
    const bool failed = std::ferror(parsed.get()) != 0;
    if (std::fclose(parsed.release()) != 0 || failed) {
        unlink(parsed_path.c_str());
        return;
    }
    unlink(path.c_str());
    std::rename(parsed_path.c_str(), path.c_str());
}

} // namespace tsbackup
