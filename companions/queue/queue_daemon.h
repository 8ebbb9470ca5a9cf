// The daemon: one task at a time, in the order asked.

#pragma once

#include "queue_kind.h"
#include "queue_pipe.h"
#include "record_reader.h"
#include "state_file.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

struct QueueSettings {
    std::string worker;     ///< path of the program that is started for each task
    std::string state_file; ///< where the queue is kept
};

class QueueDaemon {
  public:
    QueueDaemon(const QueueKind &kind, QueueSettings settings, QueuePipe pipe);

    /// Takes up the state that an earlier daemon has left: what waited waits on, a worker that still runs is waited
    /// for, and a task whose worker never came to run it is first in the line.
    void restore();

    /// Serves until `end_requests` becomes readable. A worker that runs then goes on; the next daemon waits for it.
    /// False when it cannot go on.
    bool serve(int end_requests);

  private:
    struct Running {
        std::string task;
        Child worker;
        bool hung_up = false;
    };

    void take_requests();
    void apply(const Request &request);
    void enqueue(const std::string &task);
    void dequeue(const std::string &task);
    void announce();
    void start_next();
    bool start(const std::string &task);
    void end_running();
    void save();
    void show();
    std::vector<std::string>::iterator find_waiting(const std::string &task);
    bool is_running(const std::string &task) const;
    int patience() const;

    const QueueKind &kind_;
    QueueSettings settings_;
    QueuePipe pipe_;
    RecordReader reader_;
    std::vector<std::string> waiting_;
    std::vector<std::string> unannounced_; ///< waiting since the last look into the pipe
    std::optional<Running> running_;
    std::optional<std::chrono::steady_clock::time_point> retry_at_; ///< no worker can be started before
    bool save_failed_ = false;
    std::string shown_; ///< what the service manager was told last
};

} // namespace tsbackup
