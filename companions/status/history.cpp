#include "history.h"

#include <charconv>

namespace tsbackup {

namespace {

using Lines = std::vector<std::string_view>;

constexpr std::string_view kEnd = "log:";

bool take(std::string_view line, std::string_view key, std::string_view &value) {
    if (!line.starts_with(key)) return false;
    value = line.substr(key.size());
    return true;
}

/// Takes the last line off when it holds the key and a number.
bool take_last(Lines &lines, std::string_view key, std::int32_t &number) {
    std::string_view value;
    if (lines.empty() || !take(lines.back(), key, value)) return false;
    const char *end = value.data() + value.size();
    const auto result = std::from_chars(value.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return false;
    lines.pop_back();
    return true;
}

/// Takes everything from the last line with that key on off, and joins it.
bool take_last(Lines &lines, std::string_view key, std::string &text) {
    for (std::size_t i = lines.size(); i-- > 0;) {
        std::string_view value;
        if (!take(lines[i], key, value)) continue;
        text = value;
        for (std::size_t more = i + 1; more < lines.size(); ++more)
            text.append("\n").append(lines[more]);
        lines.resize(i);
        return true;
    }
    return false;
}

void take_full(Lines &lines, std::optional<bool> &full) {
    if (lines.empty()) return;
    if (lines.back() == "full: yes") full = true;
    if (lines.back() == "full: no") full = false;
    if (full) lines.pop_back();
}

/// From the end to the start: the numbers at the end cannot hold line ends, the names in front of them can.
std::optional<HistoryEntry> parse_entry(Lines lines) {
    HistoryEntry entry;
    const bool numbers = take_last(lines, "status: ", entry.status) && take_last(lines, "finish: ", entry.finish) &&
                         take_last(lines, "start: ", entry.start);
    if (!numbers || !take_last(lines, "dst: ", entry.destination) || !take_last(lines, "src: ", entry.source) ||
        !take_last(lines, "proto: ", entry.protocol))
        return std::nullopt;
    take_full(lines, entry.full);
    if (!take_last(lines, "name: ", entry.name)) return std::nullopt;
    return entry;
}

} // namespace

std::vector<HistoryEntry> history_parse(std::string_view text, std::size_t most) {
    std::vector<HistoryEntry> entries;
    Lines lines;
    while (entries.size() < most) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) break;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (line != kEnd) {
            lines.push_back(line);
            continue;
        }
        if (std::optional<HistoryEntry> entry = parse_entry(std::move(lines))) entries.push_back(std::move(*entry));
        lines.clear();
    }
    return entries;
}

} // namespace tsbackup
