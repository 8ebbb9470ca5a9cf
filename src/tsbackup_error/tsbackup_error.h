// The aborted flag and the transfer trace. The diagnostic log and the error record of this unit are declared in
// tsbackup/log.h.

#pragma once

namespace tsbackup {

/// Marks the job of this process as aborted. Async-signal-safe; called by the hang-up handler.
void backup_abort_request();

/// Whether the job of this process was aborted; long loops test it to stop early.
bool backup_aborted();

/// Whether the transfer libraries are to show their own trace; off at start.
void transfer_trace_set(bool wanted);
bool transfer_trace();

} // namespace tsbackup
