// Jobs against a real rsync daemon and a real sshd.

#include "server.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
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
    const Settings local =
        kind.upload ? source_share("data", "Pictures", local_path) : destination_share("vault", "Backup", local_path);
    return Settings{{"name", "Night & day"}, {"opt_max_log_lines", "1000"}, {"opt_full_backup_freq", "EVERY_TIME"}} +
           local + remote_end(kind, remote) + remote.more;
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

/// What the error log holds after a transfer with this result; `lines` are those of rsync that tell why.
std::string failure_of(const std::string &result, const std::string &lines = "") {
    return "Failed to run rsync, return rc " + result + "\n" + lines + "'rsync' command returns rc=" + result + "\n";
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
    if (!wait_until([] { return !rsync_runs(); }, 5s)) left.emplace_back("a running rsync");
    for (const std::string &name : list_folder("/tmp"))
        if (name.find_first_not_of("0123456789") == std::string::npos) left.push_back("/tmp/" + name);
    if (std::regex_search(read_file("/proc/self/mounts"), std::regex(" /tmp/[0-9]+/"))) left.emplace_back("a mount");
    if (file_exists("/data/._share/Pictures/.snapshot"))
        for (const std::string &name : list_folder("/data/._share/Pictures/.snapshot"))
            left.push_back("snapshot " + name);
    if (file_exists("/apps/.backup"))
        for (const std::string &name : list_folder("/apps/.backup"))
            left.push_back("/apps/.backup/" + name);
    return left;
}

class RsyncServers : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        start_over();
    }
    void TearDown() override {
        if (!volumes()) return;
        EXPECT_THAT(leftovers(), IsEmpty());
    }

    static void start_over() {
        reset_appliance();
        make_folder(kRemote);
    }
    static RsyncModule public_module() { return {"pub", {"path = " + kRemote, "read only = false"}}; }
    /// Where the source of a job lies, and where its copy: a folder "tree" in both directions.
    static std::string source_of(const Kind &kind) { return (kind.upload ? kPictures : kRemote) + "/tree"; }
    static std::string copy_of(const Kind &kind) { return (kind.upload ? kRemote : kBackup) + "/up/tree"; }
    /// The job that copies the one to the other. `remote` gets its path here.
    static Settings tree_job(const Kind &kind, Remote remote = {}) {
        remote.path = kind.upload ? "up" : "tree/";
        return job_of(kind, remote, kind.upload ? "tree" : "up/tree");
    }
};

// ---- what arrives ----------------------------------------------------------------------------------------------

TEST_F(RsyncServers, WholeTreesArriveEqual) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        make_tree(source_of(kind));
        EXPECT_EQ(run_job(tree_job(kind)).status, 0);
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_TRUE(same_trees(source_of(kind), copy_of(kind)));

        change_tree(source_of(kind), 3);
        Settings incremental = tree_job(kind);
        for (auto &[name, value] : incremental)
            if (name == "opt_full_backup_freq") value = "NEVER";
        run_job(incremental);
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_TRUE(same_trees(source_of(kind), copy_of(kind)));
        EXPECT_EQ(error_log(), "");
        start_over();
    }
}

