// Jobs against a real rsync daemon and a real sshd.

#include "server.h"

#include <algorithm>
#include <filesystem>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr int kJob = 7;
constexpr int kLinePort = 8731;
/// What the servers serve.
const std::string kRemote = "/media/USB/remote";
const std::string kPictures = "/data/Pictures";
const std::string kBackup = "/vault/Backup";
constexpr std::size_t kMebibyte = 1 << 20;

/// A kind of job: over which transport, in which direction.
struct Kind {
    const char *name;
    bool ssh;
    bool upload;
};
constexpr Kind kKinds[] = {
    {"download from a daemon", false, false},
    {"download over ssh", true, false},
    {"upload to a daemon", false, true},
    {"upload over ssh", true, true},
};

/// Settings of the job's remote end.
struct Remote {
    std::string path = {}; ///< below the served folder
    int port = 0;          ///< 0: the server's own
    std::string module = "pub";
    Settings more = {};
};

std::string remote_path(const Kind &kind, const Remote &remote) {
    return kind.ssh ? "127.0.0.1:/" + kRemote + "/" + remote.path : "127.0.0.1::" + remote.module + "/" + remote.path;
}

Settings remote_end(const Kind &kind, const Remote &remote) {
    const std::string side = kind.upload ? "dst" : "src";
    const int own_port = kind.ssh ? SshServer::kPort : RsyncDaemon::kPort;
    return {{side + "_type", "remote"},
            {side + "_share_proto", kind.ssh ? "rsync+ssh" : "rsync"},
            {side + "_path", remote_path(kind, remote)},
            {side + "_port", std::to_string(remote.port != 0 ? remote.port : own_port)}};
}

/// A job between "Pictures" (upload) or "Backup" (download) and the remote end.
Settings job_of(const Kind &kind, const Remote &remote, const std::string &local_path = "") {
    const Settings local = kind.upload ? source_share("data", "Pictures", local_path)
                                       : destination_share("vault", "Backup", local_path);
    return Settings{{"name", "Night & day"}, {"opt_max_log_lines", "1000"}, {"opt_full_backup_freq", "never"}} + local +
           remote_end(kind, remote) + remote.more;
}

/// Runs job 7 with these settings.
Outcome run_job(const Settings &settings, const ProgramOptions &options = {}) {
    JobFile().job(kJob, settings).write();
    return run_program({"-e", std::to_string(kJob)}, options);
}

std::string error_log() { return read_file(error_log_path(kJob)); }
std::string copy_log() { return read_file(kept_copy_log_path(kJob)); }

/// The result of the last run, as its history entry tells.
int result() {
    static const std::regex status("\nstatus: ([0-9]+)\n");
    const std::string history = read_file(history_path(kJob));
    std::smatch match;
    return std::regex_search(history, match, status) ? std::stoi(match[1]) : -1;
}

void write_bytes(const std::string &path, std::size_t size) {
    std::string content(size, '\0');
    std::uint32_t state = 12345;
    for (char &byte : content) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    write_file(path, content);
}

/// Command lines of the processes of the appliance, with blanks between the words.
std::vector<std::string> command_lines() {
    std::vector<std::string> lines;
    for (const std::string &name : list_folder("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string line = read_file("/proc/" + name + "/cmdline");
        std::replace(line.begin(), line.end(), '\0', ' ');
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

/// Whether a client of rsync runs; the daemon does not count.
bool rsync_runs() {
    const auto lines = command_lines();
    return std::any_of(lines.begin(), lines.end(), [](const std::string &line) {
        return line.starts_with("rsync -vP") || line.starts_with("nice ");
    });
}

/// What a run leaves behind that it should not.
std::vector<std::string> leftovers() {
    std::vector<std::string> left;
    if (rsync_runs()) left.emplace_back("a running rsync");
    for (const std::string &name : list_folder("/tmp"))
        left.push_back("/tmp/" + name);
    if (read_file("/proc/self/mounts").find(" /tmp/") != std::string::npos) left.emplace_back("a mount below /tmp");
    if (file_exists("/data/._share/Pictures/.snapshot"))
        for (const std::string &name : list_folder("/data/._share/Pictures/.snapshot"))
            left.push_back("snapshot " + name);
    for (const std::string &name : list_folder("/apps/.backup"))
        left.push_back("/apps/.backup/" + name);
    return left;
}

class RsyncServers : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        make_folder(kRemote);
    }
    void TearDown() override {
        if (!volumes()) return;
        EXPECT_THAT(leftovers(), IsEmpty());
    }
    static RsyncModule public_module() { return {"pub", {"path = " + kRemote, "read only = false"}}; }
};

TEST_F(RsyncServers, Explore) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds) {
        write_file((kind.upload ? kPictures : kRemote) + "/tree/a.txt", "aa");
        write_bytes((kind.upload ? kPictures : kRemote) + "/tree/big", 3000000);
        const Outcome o = run_job(job_of(kind, {.path = kind.upload ? "up" : "tree/"}, kind.upload ? "tree" : "down"));
        std::cout << result() << kind.name << ": " << o.status << o.err << o.out << "\n" << read_file(history_path(kJob)) << error_log() << "--\n" << copy_log() << "--\n"
                  << shell_output("find " + kRemote + " " + kBackup) << std::endl;
    }
}

} // namespace
} // namespace tsbackup::test
