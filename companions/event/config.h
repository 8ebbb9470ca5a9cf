// The receiver's configuration.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

/// One "key = value" a line; empty lines and lines that begin with "#" are left out.
struct EventConfig {
    std::vector<std::string> command;          ///< "command" (a path) and each "argument"; empty: none
    std::chrono::seconds timeout{60};          ///< "timeout": how long the command may take for one event
    bool eject = true;                         ///< "eject = yes|no": whether requests to eject a disk are carried out
    std::chrono::seconds eject_patience{3600}; ///< "eject-wait": how long to wait for the processes that hold the disk
};

/// What is wrong with a configuration.
struct ConfigFault {
    int line = 0;
    std::string reason;
};

/// Reads a configuration's text over the defaults; the first fault, or nothing when all is well.
std::optional<ConfigFault> config_read(const std::string &text, EventConfig &config);

} // namespace tsbackup