TEST_F(RsyncServers, BooksOfARun) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        start_over();
        write_file(source_of(kind) + "/a.txt", "aa");
        write_file(source_of(kind) + "/b c.txt", "b");
        if (kind.ssh)
            run_program({"-o", "StrictHostKeyChecking=no", "-p", "2222", "127.0.0.1", "true"},
                        {.environment = {}, .preload = {}, .program = "/usr/bin/ssh"});
        EventReceiver events;
        StatusWatcher watcher(kJob);
        const Outcome outcome = run_job(tree_job(kind));

        EXPECT_TRUE(same_text(
            std::string("name: Night & day\nfull: yes\nproto: ") + (kind.ssh ? "rsync+ssh" : "rsync") +
                (kind.upload ? "\nsrc: [share:Pictures]/tree\ndst: [remote:" : "\nsrc: [remote:") +
                (kind.ssh ? "rsync+ssh" : "rsync") + "]/" + remote_path(kind, {.path = kind.upload ? "up" : "tree/"}) +
                (kind.upload ? "" : "\ndst: [share:Backup]/up/tree") + "\nstart: TIME\nfinish: TIME\nstatus: 0\nlog:\n",
            with_placeholders(read_file(history_path(kJob)))));
        EXPECT_THAT(events.received(),
                    ElementsAre("backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"7\" "
                                "job-name=\"Night &amp; day\" status=\"0\" email=\"0\" by-button=\"0\"/></xs:add-s>"));
        const std::vector<std::string> states = watcher.seen();
        ASSERT_THAT(states, Not(IsEmpty()));
        EXPECT_EQ(with_placeholders(states.front()), "BACKUP_STATUS__IN_PROGRESS,1!!TIME!!OK\n");
        EXPECT_EQ(with_placeholders(states.back()), "BACKUP_STATUS__COMPLETED!!TIME!!OK\n");

        std::string log = copy_log();
        log = std::regex_replace(log, std::regex("[0-9.,]+ bytes(/sec)?"), "N bytes$1");
        log = std::regex_replace(log, std::regex("speedup is [0-9.,]+"), "speedup is N");
        // A file's name is followed by an empty line: the line of its progress begins with a carriage return.
        const std::string head = kind.upload ? "sending incremental file list\ncreated directory " +
                                                   (kind.ssh ? kRemote + "/up" : "up") +
                                                   "\ntree/\ntree/a.txt\n\ntree/b c.txt\n\n"
                                             : std::string("a.txt\n\nb c.txt\n\n");
        EXPECT_TRUE(
            same_text(head + "\nsent N bytes  received N bytes  N bytes/sec\ntotal size is 3  speedup is N\n", log));
        EXPECT_EQ(error_log(), "");
        EXPECT_THAT(outcome.err, Not(HasSubstr("(error)")));
    }
}

/// Bytes of the progress lines among the contents of a status file.
std::vector<std::int64_t> progress_of(const std::vector<std::string> &states) {
    static const std::regex progress("^BACKUP_STATUS__IN_PROGRESS,1!!\\d+!!OK\n\\d+!!\\d+!!(\\d+)\n");
    std::vector<std::int64_t> bytes;
    for (const std::string &state : states) {
        std::smatch match;
        if (std::regex_search(state, match, progress)) bytes.push_back(std::stoll(match[1]));
    }
    return bytes;
}

TEST_F(RsyncServers, ProgressIsShownWhileAFileIsOnItsWay) {
    write_file("/srv/secrets", "bob:top secret\n", 0600);
    const RsyncDaemon daemon(
        {{"pub", {"path = " + kRemote, "read only = false", "auth users = bob", "secrets file = /srv/secrets"}}});
    const SshServer sshd;
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        start_over();
        constexpr std::size_t kSize = 12 * kMebibyte;
        const Line line(kLinePort, kind.ssh ? SshServer::kPort : RsyncDaemon::kPort, 4 * kMebibyte);
        write_filler(source_of(kind) + "/big", kSize);
        Remote remote{.port = kLinePort};
        if (!kind.ssh) {
            const std::string side = kind.upload ? "dst" : "src";
            remote.more = {{side + "_login", "bob"}, {side + "_password", "top secret"}};
        }
        StatusWatcher watcher(kJob);
        JobFile().job(kJob, tree_job(kind, remote)).write();
        Program program({"-e", "7"});
        ASSERT_TRUE(wait_until([&] { return line.passed() > 3 * kMebibyte; }));
        for (const std::string &command : command_lines())
            EXPECT_THAT(command, Not(HasSubstr("top secret")));
        EXPECT_EQ(program.wait().status, 0);

        const std::vector<std::int64_t> bytes = progress_of(watcher.seen());
        ASSERT_THAT(bytes, Not(IsEmpty()));
        EXPECT_TRUE(std::is_sorted(bytes.begin(), bytes.end()));
        // rsync prints a file's last line once more when its clock strikes at the end of the file; each one counts.
        EXPECT_THAT(bytes.back(), testing::AnyOf(kSize, 2 * kSize));
        const auto on_its_way = std::count_if(bytes.begin(), bytes.end(), [](std::int64_t count) {
            return count > 0 && count < static_cast<std::int64_t>(kSize);
        });
        EXPECT_GE(on_its_way, 1);
        EXPECT_TRUE(same_trees(source_of(kind), copy_of(kind)));
        EXPECT_EQ(result(), 0) << error_log();
    }
}

