// What every daemon needs of its process and of the service manager.

#pragma once

#include "tsbackup/owners.h"

#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

/// Makes sure that the standard streams are open, so that nothing else takes their numbers, and that a reader that goes
/// away ends no daemon.
void service_prepare();

/// A descriptor that becomes readable when the process is asked to end (SIGTERM, SIGINT), which no longer ends it by
/// itself; invalid after a failure.
UniqueFd service_end_requests();

/// The one descriptor that the service manager hands over. `none`: there is none. More than one is refused.
enum class Inherited { none, one, several };
struct InheritedDescriptor {
    Inherited count = Inherited::none;
    UniqueFd descriptor;
};
InheritedDescriptor service_inherited();

/// Tells the service manager that the daemon is ready, what it is doing, and that it ends. Nothing without one.
void service_ready();
void service_status(const std::string &text);
void service_stopping();

/// The process's environment without what the service manager says to this process alone.
std::vector<std::string> service_child_environment();

} // namespace tsbackup
