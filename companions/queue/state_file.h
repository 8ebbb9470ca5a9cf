// What a queue knows, on disk.

#pragma once

#include "child.h"

#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

/// A task is the text that names it in the state file and in messages: a job's number, or a camera's "kind:bus:device:
/// name".
struct RunningTask {
    std::string task;
    ProcessIdentity worker;
};

struct QueueState {
    std::vector<std::string> waiting; ///< the next one first
    std::optional<RunningTask> running;
};

/// The state that was saved last. Lines of no known form are left out, and told; a file that is not there is an empty
/// state.
QueueState state_load(const std::string &path);

/// Replaces the file: whatever happens, the old or the new state is on disk, whole. False, with `errno` set, when it
/// cannot be written; then the old one stays.
bool state_save(const std::string &path, const QueueState &state);

} // namespace tsbackup