TEST_F(RsyncServers, AwkwardNamesArriveAsTheyAre) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    const char *const names[] = {"with blank", " leading",    "quote'd \"twice\"", "$HOME `id` $(id); & | <x>",
                                 "B\xc3\xa4r", "line\nbreak", "tab\there",         "back\\slash",
                                 "-v",         "*?[a]{b,c}",  "100% done",         "latin \xe9",
                                 "Permission", "a:b",         "\xe2\x98\x83",      "~root",
                                 "#comment;",  "%s%n",        "No space"};
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        const std::string odd = "it's \"my\" $HOME; B\xc3\xa4r";
        for (const char *name : names)
            write_file((kind.upload ? kPictures : kRemote) + "/" + odd + "/" + name, name);
        run_job(job_of(kind, {.path = kind.upload ? "to here" : odd}, kind.upload ? odd : "to here"));
        EXPECT_EQ(result(), 0) << error_log() << copy_log();
        EXPECT_TRUE(same_trees((kind.upload ? kPictures : kRemote) + "/" + odd,
                               (kind.upload ? kRemote : kBackup) + "/to here/" + odd));
        EXPECT_THAT(copy_log(), HasSubstr("/line\\#012break\n"));
        EXPECT_THAT(copy_log(), HasSubstr("/B\xc3\xa4r\n"));
        EXPECT_THAT(copy_log(), HasSubstr("/with blank\n"));
        start_over();
    }
}

// ---- options ---------------------------------------------------------------------------------------------------

TEST_F(RsyncServers, DeletionStaysInsideTheTree) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds)
        for (const bool deletes : {false, true}) {
            SCOPED_TRACE(std::string(kind.name) + (deletes ? ", deleting" : ""));
            write_file(source_of(kind) + "/a", "a");
            write_file(copy_of(kind) + "/extra", "x");
            write_file(copy_of(kind) + "/folder/extra", "x");
            write_file(std::filesystem::path(copy_of(kind)).parent_path() / "beside", "x");
            run_job(tree_job(kind, {.more = {{"opt_rsync_options", deletes ? "1" : "0"}}}));
            EXPECT_EQ(result(), 0) << error_log();
            EXPECT_EQ(file_exists(copy_of(kind) + "/extra"), !deletes);
            EXPECT_EQ(file_exists(copy_of(kind) + "/folder"), !deletes);
            EXPECT_TRUE(file_exists(copy_of(kind) + "/a"));
            EXPECT_TRUE(file_exists(std::filesystem::path(copy_of(kind)).parent_path() / "beside"));
        }
}

ino_t inode(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(RsyncServers, HardLinksAreKeptOnRequest) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds)
        for (const char *options : {"8", "10", "0"}) {
            SCOPED_TRACE(std::string(kind.name) + ", " + options);
            write_file(source_of(kind) + "/a", "a");
            std::filesystem::create_hard_link(source_of(kind) + "/a", source_of(kind) + "/b");
            run_job(tree_job(kind, {.more = {{"opt_rsync_options", options}}}));
            EXPECT_EQ(result(), 0) << error_log();
            EXPECT_NE(inode(copy_of(kind) + "/a"), 0U);
            EXPECT_EQ(inode(copy_of(kind) + "/a") == inode(copy_of(kind) + "/b"), options[0] != '0');
            start_over();
        }
}

