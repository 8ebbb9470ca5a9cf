#include "aftermath.h"

#include "appliance_support.h"
#include "job_runs.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

std::set<pid_t> all_processes() {
    std::set<pid_t> processes;
    for (const std::string &name : list_folder("/proc")) {
        char *end = nullptr;
        const long pid = std::strtol(name.c_str(), &end, 10);
        if (*end == '\0' && pid > 0) processes.insert(static_cast<pid_t>(pid));
    }
    return processes;
}

/// The processes that are none of `known` and no kernel helper; the first one's command in `example`.
bool has_others(const std::set<pid_t> &known, std::string &example) {
    for (const pid_t pid : all_processes()) {
        if (known.contains(pid)) continue;
        std::string command = read_file("/proc/" + std::to_string(pid) + "/cmdline");
        std::replace(command.begin(), command.end(), '\0', ' ');
        if (command.empty()) continue;
        example = command;
        return true;
    }
    return false;
}

/// Snapshots of jobs on every volume, and what backends make for the time of a job.
std::set<std::string> left_overs() {
    const std::vector<std::string> of_jobs = snapshots();
    std::set<std::string> found(of_jobs.begin(), of_jobs.end());
    for (const std::string &name : list_folder("/"))
        if (name.starts_with("job_")) found.insert("/" + name);
    for (const char *folder : {"/tmp", "/apps/.backup"})
        if (file_exists(folder))
            for (const std::string &name : list_folder(folder))
                found.insert(std::string(folder) + "/" + name);
    for (const std::string &name : list_folder("/var/log/tessera/backup"))
        if (name.ends_with(".log.4")) found.insert(name);
    return found;
}

} // namespace

int run_command(const std::vector<std::string> &words) {
    std::vector<std::string> copies = words;
    std::vector<char *> argv;
    argv.reserve(copies.size() + 1);
    for (std::string &word : copies)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv.front(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + words.front() + ": " + std::strerror(error));

    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string state_of(int job_id) {
    constexpr char kPrefix[] = "BACKUP_STATUS__";
    const std::string content = read_file(status_path(job_id));
    if (!content.starts_with(kPrefix)) return {};
    const std::size_t start = std::strlen(kPrefix);
    return content.substr(start, content.find_first_of(",!", start) - start);
}

std::vector<std::string> malformed_error_lines(int job_id) {
    static const std::regex wanted(
        "(Cannot read file|Cannot write file|Cannot create file|Failed to copy file|Failed to get status of file|"
        "Failed to allocate space for file|Cannot get filesystem statistics of file) '[^\n]+' \\(error: [^\n]+\\)!|"
        "Cannot create directory [^\n]+!|Skip to copy '[^\n]+' because it is not a regular file!");
    std::vector<std::string> malformed;
    const std::string content = read_file(error_log_path(job_id));
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);)
        if (!std::regex_match(line, wanted)) malformed.push_back(line);
    if (!content.empty() && content.back() != '\n') malformed.emplace_back("(no line end at the end)");
    return malformed;
}

std::size_t count_of(const std::string &text, const std::string &searched) {
    std::size_t count = 0;
    for (std::size_t at = text.find(searched); at != std::string::npos; at = text.find(searched, at + searched.size()))
        ++count;
    return count;
}

std::string plain_diagnostics(const std::string &text, const std::string &volume, const std::string &share) {
    std::string plain;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::size_t level = text.find(" (", at);
        const std::size_t start = level < end ? level + 1 : at;
        plain.append(text, start, end - start);
        at = end;
    }
    const std::string snapshot = "/" + volume + "/._share/" + share + "/.snapshot/b_";
    for (std::size_t start = 0; (start = plain.find(snapshot)) != std::string::npos;) {
        const std::size_t end = plain.find_first_not_of("0123456789_", start + snapshot.size());
        plain.replace(start, end - start, "SNAPSHOT");
    }
    return plain;
}

Baseline::Baseline() : processes_(all_processes()), mounts_(read_file("/proc/self/mounts")), files_(left_overs()) {}

testing::AssertionResult Baseline::restored() const {
    std::string example;
    if (!wait_until([&] { return !has_others(processes_, example); }))
        return testing::AssertionFailure() << "a process is left: " << example;
    if (read_file("/proc/self/mounts") != mounts_)
        return testing::AssertionFailure() << "the mounts are\n"
                                           << read_file("/proc/self/mounts") << "and were\n"
                                           << mounts_;
    std::set<std::string> found = left_overs();
    std::erase_if(found, [this](const std::string &path) { return files_.contains(path); });
    if (found.empty()) return testing::AssertionSuccess();
    testing::AssertionResult result = testing::AssertionFailure() << "left behind:";
    for (const std::string &path : found)
        result << ' ' << path;
    return result;
}

} // namespace tsbackup::test
