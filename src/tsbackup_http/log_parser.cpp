#include "log_parser.h"

#include "tsbackup/codes.h"
#include "tsbackup/log.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace tsbackup {

namespace {

/// What stands before a URL's path: the scheme, nothing between its two slashes, and the host.
constexpr int kUrlStart = 3;

using Line = std::array<char, paths::buffer_size>;

bool contains(const char *line, const char *text) { return std::strstr(line, text) != nullptr; }

/// Takes the counter off that wget puts behind a file's name, and the quotation marks around it. False without one.
bool trim_target(std::string &target) {
    const std::size_t blank = target.rfind(' ');
    if (blank == std::string::npos || blank == 0) return false;
    target.resize(blank);
    if (target.size() > 1 && target.front() == '"' && target.back() == '"') target = target.substr(1, blank - 2);
    return true;
}

/// The part of a URL behind its first components, null when it has no more of them.
const char *skip_components(const char *url, int components) {
    for (; components > 0 && url != nullptr; --components) {
        url = std::strchr(url, '/');
        if (url != nullptr) ++url;
    }
    return url;
}

/// Records a failure that a line tells of.
void judge_line(const char *line, BackupRun &run, std::FILE *error_log) {
    if (contains(line, "No space left"))
        TSBACKUP_ERROR_SET(error_code::destination_full, &run, "%s", line);
    else if (contains(line, "Permission denied"))
        TSBACKUP_ERROR_SET(error_code::login_refused, &run, "%s", line);
    else
        return;
    std::fputs(line, error_log);
}

void parse(BackupRun &run, std::FILE *log, std::FILE *parsed, std::FILE *error_log, int components) {
    Line line{};
    bool after_robots = false; // a site without that file is no failure
    while (std::fgets(line.data(), line.size(), log) != nullptr) {
        judge_line(line.data(), run, error_log);
        if (std::exchange(after_robots, false) && contains(line.data(), "404: Not Found")) continue;
        if (contains(line.data(), "robots.txt")) {
            after_robots = true;
            continue;
        }
        if (const auto entry = wget_log_entry(line.data(), components)) std::fputs(entry->c_str(), parsed);
    }
}

/// Closes a stream; whether all that was written to it has arrived.
bool close_whole(UniqueFile &file) {
    const bool failed = std::ferror(file.get()) != 0;
    return std::fclose(file.release()) == 0 && !failed;
}

} // namespace

std::optional<std::string> wget_log_entry(const char *line, int components) {
    std::array<char, 1024> url{};
    std::array<char, 1024> target{};
    if (std::sscanf(line, "%*s %*s URL:%1023s [%*[0-9/]] -> %1023[^\n]", url.data(), target.data()) != 2)
        return std::nullopt;
    const char *remainder = skip_components(url.data(), components);
    std::string file = target.data();
    if (remainder == nullptr || !trim_target(file)) return std::nullopt;
    std::string source = remainder;
    return str_printf("%s --> %s\n", url_unescape(source).c_str(), file.c_str());
}

void http_parse_log(BackupRun &run, std::int32_t status, int cut_dirs) {
    const std::string path = paths::copy_log(run.job_id);
    const std::string parsed_path = path + "." + std::to_string(getpid());
    const std::string error_log_path = paths::error_log(run.job_id);
    UniqueFile log(std::fopen(path.c_str(), "re"));
    UniqueFile parsed(log ? std::fopen(parsed_path.c_str(), "we") : nullptr);
    UniqueFile error_log(log ? std::fopen(error_log_path.c_str(), "we") : nullptr);
    const bool error_log_opened = static_cast<bool>(error_log);

    if (parsed && error_log) {
        parse(run, log.get(), parsed.get(), error_log.get(), cut_dirs + kUrlStart);
        if (status != 0) TSBACKUP_ERROR_SET(error_code::copy_failed, &run, "'wget' command returns rc=%d", status);
    }
    // A list that could not be written whole does not replace the log that was.
    const bool whole = parsed && error_log && close_whole(parsed);
    if (whole) {
        unlink(path.c_str());
        std::rename(parsed_path.c_str(), path.c_str());
    } else if (log) {
        unlink(parsed_path.c_str());
    }
    // Kept as it is: after a success the lines that told of a failure are known from the error record alone.
    if (status == 0 && error_log_opened) unlink(error_log_path.c_str());
}

} // namespace tsbackup