TEST_F(RsyncServers, OwnershipIsLeftBehindOnRequest) {
    const RsyncDaemon daemon({public_module()});
    for (const Kind &kind : kKinds) {
        if (kind.ssh) continue;
        SCOPED_TRACE(kind.name);
        write_file(source_of(kind) + "/a", "a", 0600);
        ASSERT_EQ(chown((source_of(kind) + "/a").c_str(), 1001, 1002), 0);
        run_job(tree_job(kind, {.more = {{"opt_rsync_options", "4"}}}));
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_EQ(shell_output("stat -c %u:%g '" + copy_of(kind) + "/a'"), "0:0\n");
    }
}

TEST_F(RsyncServers, ADiskWithoutOwnersGetsNone) {
    const RsyncDaemon daemon({public_module()});
    write_file(kRemote + "/tree/a", "a", 0600);
    ASSERT_EQ(chown((kRemote + "/tree/a").c_str(), 1001, 1002), 0);
    // An overlay keeps owners, yet is none of the file systems that are trusted to.
    shell_output("mkdir -p /media/FLAT /srv/flat && mount -t tmpfs tmpfs /srv/flat && "
                 "mkdir /srv/flat/{lower,upper,work} && mount -t overlay -o "
                 "lowerdir=/srv/flat/lower,upperdir=/srv/flat/upper,workdir=/srv/flat/work overlay /media/FLAT"
                 " || bash -c 'mkdir -p /srv/flat/{lower,upper,work}; mount -t overlay -o "
                 "lowerdir=/srv/flat/lower,upperdir=/srv/flat/upper,workdir=/srv/flat/work overlay /media/FLAT'");
    const Settings job = Settings{{"opt_full_backup_freq", "EVERY_TIME"}} + remote_end(kKinds[0], {.path = "tree"});
    run_job(job + destination_share("media", "FLAT"));
    EXPECT_EQ(result(), 0) << error_log();
    EXPECT_EQ(shell_output("stat -c %u:%g /media/FLAT/tree/a"), "0:0\n");
    umount2("/media/FLAT", MNT_DETACH);
    umount2("/srv/flat", MNT_DETACH);
    rmdir("/media/FLAT");

    run_job(job + destination_usb("2"));
    EXPECT_EQ(result(), 0) << error_log();
    EXPECT_EQ(shell_output("stat -c %u:%g:%a /media/STICK/tree/a"), "1001:1002:600\n");
}

TEST_F(RsyncServers, ExcludedNamesStayBehind) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        for (const char *name : {"keep", "a.tmp", "folder/b.tmp", "cache/c", ".snapshot/d", "snapshot/e"})
            write_file(source_of(kind) + "/" + name, "x");
        run_job(tree_job(kind, {.more = {{"opt_rsync_exclude", ",,*.tmp,cache/,"}}}));
        EXPECT_EQ(result(), 0) << error_log();
        const std::vector<std::string> names = list_folder(copy_of(kind));
        if (kind.upload)
            EXPECT_THAT(names, ElementsAre(".snapshot", "folder", "keep", "snapshot"));
        else
            EXPECT_THAT(names, ElementsAre("folder", "keep", "snapshot"));
        EXPECT_THAT(list_folder(copy_of(kind) + "/folder"), IsEmpty());
    }
}

