#include "imports.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr char kWaits[] = "/run/waits";

std::string datagram(const std::string &message) {
    return "mtpbackup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><mtpbackup " + message + "/></xs:add-s>";
}

std::string attribute(const std::string &name, const std::string &value) { return name + "=\"" + value + "\""; }

} // namespace

void set_services(const std::vector<std::pair<std::string, std::string>> &services) {
    std::string text = "ANTIVIRUS=0\n";
    for (const auto &[name, value] : services)
        text += name + "=" + value + "\n";
    write_file("/etc/default/services", text);
}

void enable_import(const std::string &destination, bool remove) {
    set_services({{"MTPBACKUP", "1"}, {"MTPBACKUP_DIR", destination}, {"MTPBACKUP_DELETE", remove ? "1" : "0"}});
}

ProgramOptions camera_options(const std::vector<std::pair<std::string, std::string>> &environment) {
    remove_tree(kWaits);
    ProgramOptions options;
    options.preload = {kShortWaits};
    options.environment = simulated_usb();
    options.environment.emplace_back("SHORT_WAITS_LOG", kWaits);
    options.environment.insert(options.environment.end(), environment.begin(), environment.end());
    return options;
}

std::vector<double> waits() {
    std::vector<double> seconds;
    std::istringstream lines(read_file(kWaits));
    for (double wait = 0; lines >> wait;)
        seconds.push_back(wait);
    return seconds;
}

Outcome run_import(const Camera &camera, const std::string &name, const ProgramOptions &options) {
    return run_program({"-m", "1", camera.bus(), camera.number(), name}, options);
}

std::vector<std::pair<std::string, std::string>> device_environment(const Camera &camera) {
    return {{"ID_GPHOTO2", "1"},
            {"ID_SERIAL", "Zeno_Serial.of the bus"},
            {"BUSNUM", camera.bus()},
            {"DEVNUM", camera.number()}};
}

Outcome run_arrival(const Camera &camera) { return run_arrival(device_environment(camera)); }

Outcome run_arrival(const std::vector<std::pair<std::string, std::string>> &environment) {
    return run_program({"-v", "7", "-s", "x"}, camera_options(environment));
}

std::string told(const Outcome &outcome) { return settled_diagnostics(outcome.err, -1); }

std::string queued_event(const std::string &device) {
    return datagram(attribute("devname", device) + " " + attribute("status", "5"));
}

std::string import_event(const std::string &device, const std::string &destination, int status) {
    return datagram(attribute("devname", device) + " " + attribute("dest", destination) + " " +
                    attribute("status", std::to_string(status)));
}

std::string failure_event(const std::string &device, const std::string &destination, int status, int reason) {
    return datagram(attribute("devname", device) + " " + attribute("dest", destination) + " " +
                    attribute("status", std::to_string(status)) + " " + attribute("reason", std::to_string(reason)));
}

std::string import_status_path(const std::string &device) {
    return std::string(kLogFolder) + "/status_mtpbackup_" + device;
}

std::string import_log_path(const std::string &device) {
    return std::string(kLogFolder) + "/mtpbackup_" + device + ".log";
}

std::string import_log(const std::string &device) { return with_placeholders(read_file(import_log_path(device))); }

std::string import_status(const std::string &state, const std::string &severity, std::uint64_t files) {
    return "MBACKUP_STATUS__" + state + "!!TIME!!" + severity + "!!0!!0!!" + std::to_string(files) + "!!0!!0.000000";
}

std::vector<std::string> files_below(const std::string &folder) {
    std::vector<std::string> paths;
    std::error_code ignored;
    for (const auto &entry : fs::recursive_directory_iterator(folder, ignored)) {
        const std::string path = entry.path().string().substr(folder.size() + 1);
        if (!entry.is_directory())
            paths.push_back(path);
        else if (fs::is_empty(entry.path()))
            paths.push_back(path + "/");
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::set<std::string> every_path() {
    std::set<std::string> paths;
    // Each share is a file system of its own. Names with line ends are still distinct texts.
    std::istringstream found(shell_output("find / /data /data/* /vault /vault/* /media/* -xdev ! -path '/srv/cameras*' "
                                          "-printf '%p\\0'"));
    for (std::string path; std::getline(found, path, '\0');)
        paths.insert(path);
    return paths;
}

std::vector<std::string> new_paths(const std::set<std::string> &before) {
    std::vector<std::string> paths;
    for (const std::string &path : every_path()) {
        const std::vector<std::string> expected = {kLogFolder, "/apps/.backup", kWaits, "/run/zelkovad/event"};
        const bool known = std::any_of(expected.begin(), expected.end(),
                                       [&](const std::string &beginning) { return path.starts_with(beginning); });
        if (!known && !before.contains(path)) paths.push_back(path);
    }
    return paths;
}

std::time_t utc(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return timegm(&parts);
}

std::time_t file_time(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : -1;
}

} // namespace tsbackup::test
