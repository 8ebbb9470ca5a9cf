// The administrator's own command for events.

#pragma once

#include "child.h"
#include "config.h"
#include "event.h"

#include <chrono>
#include <deque>
#include <optional>

namespace tsbackup {

/// Runs the command once for each event, one at a time in their order. It gets the event's message on its standard
/// input and ZELKOVA_KIND, ZELKOVA_SOURCE and ZELKOVA_NUMBERS in its environment. One that takes too long is ended.
class Handler {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Handler(const EventConfig &config) : config_(config) {}

    /// Hands an event over, now or after those before it. Too many that wait are told and left out.
    void add(Event event);

    /// Becomes readable when the command has ended; -1 while none runs.
    int descriptor() const { return running_ ? running_->ended.get() : -1; }
    /// When `work` has to be called at the latest; nothing: whenever.
    std::optional<Clock::time_point> deadline() const { return running_ ? deadline_ : std::nullopt; }
    /// Collects a command that has ended, ends one that takes too long, starts the next.
    void work();

    /// How many events have not been handed over.
    std::size_t waiting() const { return waiting_.size(); }

  private:
    void start(const Event &event);
    void collect();
    void enforce_deadline();

    const EventConfig &config_;
    std::deque<Event> waiting_;
    std::optional<Child> running_;
    std::optional<Clock::time_point> deadline_;
    bool asked_to_end_ = false;
};

} // namespace tsbackup
