// Events as they arrive.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tsbackup {

struct Event {
    std::string kind;
    std::string source;
    std::string numbers; ///< the two numbers, with a blank between them
    std::string message; ///< the rest, whatever it holds
};

/// The event in a datagram: kind, source and numbers are a line each, the message is what follows. Nothing when it has
/// another form.
std::optional<Event> event_parse(std::string_view datagram);

/// The device that an event asks to eject, by the kernel's name; nothing for any other event.
std::optional<std::string> event_eject_device(const Event &event);

} // namespace tsbackup
