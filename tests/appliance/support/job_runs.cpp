#include "job_runs.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kRecordSize = 128;
constexpr std::uint16_t kWakePort = 9;

std::string in_quotes(const std::string &text) { return "'" + text + "'"; }

} // namespace

RequestQueue::RequestQueue(const std::string &pipe) : pipe_(open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (pipe_ < 0) throw std::runtime_error("cannot read the queue's pipe");
}

RequestQueue::~RequestQueue() { close(pipe_); }

std::string RequestQueue::received() {
    std::string bytes;
    std::array<char, 4096> block{};
    ssize_t got = 0;
    while ((got = read(pipe_, block.data(), block.size())) > 0)
        bytes.append(block.data(), static_cast<std::size_t>(got));
    return bytes;
}

std::string request_record(const std::string &text) {
    std::string record = text;
    record.resize(kRecordSize, '\0');
    return record;
}

std::string result_event(int job_id, const std::string &escaped_name, int status, int email, int by_button) {
    return "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"" + std::to_string(job_id) +
           "\" job-name=\"" + escaped_name + "\" status=\"" + std::to_string(status) + "\" email=\"" +
           std::to_string(email) + "\" by-button=\"" + std::to_string(by_button) + "\"/></xs:add-s>";
}

int last_result(int job_id) {
    static const std::regex status("(^|\n)status: (-?[0-9]+)\n");
    const std::string history = read_file(history_path(job_id));
    std::smatch match;
    return std::regex_search(history, match, status) ? std::stoi(match[2]) : -1;
}

int history_entries(int job_id) {
    std::istringstream lines(read_file(history_path(job_id)));
    int entries = 0;
    for (std::string line; std::getline(lines, line);)
        entries += line == "log:" ? 1 : 0;
    return entries;
}

std::vector<std::string> snapshots() {
    std::vector<std::string> paths;
    for (const char *volume : {"/data", "/vault"}) {
        const fs::path shares = fs::path(volume) / "._share";
        if (!fs::exists(shares)) continue;
        for (const std::string &share : list_folder(shares)) {
            const fs::path folder = shares / share / ".snapshot";
            if (!fs::exists(folder)) continue;
            for (const std::string &name : list_folder(folder))
                paths.push_back(folder / name);
        }
    }
    return paths;
}

std::vector<std::string> states(StatusWatcher &watcher) {
    std::vector<std::string> result;
    for (const std::string &content : watcher.seen()) {
        const std::string state = with_placeholders(content.substr(0, content.find('\n')));
        if (result.empty() || result.back() != state) result.push_back(state);
    }
    return result;
}

std::string settled_diagnostics(const std::string &text, pid_t pid) {
    static const std::regex place("(tsbackup[a-z_]*):[0-9]+ ");
    std::string settled = std::regex_replace(text, std::regex("_" + std::to_string(pid) + "\\b"), "_PID");
    settled = std::regex_replace(settled, std::regex("\\b" + std::to_string(pid) + "\\b"), "PID");
    return with_placeholders(std::regex_replace(settled, place, "$1 "));
}

std::vector<pid_t> group_members(pid_t group) {
    std::vector<pid_t> members;
    for (const std::string &name : list_folder("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string stat = read_file("/proc/" + name + "/stat");
        const std::size_t end_of_name = stat.rfind(')');
        if (end_of_name == std::string::npos) continue;
        std::istringstream fields(stat.substr(end_of_name + 1));
        char state = 0;
        pid_t parent = 0;
        pid_t own_group = 0;
        fields >> state >> parent >> own_group;
        if (own_group == group && state != 'Z') members.push_back(std::stoi(name));
    }
    return members;
}

Missing::Missing(const std::string &path) : path_(path) { fs::rename(path_, path_ + ".away"); }

Missing::~Missing() {
    remove_tree(path_);
    std::error_code error;
    fs::rename(path_ + ".away", path_, error);
    if (error) ADD_FAILURE() << path_ << " cannot be brought back: " << error.message();
}

MountedFor::MountedFor(const std::string &arguments, const std::string &at) : at_(at) {
    make_folder(at);
    const std::string complaint = shell_output("mount " + arguments + " " + in_quotes(at));
    if (!complaint.empty()) throw std::runtime_error(complaint);
}

MountedFor::~MountedFor() {
    const std::string complaint = shell_output("umount " + in_quotes(at_));
    if (!complaint.empty()) ADD_FAILURE() << complaint;
}

StandIn::StandIn(const std::string &path, const std::string &script)
    : path_(path), record_("/run/stand-in." + fs::path(path).filename().string()) {
    struct stat status {};
    replaced_ = lstat(path.c_str(), &status) == 0;
    if (replaced_) fs::rename(path, path + ".away");
    remove_tree(record_);
    write_file(path, "#!/bin/sh\necho \"$@\" >>" + record_ + "\n" + script + "\n", 0755);
}

StandIn::~StandIn() {
    remove_tree(path_);
    remove_tree(record_);
    if (replaced_) fs::rename(path_ + ".away", path_);
}

std::string StandIn::calls() const { return read_file(record_); }

bool broadcast_network() {
    static const bool possible =
        shell_output("ip link add near type veth peer name far && ip address add 10.9.0.1/24 broadcast + dev near && "
                     "ip link set near up && ip link set far up && ip route add default via 10.9.0.254")
            .empty();
    return possible;
}

WakeReceiver::WakeReceiver() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kWakePort);
    if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot receive on the wake-up port");
}

WakeReceiver::~WakeReceiver() { close(socket_); }

std::vector<std::string> WakeReceiver::received() {
    std::vector<std::string> packets;
    std::array<char, 2048> packet{};
    ssize_t got = 0;
    while ((got = recv(socket_, packet.data(), packet.size(), 0)) >= 0)
        packets.emplace_back(packet.data(), static_cast<std::size_t>(got));
    return packets;
}

std::string magic_packet(const std::string &address) {
    constexpr int kRepetitions = 16;
    std::string packet(6, '\xff');
    for (int repetition = 0; repetition < kRepetitions; ++repetition)
        packet += address;
    return packet;
}

} // namespace tsbackup::test
