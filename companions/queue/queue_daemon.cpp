#include "queue_daemon.h"

#include "service.h"
#include "tell.h"
#include "tsbackup/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace tsbackup {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kRetryPause = std::chrono::seconds(5);

} // namespace

QueueDaemon::QueueDaemon(const QueueKind &kind, QueueSettings settings, QueuePipe pipe)
    : kind_(kind), settings_(std::move(settings)), pipe_(std::move(pipe)), reader_([](const std::string &bytes) {
          constexpr std::size_t kShown = 100;
          tell(LOG_WARNING, "dropped %zu bytes that are no request: \"%s\"", bytes.size(),
               bytes.substr(0, kShown).c_str());
      }) {}

void QueueDaemon::restore() {
    const auto is_task = [this](const std::string &task) {
        const std::optional<Request> request = kind_.parse("enqueue:" + task);
        return request && request->task == task;
    };
    QueueState state = state_load(settings_.state_file);
    std::erase_if(state.waiting, [&](const std::string &task) { return !is_task(task); });
    waiting_ = std::move(state.waiting);
    unannounced_ = waiting_;

    if (state.running && is_task(state.running->task)) {
        const std::string &task = state.running->task;
        if (std::optional<Child> worker = child_adopt(state.running->worker)) {
            tell(LOG_INFO, "%s %s still runs (process %d)", kind_.name, task.c_str(), worker->identity.pid);
            running_ = Running{task, std::move(*worker)};
        } else if (kind_.had_begun(task, state.running->worker.pid)) {
            tell(LOG_INFO, "%s %s has ended meanwhile", kind_.name, task.c_str());
            kind_.ended(task, WorkerEnd::unknown);
        } else if (find_waiting(task) == waiting_.end()) {
            waiting_.insert(waiting_.begin(), task);
            unannounced_.push_back(task);
        }
    }
    save();
    announce();
}

bool QueueDaemon::serve(int end_requests) {
    while (true) {
        start_next();
        show();
        // A descriptor of -1 is left out by poll().
        std::array<pollfd, 3> sources = {pollfd{end_requests, POLLIN, 0}, pollfd{pipe_.descriptor(), POLLIN, 0},
                                         pollfd{running_ ? running_->worker.ended.get() : -1, POLLIN, 0}};
        if (poll(sources.data(), sources.size(), patience()) < 0) {
            if (errno == EINTR) continue;
            tell(LOG_ERR, "poll failed: %s", error_text(errno).c_str());
            return false;
        }
        if (sources[0].revents != 0) break;
        if (sources[2].revents != 0) end_running();
        if (sources[1].revents != 0) take_requests();
    }
    if (running_) tell(LOG_INFO, "%s %s goes on by itself", kind_.name, running_->task.c_str());
    return true;
}

void QueueDaemon::take_requests() {
    const std::string bytes = pipe_.peek();
    reader_.add(bytes);
    while (const std::optional<std::string> text = reader_.next()) {
        if (const std::optional<Request> request = kind_.parse(*text))
            apply(*request);
        else
            tell(LOG_WARNING, "dropped a request that makes no sense: \"%s\"", text->c_str());
    }
    // Only what is safe on disk leaves the pipe, and nothing is started before: a request that a killed daemon had
    // half taken in is found in the pipe once more, and taking it in again changes nothing.
    save();
    pipe_.consume(bytes.size());
    announce();
}

void QueueDaemon::apply(const Request &request) {
    if (!request.enqueue) return dequeue(request.task);
    for (const std::string &task : kind_.tasks_of(request.task))
        enqueue(task);
}

void QueueDaemon::enqueue(const std::string &task) {
    const auto place = find_waiting(task);
    if (place == waiting_.end()) {
        waiting_.push_back(task);
        unannounced_.push_back(task);
    } else if (kind_.is_last(task)) {
        std::rotate(place, place + 1, waiting_.end());
    } else {
        *place = task;
    }
}

