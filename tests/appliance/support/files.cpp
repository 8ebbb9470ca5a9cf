#include "appliance_support.h"

#include <array>
#include <cstdio>

namespace tsbackup::test {

namespace {

constexpr char kLogFolder[] = "/var/log/tessera/backup/";

std::string xml_text(const std::string &text) {
    std::string escaped;
    for (const char letter : text) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += letter;
        }
    }
    return escaped;
}

std::string element(const std::string &name, const std::string &value) {
    return "    <" + name + ">" + xml_text(value) + "</" + name + ">\n";
}

std::string numbered(const std::string &before, int job_id, const std::string &after) {
    std::array<char, 16> digits{};
    std::snprintf(digits.data(), digits.size(), "%03d", job_id);
    return before + digits.data() + after;
}

Settings share_end(const std::string &side, const std::string &volume, const std::string &share,
                   const std::string &path) {
    return {{side + "_type", "share"},
            {side + "_share_proto", share},
            {side + "_share_vol", volume},
            {side + "_path", path}};
}

Settings usb_end(const std::string &side, const std::string &port, const std::string &path) {
    return {{side + "_type", "usb"}, {side + "_share_proto", "usb_port_" + port}, {side + "_path", path}};
}

} // namespace

JobFile &JobFile::job(int id, const Settings &settings) {
    body_ += "  <backupJob>\n    <job_id>" + std::to_string(id) + "</job_id>\n";
    for (const auto &[name, value] : settings)
        body_ += element(name, value);
    body_ += "  </backupJob>\n";
    return *this;
}

JobFile &JobFile::button_jobs(const std::vector<int> &ids) {
    body_ += "  <backupButtonJobs>\n";
    for (const int id : ids)
        body_ += "    <backupButtonJob>" + std::to_string(id) + "</backupButtonJob>\n";
    body_ += "  </backupButtonJobs>\n";
    return *this;
}

JobFile &JobFile::raw(const std::string &xml) {
    body_ += xml;
    return *this;
}

std::string JobFile::xml() const {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<backupJobs>\n" + body_ + "</backupJobs>\n";
}

void JobFile::write() const { write_file("/etc/tessera/backup_jobs.conf", xml(), 0600); }

Settings source_share(const std::string &volume, const std::string &share, const std::string &path) {
    return share_end("src", volume, share, path);
}

Settings destination_share(const std::string &volume, const std::string &share, const std::string &path) {
    return share_end("dst", volume, share, path);
}

Settings source_usb(const std::string &port, const std::string &path) { return usb_end("src", port, path); }

Settings destination_usb(const std::string &port, const std::string &path) { return usb_end("dst", port, path); }

Settings operator+(Settings left, const Settings &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::string storage_line(const std::string &mount_name, const std::string &device, const std::string &port) {
    return "usb!!" + mount_name + "!!Portable Disk!!ext4!!2147483648!!" + device + "!!0!!rw!!" + port + "!!ok\n";
}

std::string status_path(int job_id) { return numbered(std::string(kLogFolder) + "status_backup_", job_id, ""); }

std::string history_path(int job_id) { return numbered(std::string(kLogFolder) + "backup_", job_id, ".log"); }

std::string error_log_path(int job_id) { return numbered(std::string(kLogFolder) + "backup_", job_id, "_error.log"); }

std::string pid_path(int job_id) { return numbered("/var/run/zelkovad/backup_", job_id, ".pid"); }

std::string kept_copy_log_path(int job_id) {
    const std::string beginning = numbered("backup_", job_id, "_copy.");
    std::string found;
    for (const std::string &name : list_folder(kLogFolder)) {
        if (!name.starts_with(beginning)) continue;
        if (!found.empty()) return {};
        found = kLogFolder + name;
    }
    return found;
}

} // namespace tsbackup::test
