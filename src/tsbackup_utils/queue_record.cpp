// Records for the queue daemons' pipes.

#include "tsbackup_utils.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace tsbackup {

namespace {

/// A daemon that goes away while a sender waits is a failed write like any other, not the sender's end.
class BrokenPipeIgnored {
  public:
    BrokenPipeIgnored() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &saved_);
    }
    ~BrokenPipeIgnored() { sigaction(SIGPIPE, &saved_, nullptr); }
    BrokenPipeIgnored(const BrokenPipeIgnored &) = delete;
    BrokenPipeIgnored &operator=(const BrokenPipeIgnored &) = delete;

  private:
    struct sigaction saved_ {};
};

void log_open_failure(const QueueSender &sender, int error) {
    // Both senders name the job queue's daemon.
    if (error == ENXIO)
        diagnostic_log(sender.unit, __LINE__, level::error, "Cannot open %s, because tsbackup-q is not running\n",
                       sender.pipe);
    else
        diagnostic_log(sender.unit, __LINE__, level::error, "Cannot open %s. errno=%d\n", sender.pipe, error);
}

void log_write_failure(const QueueSender &sender, int error) {
    if (sender.names_pipe_in_write_errors)
        diagnostic_log(sender.unit, __LINE__, level::error, "write() %s failed. errno=%d\n", sender.pipe, error);
    else
        diagnostic_log(sender.unit, __LINE__, level::error, "write() failed. errno=%d\n", error);
}

/// 0, or the error number of the write that failed.
int write_record(const QueueSender &sender, int pipe, const char (&record)[kQueueRecordSize], int length) {
    const BrokenPipeIgnored guard;
    while (length > 0) {
        const ssize_t written = write(pipe, record, kQueueRecordSize);
        if (written == static_cast<ssize_t>(kQueueRecordSize)) return 0;
        if (written > 0) {
            // Kept as it is: a record that was cut short is sent again from its first byte, as often as text remains.
            length -= static_cast<int>(written);
        } else if (errno == EAGAIN) {
            sleep(1);
        } else {
            const int error = errno;
            log_write_failure(sender, error);
            return error;
        }
    }
    return 0;
}

} // namespace

int queue_record_send(const QueueSender &sender, const char (&record)[kQueueRecordSize], int length) {
    const UniqueFd pipe(open(sender.pipe, O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC));
    if (!pipe) {
        log_open_failure(sender, errno);
        return -1;
    }

    // Without the lock the record still goes out whole: it is smaller than what a pipe takes in one piece.
    if (lockf(pipe.get(), F_LOCK, 0) != 0)
        diagnostic_log(sender.unit, __LINE__, level::error, "lockf(F_LOCK) failed. errno=%d\n", errno);
    const int error = write_record(sender, pipe.get(), record, length);
    if (lockf(pipe.get(), F_ULOCK, 0) != 0)
        diagnostic_log(sender.unit, __LINE__, level::error, "lockf(F_ULOCK) failed. errno=%d\n", errno);
    if (error == 0) return 0;
    errno = error;
    return -1;
}

} // namespace tsbackup