TEST_F(RsyncServers, WholeSourcesTravelUnderTheirName) {
    const RsyncDaemon daemon({public_module()});
    write_file("/data/Pictures/a", "x");
    write_file("/data/Pictures/snapshot/old", "x");
    write_file("/data/._share/Pictures/snapdir.conf", "/data/Pictures/snapshot\n");
    write_file("/data/Music/b", "x");
    write_file("/home/alice/c", "x");
    write_file("/data/.timemachine/d", "x");
    write_file("/media/STICK/photos/e", "x");
    const struct {
        const char *name;
        Settings source;
        const char *arrived;
    } cases[] = {
        {"a share", source_share("data", "Pictures"), "Pictures/a\n"},
        {"a volume",
         {{"src_type", "volume"}, {"src_share_proto", "data"}},
         "data/.timemachine/d\ndata/Music/b\ndata/Pictures/a\n"},
        {"all homes", {{"src_type", "home"}, {"src_share_proto", "*"}}, "home/alice/c\n"},
        {"a home", {{"src_type", "home"}, {"src_share_proto", "alice"}}, "alice/c\n"},
        {"a time machine",
         {{"src_type", "timemachine"}, {"src_share_proto", "tm"}, {"src_share_vol", "data"}},
         "tm/d\n"},
        {"a time machine without a name",
         {{"src_type", "timemachine"}, {"src_share_proto", ""}, {"src_share_vol", "data"}},
         "d\n"},
        {"a disk", source_usb("2"), "photos/e\n"},
        {"a folder of a disk", source_usb("2", "photos"), "e\n"},
        {"a file", source_share("data", "Pictures", "a"), "a\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        run_job(Settings{{"opt_full_backup_freq", "EVERY_TIME"}, {"opt_rsync_exclude", "._share,lost+found"}} +
                test.source + remote_end(kKinds[2], {.path = "up"}));
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_EQ(shell_output("cd " + kRemote + "/up && find . -type f -printf '%P\\n' | sort"), test.arrived);
        remove_tree(kRemote + "/up");
    }
}

TEST_F(RsyncServers, AServerThatRefusesAccessListsGetsASecondAttempt) {
    const RsyncDaemon daemon({{"pub", {"path = " + kRemote, "read only = false", "refuse options = acls"}}});
    for (const Kind &kind : {kKinds[0], kKinds[2]}) {
        SCOPED_TRACE(kind.name);
        write_file(source_of(kind) + "/a", "a");
        run_job(tree_job(kind));
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_EQ(error_log(), "");
        EXPECT_EQ(read_file(copy_of(kind) + "/a"), "a");
    }
}

// ---- what goes wrong -------------------------------------------------------------------------------------------

