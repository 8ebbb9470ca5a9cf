#include "disk.h"

#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>

namespace tsbackup {

namespace {

/// A path as "mountinfo" writes it: blanks and the like are three octal digits behind a backslash.
std::string unescaped(const std::string &path) {
    constexpr std::size_t kDigits = 3;
    constexpr unsigned kOctal = 8;
    std::string result;
    for (std::size_t at = 0; at < path.size(); ++at) {
        const std::string digits = path.substr(at + 1, kDigits);
        const bool is_escape =
            path[at] == '\\' && digits.size() == kDigits && digits.find_first_not_of("01234567") == std::string::npos;
        if (!is_escape) {
            result += path[at];
            continue;
        }
        result += static_cast<char>(std::stoul(digits, nullptr, static_cast<int>(kOctal)));
        at += kDigits;
    }
    return result;
}

std::string content_of(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

/// The name of a process's mount namespace; empty when it cannot be told.
std::string mount_namespace(const std::string &process) {
    std::array<char, PATH_MAX> name{};
    const ssize_t length = readlink(("/proc/" + process + "/ns/mnt").c_str(), name.data(), name.size());
    return {name.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

} // namespace

std::optional<Disk> disk_find(const std::string &name) {
    constexpr std::size_t kLongestNumber = 32;
    const auto number = read_first_line(("/sys/class/block/" + name + "/dev").c_str(), kLongestNumber);
    if (!number) return std::nullopt;
    return Disk{name, *number};
}

std::vector<std::string> mount_points_in(const std::string &mountinfo, const Disk &disk) {
    std::vector<std::string> points;
    std::istringstream lines(mountinfo);
    for (std::string line; std::getline(lines, line);) {
        // "ID PARENT NUMBER ROOT POINT OPTIONS [TAG]... - TYPE SOURCE OPTIONS"
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string number;
        std::string root;
        std::string point;
        fields >> id >> parent >> number >> root >> point;
        for (std::string field; fields >> field && field != "-";) {
        }
        std::string type;
        std::string source;
        fields >> type >> source;
        // Some file systems have a number of their own, which is not their disk's.
        if (number == disk.number || source == "/dev/" + disk.name) points.push_back(unescaped(point));
    }
    return points;
}

std::vector<std::string> disk_mounts(const Disk &disk) {
    return mount_points_in(content_of("/proc/self/mountinfo"), disk);
}

std::optional<pid_t> disk_holder(const Disk &disk) {
    std::set<std::string> seen = {mount_namespace("self"), ""};
    const UniqueDir processes(opendir("/proc"));
    while (const dirent *entry = processes ? readdir(processes.get()) : nullptr) {
        const std::string process = entry->d_name;
        if (decimal_value(process.c_str()) <= 0 || !seen.insert(mount_namespace(process)).second) continue;
        if (!mount_points_in(content_of("/proc/" + process + "/mountinfo"), disk).empty())
            return decimal_value(process.c_str());
    }
    return std::nullopt;
}

UniqueFd disk_claim(const Disk &disk) {
    return UniqueFd(open(("/dev/" + disk.name).c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC));
}

} // namespace tsbackup
