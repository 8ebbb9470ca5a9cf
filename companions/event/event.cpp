#include "event.h"

#include <algorithm>
#include <charconv>

namespace tsbackup {

namespace {

constexpr std::string_view kEjectStart =
    R"(<xs:delete-s resource-type="HotPlug" resource-id="UsbStorage" action="eject" device=")";
constexpr std::string_view kEjectEnd = R"("></xs:delete-s>)";

/// Takes the next line off the text; nothing when no line ends in it, or it holds a zero byte.
std::optional<std::string> take_line(std::string_view &text) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || text.substr(0, end).find('\0') != std::string_view::npos) return std::nullopt;
    std::string line(text.substr(0, end));
    text.remove_prefix(end + 1);
    return line;
}

bool is_number(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool are_numbers(std::string_view text) {
    const std::size_t blank = text.find(' ');
    return blank != std::string_view::npos && is_number(text.substr(0, blank)) && is_number(text.substr(blank + 1));
}

/// A name in "/sys/class/block", and no path.
bool is_device(std::string_view name) {
    return !name.empty() &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-") ==
               std::string_view::npos;
}

} // namespace

std::optional<Event> event_parse(std::string_view datagram) {
    const std::optional<std::string> kind = take_line(datagram);
    const std::optional<std::string> source = kind ? take_line(datagram) : std::nullopt;
    const std::optional<std::string> numbers = source ? take_line(datagram) : std::nullopt;
    if (!numbers || kind->empty() || !are_numbers(*numbers)) return std::nullopt;
    return Event{*kind, *source, *numbers, std::string(datagram)};
}

std::optional<std::string> event_eject_device(const Event &event) {
    const std::string_view message = event.message;
    if (event.kind != "ui" || message.size() < kEjectStart.size() + kEjectEnd.size()) return std::nullopt;
    if (!message.starts_with(kEjectStart) || !message.ends_with(kEjectEnd)) return std::nullopt;
    const std::string_view device =
        message.substr(kEjectStart.size(), message.size() - kEjectStart.size() - kEjectEnd.size());
    if (!is_device(device)) return std::nullopt;
    return std::string(device);
}

} // namespace tsbackup
