#include "config.h"

#include "tsbackup_utils.h"

#include <charconv>
#include <sstream>

namespace tsbackup {

namespace {

using Reason = std::optional<std::string>;

Reason read_seconds(const std::string &value, std::chrono::seconds &seconds) {
    constexpr int kMost = 24 * 60 * 60;
    int number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size() || number < 1 || number > kMost)
        return "\"" + value + "\" is no number of seconds from 1 to " + std::to_string(kMost);
    seconds = std::chrono::seconds(number);
    return std::nullopt;
}

Reason read_switch(const std::string &value, bool &on) {
    if (value != "yes" && value != "no") return "\"" + value + "\" is neither \"yes\" nor \"no\"";
    on = value == "yes";
    return std::nullopt;
}

Reason read_setting(const std::string &key, const std::string &value, EventConfig &config) {
    if (key == "command") {
        if (!config.command.empty()) return "there is a command already";
        if (!value.starts_with('/')) return "\"" + value + "\" is no absolute path";
        config.command.push_back(value);
        return std::nullopt;
    }
    if (key == "argument") {
        if (config.command.empty()) return "an argument needs a command above it";
        config.command.push_back(value);
        return std::nullopt;
    }
    if (key == "timeout") return read_seconds(value, config.timeout);
    if (key == "eject") return read_switch(value, config.eject);
    if (key == "eject-wait") return read_seconds(value, config.eject_patience);
    return "there is no setting \"" + key + "\"";
}

} // namespace

std::optional<ConfigFault> config_read(const std::string &text, EventConfig &config) {
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        trim_space(line);
        if (line.empty() || line.front() == '#') continue;
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) return ConfigFault{number, "\"" + line + "\" is no \"key = value\""};
        std::string key = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        if (const Reason reason = read_setting(trim_space(key), trim_space(value), config))
            return ConfigFault{number, *reason};
    }
    return std::nullopt;
}

} // namespace tsbackup