TEST_F(RsyncServers, RefusalsOfADaemon) {
    write_file("/srv/secrets", "bob:right\n", 0600);
    const RsyncDaemon daemon({public_module(),
                              {"auth", {"path = " + kRemote, "auth users = bob", "secrets file = /srv/secrets"}},
                              {"ro", {"path = " + kRemote, "read only = true"}},
                              {"wo", {"path = " + kRemote, "read only = false", "write only = true"}},
                              {"denied", {"path = " + kRemote, "hosts deny = *"}}});
    write_file(kRemote + "/tree/a", "a");
    write_file(kPictures + "/tree/a", "a");
    const Kind download = kKinds[0];
    const Kind upload = kKinds[2];
    const struct {
        const char *name;
        Kind kind;
        Remote remote;
        int result;
        int exit_code;
        const char *said;
    } cases[] = {
        {"wrong password",
         download,
         {.module = "auth", .more = {{"src_login", "bob"}, {"src_password", "wrong"}}},
         10,
         5,
         "auth failed"},
        {"no password", download, {.module = "auth", .more = {{"src_login", "bob"}}}, 10, 5, "auth failed"},
        {"no log-in", download, {.module = "auth"}, 10, 5, "auth failed"},
        {"the right password",
         download,
         {.module = "auth", .more = {{"src_login", "bob"}, {"src_password", "right"}}},
         0,
         0,
         ""},
        {"unknown module", download, {.module = "nope"}, 10, 5, "Unknown module 'nope'"},
        {"unknown module, upload", upload, {.module = "nope"}, 10, 5, "Unknown module 'nope'"},
        {"host denied", download, {.module = "denied"}, 10, 5, "access denied"},
        {"read-only module", upload, {.module = "ro"}, 6, 1, "module is read only"},
        {"write-only module", download, {.module = "wo"}, 6, 1, "module is write only"},
        {"nobody at the port", download, {.port = 8799}, 6, 10, "Connection refused"},
        {"nobody at the port, upload", upload, {.port = 8799}, 6, 10, "Connection refused"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        EventReceiver events;
        StatusWatcher watcher(kJob);
        run_job(tree_job(test.kind, test.remote));
        EXPECT_EQ(result(), test.result);
        const std::string number = std::to_string(test.exit_code);
        EXPECT_EQ(error_log(), test.result == 0 ? "" : failure_of(number));
        EXPECT_THAT(copy_log(), HasSubstr(test.said));
        const auto received = events.received();
        ASSERT_THAT(received, SizeIs(1));
        EXPECT_THAT(received[0], HasSubstr("status=\"" + std::to_string(test.result) + "\""));
        EXPECT_THAT(watcher.seen().back(),
                    testing::StartsWith(test.result == 0 ? "BACKUP_STATUS__COMPLETED" : "BACKUP_STATUS__FAILED"));
    }
}

TEST_F(RsyncServers, RefusalsOverSsh) {
    const SshServer sshd;
    write_file(kRemote + "/tree/a", "a");
    write_file(kPictures + "/tree/a", "a");
    write_file(SshServer::kAcceptedKeys, "");
    for (const Kind &kind : {kKinds[1], kKinds[3]}) {
        SCOPED_TRACE(kind.name);
        run_job(tree_job(kind));
        // The sending side may notice the end of the connection before that of ssh.
        const bool cut = error_log().find("return rc 12\n") != std::string::npos;
        const std::string number = cut ? "12" : "255";
        EXPECT_EQ(result(), cut && kind.upload ? 12 : 6);
        EXPECT_EQ(error_log(), failure_of(number, "root@127.0.0.1: Permission denied (publickey).\n"));
        run_job(tree_job(kind, {.port = 2299}));
        EXPECT_THAT(copy_log(), HasSubstr("Connection refused"));
        EXPECT_THAT(error_log(), HasSubstr("Failed to run rsync, return rc "));
        EXPECT_TRUE(result() == 6 || (kind.upload && result() == 12)) << error_log();
    }
}

TEST_F(RsyncServers, MissingSourcesAndParents) {
    const RsyncDaemon daemon({public_module()});
    write_file(kPictures + "/tree/a", "a");
    run_job(job_of(kKinds[0], {.path = "missing"}));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(), HasSubstr("rc 23"));
    run_job(job_of(kKinds[2], {.path = "no/such/parent"}, "tree"));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(), HasSubstr("rc 11"));
    run_job(job_of(kKinds[2], {.path = "up"}, "missing"));
    EXPECT_EQ(result(), 5);
    EXPECT_EQ(error_log(), "Path /data/Pictures/missing does not exist!\n");
}

TEST_F(RsyncServers, WhatMayNotBeReadIsToldAndTheRestArrives) {
    const RsyncDaemon daemon({{"pub", {"path = " + kRemote, "uid = nobody", "gid = nogroup"}}});
    write_file(kRemote + "/tree/closed", "x", 0600);
    write_file(kRemote + "/tree/open", "x", 0644);
    make_folder(kRemote + "/tree/locked");
    ASSERT_EQ(chmod((kRemote + "/tree/locked").c_str(), 0700), 0);
    run_job(tree_job(kKinds[0]));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(), AllOf(HasSubstr("send_files failed to open \"/tree/closed\" (in pub): Permission denied"),
                                   HasSubstr("opendir \"/tree/locked\" (in pub) failed: Permission denied")));
    EXPECT_EQ(read_file(copy_of(kKinds[0]) + "/open"), "x");
    EXPECT_FALSE(file_exists(copy_of(kKinds[0]) + "/closed"));
}

