// The aborted flag and the transfer trace. The diagnostic log and the error record of this unit are declared in
// tsbackup/log.h.

#pragma once

namespace tsbackup {

/// Marks the job of this process as aborted and sees to what must not outlive it. Async-signal-safe; called by the
/// hang-up handler.
void backup_abort_request();

/// Whether the job of this process was aborted; long loops test it to stop early.
bool backup_aborted();

/// Has an abort remove a file; null: nothing any more. The text stays the caller's and must live as long.
void backup_abort_removes(const char *path);

/// Whether an abort ends the processes that this one has started with SIGTERM: those that take a hang-up for something
/// else. Only when this process leads a process group, which they are in. Off at start.
void backup_abort_ends_group(bool wanted);

/// Whether the transfer libraries are to show their own trace; off at start.
void transfer_trace_set(bool wanted);
bool transfer_trace();

} // namespace tsbackup
