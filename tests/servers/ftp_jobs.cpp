#include "ftp_jobs.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>

namespace tsbackup::test {

using testing::IsEmpty;

void reset_ends() {
    reset_appliance();
    remove_tree(kHome);
    make_folder(kHome);
    remove_tree(kPictures);
    make_share("data", "Pictures");
}

void set_time(const std::string &path, time_t seconds) {
    const std::array<timespec, 2> times = {timespec{seconds, 0}, timespec{seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

void settle(const std::string &folder) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        struct stat status {};
        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
        if (status.st_size == 0) write_file(entry.path(), "no more empty");
        set_time(entry.path(), kSomeTime + status.st_mtim.tv_sec % 1'000'000);
    }
}

Settings ftp_options() { return {{"name", "FTP"}, {"opt_max_log_lines", "100000"}, {"opt_full_backup_freq", "NEVER"}}; }

Settings download(const std::string &path, int port, const std::string &password) {
    return ftp_options() +
           Settings{
               {"src_type", "remote"},          {"src_share_proto", "ftp"}, {"src_path", "ftp://127.0.0.1/" + path},
               {"src_login", FtpServer::kUser}, {"src_password", password}, {"src_port", std::to_string(port)}} +
           destination_share("vault", "Backup", "copy");
}

Settings upload(const std::string &path, int port, const std::string &password) {
    return ftp_options() + source_share("data", "Pictures") +
           Settings{{"dst_type", "remote"},          {"dst_share_proto", "ftp"}, {"dst_path", "127.0.0.1/" + path},
                    {"dst_login", FtpServer::kUser}, {"dst_password", password}, {"dst_port", std::to_string(port)}};
}

Outcome run_job(const Settings &settings, const ProgramOptions &options) {
    JobFile().job(kJob, settings).write();
    return run_program({"-v", "7", "-e", std::to_string(kJob)}, options);
}

std::string error_log() { return file_exists(error_log_path(kJob)) ? read_file(error_log_path(kJob)) : ""; }

std::vector<std::string> copied() {
    std::istringstream log(read_file(kept_copy_log_path(kJob)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);)
        lines.push_back(line);
    return sorted(lines);
}

std::vector<std::string> sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

void FtpJobs::SetUp() {
    REQUIRE_FTP_SERVERS();
    reset_ends();
}

void FtpJobs::TearDown() {
    if (!volumes()) return;
    EXPECT_THAT(snapshots(), IsEmpty());
    const Outcome found = run_program({"-rlF", FtpServer::kPassword, "/var/log", "/var/run/zelkovad", kWorkFolder},
                                      {.environment = {}, .preload = {}, .program = "/usr/bin/grep"});
    EXPECT_EQ(found.out, "");
}

std::string ftp_server_name(const testing::TestParamInfo<FtpServerOptions> &server) {
    std::ostringstream name;
    name << server.param;
    return name.str();
}

} // namespace tsbackup::test