TEST_F(RsyncServers, WhatMayNotBeWrittenIsTold) {
    const RsyncDaemon daemon({{"pub", {"path = " + kRemote, "read only = false", "uid = nobody", "gid = nogroup"}}});
    make_folder(kRemote + "/up");
    write_file(kPictures + "/tree/a", "a");
    run_job(tree_job(kKinds[2]));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(), HasSubstr("Permission denied (13)"));
}

TEST_F(RsyncServers, AFullDestination) {
    const RsyncDaemon daemon({public_module(), {"full", {"path = /media/STICK", "read only = false"}}});
    write_filler(kRemote + "/tree/big", 40 * kMebibyte);
    run_job(Settings{{"opt_full_backup_freq", "EVERY_TIME"}} + remote_end(kKinds[0], {.path = "tree/big"}) +
            destination_usb("2"));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(),
                AllOf(HasSubstr("Failed to run rsync, return rc 11\n"), HasSubstr("No space left on device (28)")));

    remove_tree("/media/STICK/big");
    write_filler(kPictures + "/tree/big", 40 * kMebibyte);
    run_job(tree_job(kKinds[2], {.module = "full"}));
    EXPECT_EQ(result(), 6);
    EXPECT_THAT(error_log(),
                AllOf(HasSubstr("Failed to run rsync, return rc 11\n"), HasSubstr("No space left on device (28)")));
}

TEST_F(RsyncServers, AServerThatGoesDownInTheMiddleOfAFile) {
    for (const Kind &kind : kKinds) {
        SCOPED_TRACE(kind.name);
        start_over();
        std::unique_ptr<Server> server;
        if (kind.ssh)
            server = std::make_unique<SshServer>();
        else
            server = std::make_unique<RsyncDaemon>(std::vector<RsyncModule>{public_module()});
        Line line(kLinePort, server->port(), 8 * kMebibyte);
        write_filler(source_of(kind) + "/big", 12 * kMebibyte);
        JobFile().job(kJob, tree_job(kind, {.port = kLinePort})).write();
        Program program({"-e", "7"});
        ASSERT_TRUE(wait_until([&] { return line.passed() > 4 * kMebibyte; }));
        line.refuse();
        server->stop();
        EXPECT_EQ(program.wait().status, 0);
        EXPECT_TRUE(result() == 6 || (kind.upload && result() == 12)) << error_log();
        if (!kind.ssh) {
            EXPECT_EQ(result(), 6);
            EXPECT_THAT(error_log(), HasSubstr("Failed to run rsync, return rc 10\n"));
        }
        EXPECT_FALSE(same_trees(source_of(kind), copy_of(kind)));
    }
}

TEST_F(RsyncServers, ALineThatBreaksEveryTime) {
    const RsyncDaemon daemon({public_module()});
    Line line(kLinePort, RsyncDaemon::kPort);
    line.break_after(2 * kMebibyte);
    for (const Kind &kind : {kKinds[0], kKinds[2]}) {
        SCOPED_TRACE(kind.name);
        write_filler(source_of(kind) + "/big", 12 * kMebibyte);
        run_job(tree_job(kind, {.port = kLinePort}));
        // What rsync makes of it depends on whether it was reading or writing.
        const bool reading = error_log().find("return rc 12\n") != std::string::npos;
        const std::string number = reading ? "12" : "10";
        EXPECT_EQ(error_log(), failure_of(number));
        EXPECT_EQ(result(), kind.upload && reading ? 12 : 6);
    }
}

