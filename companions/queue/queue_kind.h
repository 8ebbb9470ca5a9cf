// What differs between the queue of backup jobs and that of camera imports.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

struct Request {
    bool enqueue = false; ///< false: dequeue
    std::string task;
};

/// What became of a worker.
enum class WorkerEnd {
    regular, ///< exit status 0
    crashed, ///< any other, or a signal
    unknown, ///< it was an earlier daemon's, or ended while there was none
    dropped, ///< this daemon hung it up, since its task was taken out of the queue before it had claimed it
};

struct QueueKind {
    const char *name; ///< of one task, for messages: "job"
    const char *pipe;
    const char *state_file;

    /// The request in a record's text; nothing when it is none.
    std::optional<Request> (*parse)(std::string_view text);
    /// The tasks that a request asks for, in their order.
    std::vector<std::string> (*tasks_of)(const std::string &task);
    /// Whether the task is the last of its request and waits behind the others, however long it has been waiting.
    bool (*is_last)(const std::string &task);
    /// What is in the queue once: a later request for the same key takes the earlier one's place.
    std::string (*key)(const std::string &task);
    /// The worker's arguments.
    std::vector<std::string> (*arguments)(const std::string &task);

    /// A task waits now and no worker of this queue is at it.
    void (*waits)(const std::string &task);
    /// A task was taken out before it was its turn.
    void (*taken_out)(const std::string &task);
    /// Whether a task that is taken out while its worker runs has to be ended by this daemon.
    bool (*must_hang_up)(const std::string &task);
    /// A task's worker has ended.
    void (*ended)(const std::string &task, WorkerEnd end);
    /// Whether a worker that is gone had begun with its task.
    bool (*had_begun)(const std::string &task, pid_t worker);
};

/// Backup jobs: "enqueue:N" and "dequeue:N". Job 0 stands for the button's jobs and their summary behind them.
const QueueKind &job_queue();

/// Camera imports: "enqueue:KIND:BUS:DEVICE:NAME".
const QueueKind &camera_queue();

} // namespace tsbackup
