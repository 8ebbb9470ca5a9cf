#include "handler.h"

#include "tell.h"
#include "tsbackup/log.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tsbackup {

namespace {

constexpr std::size_t kMostWaiting = 1000;
constexpr std::chrono::seconds kGrace{5}; ///< between the request to end and the end by force

/// A file in memory with this content: a command that reads nothing holds nobody up.
UniqueFd input_of(const std::string &text) {
    UniqueFd file(memfd_create("event", MFD_CLOEXEC));
    std::size_t done = 0;
    while (file && done < text.size()) {
        const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
        if (written <= 0) return UniqueFd();
        done += static_cast<std::size_t>(written);
    }
    if (file) lseek(file.get(), 0, SEEK_SET);
    return file;
}

bool is_readable(int descriptor) {
    pollfd source{descriptor, POLLIN, 0};
    return poll(&source, 1, 0) > 0;
}

} // namespace

void Handler::add(Event event) {
    if (config_.command.empty()) return;
    if (waiting_.size() >= kMostWaiting) {
        tell(LOG_WARNING, "%s is too slow: an event was not handed over", config_.command.front().c_str());
        return;
    }
    waiting_.push_back(std::move(event));
    work();
}

void Handler::work() {
    if (running_ && is_readable(running_->ended.get())) collect();
    if (running_) enforce_deadline();
    while (!running_ && !waiting_.empty()) {
        start(waiting_.front());
        waiting_.pop_front();
    }
}

void Handler::start(const Event &event) {
    const UniqueFd input = input_of(event.message);
    const ChildSetup setup{config_.command,
                           {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "ZELKOVA_KIND=" + event.kind,
                            "ZELKOVA_SOURCE=" + event.source, "ZELKOVA_NUMBERS=" + event.numbers},
                           input.get()};
    if (input) running_ = child_start(setup);
    if (!running_) {
        tell(LOG_ERR, "cannot start %s: %s", config_.command.front().c_str(), error_text(errno).c_str());
        return;
    }
    child_release(*running_);
    deadline_ = Clock::now() + config_.timeout;
    asked_to_end_ = false;
}

void Handler::collect() {
    const int status = child_collect(*running_);
    if (status != 0) tell(LOG_WARNING, "%s %s", config_.command.front().c_str(), child_end_text(status).c_str());
    running_.reset();
}

void Handler::enforce_deadline() {
    if (Clock::now() < *deadline_) return;
    if (!asked_to_end_)
        tell(LOG_WARNING, "%s takes more than %lld s and is ended", config_.command.front().c_str(),
             static_cast<long long>(config_.timeout.count()));
    killpg(running_->identity.pid, asked_to_end_ ? SIGKILL : SIGTERM);
    asked_to_end_ = true;
    deadline_ = Clock::now() + kGrace;
}

} // namespace tsbackup