TEST_F(RsyncServers, ASilentServer) {
    const RsyncDaemon daemon({public_module()});
    for (const Kind &kind : {kKinds[0], kKinds[2]}) {
        SCOPED_TRACE(kind.name);
        Line line(kLinePort, RsyncDaemon::kPort);
        line.fall_silent();
        write_file(source_of(kind) + "/a", "a");
        const Outcome outcome = run_job(tree_job(kind, {.port = kLinePort}),
                                        {.environment = {{"SHORT_WAITS_LOG", "/srv/waits"}}, .preload = {kShortWaits}});
        EXPECT_EQ(result(), 6);
        EXPECT_EQ(error_log(), "Failed to run rsync, return rc -62\n'rsync' command returns rc=-62\n");
        const std::string caller = kind.upload ? "backup_local_to_rsync" : "backup_rsync_to_local";
        for (const char *left : {"2", "1"})
            EXPECT_THAT(outcome.err, HasSubstr(caller + " rsync download failed, rtry " + left + ".\n"));
        EXPECT_EQ(read_file("/srv/waits"), "10800.000000\n10800.000000\n10800.000000\n10800.000000\n");
        remove_tree("/srv/waits");
    }
}

// ---- host keys -------------------------------------------------------------------------------------------------

TEST_F(RsyncServers, NewAndChangedHostKeys) {
    const Kind kind = kKinds[1];
    write_file(source_of(kind) + "/a", "a");
    {
        const SshServer sshd;
        run_job(tree_job(kind));
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_THAT(copy_log(), HasSubstr("Warning: Permanently added '[127.0.0.1]:2222' (ED25519) to the list of "
                                          "known hosts."));
        EXPECT_TRUE(file_exists(SshServer::kKnownHosts));
        run_job(tree_job(kind));
        EXPECT_EQ(result(), 0) << error_log();
        EXPECT_THAT(copy_log(), Not(HasSubstr("Warning")));
    }
    // Keys are all that logs in, so a server that was set up anew goes on being used; the log tells of it.
    const std::string known = read_file(SshServer::kKnownHosts);
    SshServer::replace_host_key();
    const SshServer sshd;
    write_file(SshServer::kKnownHosts, known);
    run_job(tree_job(kind));
    EXPECT_EQ(result(), 0) << error_log();
    EXPECT_THAT(copy_log(), HasSubstr("REMOTE HOST IDENTIFICATION HAS CHANGED"));
    EXPECT_EQ(read_file(copy_of(kind) + "/a"), "a");
}

// ---- cancelling ------------------------------------------------------------------------------------------------

TEST_F(RsyncServers, ACancelledTransferLeavesNothingBehind) {
    const RsyncDaemon daemon({public_module()});
    const SshServer sshd;
    for (const Kind &kind : kKinds)
        // With the virus scanner the job's mounts are everybody's, and the canceller has to take them down.
        for (const char *scanner : {"0", "1"}) {
            SCOPED_TRACE(std::string(kind.name) + ", scanner " + scanner);
            start_over();
            set_service("ANTIVIRUS", scanner);
            Line line(kLinePort, kind.ssh ? SshServer::kPort : RsyncDaemon::kPort, 2 * kMebibyte);
            write_filler(source_of(kind) + "/big", 12 * kMebibyte);
            JobFile().job(kJob, tree_job(kind, {.port = kLinePort})).write();
            EventReceiver events;
            Program job({"-e", "7"});
            ASSERT_TRUE(wait_until([&] { return line.passed() > kMebibyte; }));
            EXPECT_EQ(file_exists("/tmp/" + std::to_string(job.pid()) + "/tree"), kind.upload);
            EXPECT_EQ(run_program({"-k", "7"}, {.environment = {}, .preload = {kShortWaits}}).status, 0);
            EXPECT_EQ(job.wait().status, 0);
            EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
            EXPECT_EQ(result(), 11);
            const auto received = events.received();
            ASSERT_THAT(received, SizeIs(1));
            EXPECT_THAT(received[0], HasSubstr("status=\"11\""));
            EXPECT_THAT(leftovers(), IsEmpty());
            EXPECT_EQ(file_exists(source_of(kind) + "/big"), true);
        }
}

} // namespace
} // namespace tsbackup::test
