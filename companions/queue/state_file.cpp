#include "state_file.h"

#include "tell.h"
#include "tsbackup_utils.h"

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::string_view kWaiting = "waiting ";
constexpr std::string_view kRunning = "running ";

std::string text_of(const QueueState &state) {
    std::string text;
    if (state.running) {
        const ProcessIdentity &worker = state.running->worker;
        text += std::string(kRunning) + worker.boot + " " + std::to_string(worker.pid) + " " + worker.start + " " +
                state.running->task + "\n";
    }
    for (const std::string &task : state.waiting)
        text += std::string(kWaiting) + task + "\n";
    return text;
}

/// "BOOT PID START TASK"; a task may hold blanks.
std::optional<RunningTask> running_in(const std::string &text) {
    std::optional<std::string> rest = text;
    std::string words[3];
    for (std::string &word : words) {
        if (!rest) return std::nullopt;
        word = str_split_first(std::string(*rest), " ", rest);
    }
    const pid_t pid = decimal_value(words[1].c_str());
    if (!rest || pid <= 0) return std::nullopt;
    return RunningTask{*rest, {words[0], pid, words[2]}};
}

bool write_whole(int fd, const std::string &text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

/// Makes the new name itself last through a loss of power.
void sync_folder_of(const std::string &path) {
    const UniqueFd folder(open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) fsync(folder.get());
}

} // namespace

QueueState state_load(const std::string &path) {
    QueueState state;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(kWaiting) && line.size() > kWaiting.size())
            state.waiting.push_back(line.substr(kWaiting.size()));
        else if (line.starts_with(kRunning) && !state.running && running_in(line.substr(kRunning.size())))
            state.running = running_in(line.substr(kRunning.size()));
        else
            tell(LOG_WARNING, "%s: left out the line \"%s\"", path.c_str(), line.c_str());
    }
    return state;
}

bool state_save(const std::string &path, const QueueState &state) {
    const std::string scratch = path + ".new";
    UniqueFd file(open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file || !write_whole(file.get(), text_of(state)) || fsync(file.get()) != 0) return false;
    file.reset();
    if (std::rename(scratch.c_str(), path.c_str()) != 0) return false;
    sync_folder_of(path);
    return true;
}

} // namespace tsbackup
