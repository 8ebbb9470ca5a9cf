// Programs that a daemon starts.

#pragma once

#include "tsbackup/owners.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

/// What tells a process from every other one, also from a later one with the same number.
struct ProcessIdentity {
    std::string boot; ///< the kernel's id of this start of the machine
    pid_t pid = 0;
    std::string start; ///< in the kernel's ticks

    bool operator==(const ProcessIdentity &) const = default;
};

/// The identity of a living process; a `start` that is empty when there is no such process, or it is a zombie.
ProcessIdentity process_identity(pid_t pid);

/// A program that was started, or one of an earlier daemon that is still running.
struct Child {
    ProcessIdentity identity;
    UniqueFd ended;       ///< becomes readable when the process has ended
    UniqueFd go;          ///< while it is open, a program that was started holds still
    bool is_ours = false; ///< its exit status can be collected
};

struct ChildSetup {
    std::vector<std::string> arguments; ///< the first one is the program's path; it is not searched for
    std::vector<std::string> environment;
    int standard_input = -1; ///< -1: nothing to read
};

/// Starts a program as the leader of a process group of its own, with the standard streams and no other descriptor,
/// and with no signal blocked or ignored. It does nothing before `child_release`: when this process dies first, the
/// program is never run. Nothing, with `errno` set, when no process can be made. A program that cannot be executed
/// ends with 127.
std::optional<Child> child_start(const ChildSetup &setup);

/// Lets a program run that was started.
void child_release(Child &child);

/// Takes over the process with this identity; nothing when it has ended.
std::optional<Child> child_adopt(const ProcessIdentity &identity);

/// Collects a child that has ended. Its exit status, 128 + N after signal N, -1 when that is not known.
int child_collect(const Child &child);

/// How a program ended, for a message: "ended with status 3", "was ended by signal 9".
std::string child_end_text(int status);

} // namespace tsbackup
