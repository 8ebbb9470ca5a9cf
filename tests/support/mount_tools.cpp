#include "mount_tools.h"

#include <cstdlib>
#include <filesystem>

namespace tsbackup::test {

namespace {

constexpr const char *kNames[] = {"timeout", "mount.cifs", "mount"};

std::vector<std::string> texts_of(const std::string &path) {
    const std::string content = read_file(path);
    std::vector<std::string> texts;
    for (std::size_t start = 0; start < content.size(); start += texts.back().size() + 1)
        texts.emplace_back(content.c_str() + start);
    return texts;
}

} // namespace

std::string MountCommand::line() const {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : "|") + word;
    return text;
}

MountTools::MountTools() : path_before_(std::getenv("PATH")) {
    const std::string script = "#!/bin/sh\n"
                               "folder='" +
                               folder_.path() +
                               "'\n"
                               "number=1\n"
                               "while [ -e $folder/words.$number ]; do number=$((number + 1)); done\n"
                               "if [ -n \"${PASSWD+x}\" ]; then printf %s \"$PASSWD\" >$folder/password.$number; fi\n"
                               "printf '%s\\0' \"${0##*/}\" \"$@\" >$folder/words.$number\n"
                               "for word; do case $word in /job_*) at=$word ;; esac; done\n"
                               "for script in $folder/script.$number $folder/script; do\n"
                               "    if [ -e $script ]; then . $script; exit; fi\n"
                               "done\n"
                               "exit 32\n";
    for (const char *name : kNames)
        write_file(folder_ / name, script, 0755);
    setenv("PATH", (folder_.path() + ":" + path_before_).c_str(), 1);
}

MountTools::~MountTools() { setenv("PATH", path_before_.c_str(), 1); }

MountTools &MountTools::answers(int call, const std::string &script) {
    write_file(folder_ / ("script." + std::to_string(call)), script + "\n");
    return *this;
}

MountTools &MountTools::answers(const std::string &script) {
    write_file(folder_ / "script", script + "\n");
    return *this;
}

std::string MountTools::shows(const std::string &folder) { return "/usr/bin/mount --bind '" + folder + "' $at"; }

std::string MountTools::shows_read_only(const std::string &folder) {
    return shows(folder) + " && /usr/bin/mount -o remount,bind,ro $at";
}

std::vector<MountCommand> MountTools::commands() const {
    std::vector<MountCommand> commands;
    while (true) {
        const std::string number = std::to_string(commands.size() + 1);
        if (!file_exists(folder_ / ("words." + number))) return commands;
        MountCommand command{texts_of(folder_ / ("words." + number)), std::nullopt};
        const std::string password = folder_ / ("password." + number);
        if (file_exists(password)) command.password = read_file(password);
        commands.push_back(std::move(command));
    }
}

std::vector<std::string> MountTools::lines() const {
    std::vector<std::string> lines;
    for (const MountCommand &command : commands())
        lines.push_back(command.line());
    return lines;
}

bool is_mounted(const std::string &path) {
    return read_file("/proc/self/mounts").find(" " + path + " ") != std::string::npos;
}

} // namespace tsbackup::test
