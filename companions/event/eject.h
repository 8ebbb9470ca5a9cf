// Giving USB disks back.

#pragma once

#include "config.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tsbackup {

/// Unmounts disks so that they can be unplugged, each once no process holds it any more. Only disks below "/media" are
/// touched.
class Ejects {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Ejects(const EventConfig &config) : config_(config) {}

    /// Asks for a disk, by the kernel's name.
    void add(const std::string &device);

    /// When `work` has to be called; nothing: no disk is waited for.
    std::optional<Clock::time_point> deadline() const;
    /// Ejects what can be ejected now, and gives up what has been held too long.
    void work();

  private:
    struct Pending {
        std::string device;
        Clock::time_point give_up;
        std::string reason; ///< why not yet; told once
    };

    const EventConfig &config_;
    std::vector<Pending> pending_;
    Clock::time_point next_look_;
};

} // namespace tsbackup