void QueueDaemon::dequeue(const std::string &task) {
    const auto place = find_waiting(task);
    if (place != waiting_.end()) {
        waiting_.erase(place);
        tell(LOG_INFO, "%s %s taken out of the queue", kind_.name, task.c_str());
        if (!is_running(task)) kind_.taken_out(task);
    }
    if (is_running(task) && kind_.must_hang_up(task)) {
        tell(LOG_INFO, "%s %s taken out of the queue as it began", kind_.name, task.c_str());
        running_->hung_up = true;
        killpg(running_->worker.identity.pid, SIGHUP);
    }
}

/// Shows what has begun to wait, unless it was taken out again. A task that runs shows that it does.
void QueueDaemon::announce() {
    for (const std::string &task : unannounced_)
        if (find_waiting(task) != waiting_.end() && !is_running(task)) kind_.waits(task);
    unannounced_.clear();
}

void QueueDaemon::start_next() {
    if (running_ || waiting_.empty()) return;
    if (retry_at_ && steady_clock::now() < *retry_at_) return;
    const bool is_first_try = !retry_at_;
    retry_at_.reset();
    if (start(waiting_.front())) return;
    if (is_first_try) tell(LOG_ERR, "cannot start %s: %s", settings_.worker.c_str(), error_text(errno).c_str());
    retry_at_ = steady_clock::now() + kRetryPause;
}

bool QueueDaemon::start(const std::string &task) {
    if (access(settings_.worker.c_str(), X_OK) != 0) return false;
    ChildSetup setup{{settings_.worker}, service_child_environment()};
    for (const std::string &argument : kind_.arguments(task))
        setup.arguments.push_back(argument);
    std::optional<Child> worker = child_start(setup);
    if (!worker) return false;

    // The worker holds still until the disk says that it has the task: a daemon that is killed here neither forgets
    // the task nor runs it twice.
    running_ = Running{task, std::move(*worker)};
    waiting_.erase(waiting_.begin());
    save();
    tell(LOG_INFO, "%s %s runs (process %d)", kind_.name, running_->task.c_str(), running_->worker.identity.pid);
    child_release(running_->worker);
    return true;
}

void QueueDaemon::end_running() {
    const Running ended = std::move(*running_);
    running_.reset();
    const int status = child_collect(ended.worker);
    tell(status > 0 ? LOG_WARNING : LOG_INFO, "%s %s %s", kind_.name, ended.task.c_str(),
         child_end_text(status).c_str());
    kind_.ended(ended.task, ended.hung_up ? WorkerEnd::dropped
                            : status < 0  ? WorkerEnd::unknown
                            : status == 0 ? WorkerEnd::regular
                                          : WorkerEnd::crashed);
    save();
    if (find_waiting(ended.task) != waiting_.end()) kind_.waits(ended.task);
}

void QueueDaemon::save() {
    QueueState state{waiting_, std::nullopt};
    if (running_) state.running = RunningTask{running_->task, running_->worker.identity};
    const bool failed = !state_save(settings_.state_file, state);
    if (failed && !save_failed_)
        tell(LOG_ERR, "cannot write %s: %s; a restart would forget the queue", settings_.state_file.c_str(),
             error_text(errno).c_str());
    save_failed_ = failed;
}

void QueueDaemon::show() {
    std::string text = running_ ? std::string(kind_.name) + " " + running_->task + " runs" : "idle";
    if (!waiting_.empty()) text += ", " + std::to_string(waiting_.size()) + " waiting";
    if (text != shown_) service_status(text);
    shown_ = text;
}

std::vector<std::string>::iterator QueueDaemon::find_waiting(const std::string &task) {
    return std::find_if(waiting_.begin(), waiting_.end(),
                        [&](const std::string &other) { return kind_.key(other) == kind_.key(task); });
}

bool QueueDaemon::is_running(const std::string &task) const {
    return running_ && kind_.key(running_->task) == kind_.key(task);
}

/// How long to wait for something to happen, in milliseconds; -1: as long as it takes.
int QueueDaemon::patience() const {
    if (running_ || waiting_.empty() || !retry_at_) return -1;
    const auto left = std::chrono::duration_cast<milliseconds>(*retry_at_ - steady_clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0)) + 1;
}

} // namespace tsbackup
