// What the tests of FTP jobs share: the two ends, the jobs between them, what a run tells.

#pragma once

#include "aftermath.h"
#include "ftp_servers.h"
#include "job_runs.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tsbackup::test {

inline constexpr int kJob = 7;
inline constexpr std::size_t kMebibyte = 1 << 20;
inline constexpr time_t kSomeTime = 1'500'000'000;
inline const std::string kHome = FtpServer::kHome;
inline const std::string kBackup = "/vault/Backup/copy";
inline const std::string kPictures = "/data/Pictures";
inline const CompareOptions kNamesAndContents = {
    .owners = false, .modes = false, .access_lists = false, .file_times = false};
inline const CompareOptions kNamesContentsTimes = {.owners = false, .modes = false, .access_lists = false};

#define REQUIRE_FTP_SERVERS()                                                                                          \
    REQUIRE_VOLUMES();                                                                                                 \
    if (!ftp_servers_are_there()) GTEST_SKIP() << "the FTP servers were not fetched (scripts/fetch-ftp-servers)"

/// Empties the server's home and the local ends.
void reset_ends();

void set_time(const std::string &path, time_t seconds);
/// Gives files times that a server can keep and an arrival cannot have by chance: servers keep whole seconds, and no
/// time of an empty file is taken over.
void settle(const std::string &folder);

/// What every job has.
Settings ftp_options();
/// A job that fetches a path of the server into kBackup.
Settings download(const std::string &path = "", int port = FtpServer::kPort,
                  const std::string &password = FtpServer::kPassword);
/// A job that sends kPictures to a path of the server.
Settings upload(const std::string &path = "up", int port = FtpServer::kPort,
                const std::string &password = FtpServer::kPassword);
/// Runs a job of these settings with all diagnostics.
Outcome run_job(const Settings &settings, const ProgramOptions &options = {});

std::string error_log();
/// The lines of the copy log, sorted: a directory's entries come in no order.
std::vector<std::string> copied();
std::vector<std::string> sorted(std::vector<std::string> lines);

/// Tests against one server, which each of them starts itself.
class FtpJobs : public testing::TestWithParam<FtpServerOptions> {
  protected:
    void SetUp() override;
    /// No run leaves a snapshot, or the password anywhere but in the job file.
    void TearDown() override;
    static bool sets_times() { return GetParam().kind != FtpKind::vsftpd; }
};

std::string ftp_server_name(const testing::TestParamInfo<FtpServerOptions> &server);

} // namespace tsbackup::test
