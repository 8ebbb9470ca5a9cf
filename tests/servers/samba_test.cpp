// Jobs that fetch a share as an archive, against a real smbd, with the real smbclient and tar.

#include "aftermath.h"
#include "job_runs.h"
#include "server.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr int kJob = 7;
constexpr int kPort = 445;        ///< where the program looks for a server
constexpr int kHiddenPort = 4450; ///< a server's port behind a line
constexpr std::size_t kMebibyte = 1 << 20;
const std::string kRemote = "/media/USB/remote"; ///< what the server serves
const std::string kBackup = "/vault/Backup";
const std::string kCopy = "/vault/Backup/copy";

/// Samba on the loopback. The owner's right to execute a file is its archive bit.
class SmbServer : public Server {
  public:
    explicit SmbServer(int port = kPort)
        : Server({"smbd", "--foreground", "--no-process-group", "-s", configuration(port)}, port) {}

  private:
    static std::string configuration(int port) {
        const std::string folder = "/srv/smb";
        std::string text = "[global]\n"
                           "server role = standalone server\n"
                           "map to guest = Bad User\n"
                           "guest account = nobody\n"
                           "interfaces = lo\n"
                           "bind interfaces only = yes\n"
                           "disable netbios = yes\n"
                           "load printers = no\n"
                           "printing = bsd\n"
                           "printcap name = /dev/null\n"
                           "server min protocol = SMB2\n"
                           "unix charset = UTF-8\n"
                           "map archive = yes\n"
                           "store dos attributes = no\n"
                           "smb ports = " +
                           std::to_string(port) + "\nlog file = " + folder + "/log\npassdb backend = tdbsam:" + folder +
                           "/users.tdb\n";
        for (const char *kind : {"private", "lock", "state", "cache", "pid"}) {
            text += std::string(kind) + (std::string(kind) == "private" ? " dir = " : " directory = ") + folder + "/" +
                    kind + "\n";
            make_folder(folder + "/" + kind);
        }
        text += "ncalrpc dir = " + folder + "/ncalrpc\n";
        make_folder(folder + "/ncalrpc");
        const std::string share = "path = " + kRemote + "\nread only = no\n";
        text += "[pub]\n" + share + "guest ok = yes\nforce user = root\n";
        text += "[sp ace]\n" + share + "guest ok = yes\nforce user = root\n";
        text += "[auth]\n" + share + "valid users = bob\nforce user = root\n";
        text += "[as bob]\n" + share + "valid users = bob\n";
        text += "[read only]\npath = " + kRemote + "\nread only = yes\nguest ok = yes\nforce user = root\n";
        write_file(folder + "/conf", text);
        if (!file_exists(folder + "/users.tdb"))
            shell_output("printf 'right $(w)\\nright $(w)\\n' | smbpasswd -c " + folder + "/conf -s -a bob");
        return folder + "/conf";
    }
};

Settings job_of(const std::string &path, bool full, const Settings &more = {}) {
    return Settings{{"name", "Box & share"},
                    {"opt_max_log_lines", "1000"},
                    {"opt_full_backup_freq", full ? "EVERY_TIME" : "NEVER"},
                    {"src_type", "remote"},
                    {"src_share_proto", "cifs-ab"},
                    {"src_path", path}} +
           more;
}
Settings to_share(const std::string &path = "copy") { return destination_share("vault", "Backup", path); }
Settings login(const std::string &user, const std::string &password) {
    return {{"src_login", user}, {"src_password", password}};
}

Outcome run_job(const Settings &settings) {
    JobFile().job(kJob, settings).write();
    return run_program({"-v", "7", "-e", std::to_string(kJob)});
}

std::string error_log() { return read_file(error_log_path(kJob)); }
std::string copy_log(int job_id = kJob) { return read_file(kept_copy_log_path(job_id)); }

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// A file on the server whose archive bit is set.
void write_marked(const std::string &path, const std::string &content) {
    write_file(kRemote + "/" + path, content, 0744);
}
bool is_marked(const std::string &path) {
    struct stat status {};
    return stat((kRemote + "/" + path).c_str(), &status) == 0 && (status.st_mode & S_IXUSR) != 0;
}

/// The files below a folder.
std::vector<std::string> files_below(const std::string &folder) {
    std::vector<std::string> files;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file()) files.push_back(entry.path().lexically_relative(folder));
    return files;
}

/// The files below a folder with what they hold.
std::map<std::string, std::string> contents(const std::string &folder) {
    std::map<std::string, std::string> held;
    for (const std::string &file : files_below(folder))
        held[file] = read_file(folder + "/" + file);
    return held;
}

bool runs(const std::string &program) {
    for (const std::string &name : list_folder("/proc"))
        if (read_file("/proc/" + name + "/comm") == program + "\n") return true;
    return false;
}

/// What a run leaves behind that it should not.
std::vector<std::string> leftovers() {
    std::vector<std::string> left;
    if (!wait_until([] { return !runs("smbclient") && !runs("tar"); }, 5s)) left.emplace_back("a running tool");
    for (const std::string &name : list_folder(kWorkFolder))
        left.push_back(name);
    return left;
}

class SambaServer : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        make_folder(kRemote);
        write_file("/etc/samba/smb.conf", "[global]\n");
        make_folder("/run/samba");
    }
    void TearDown() override {
        if (!volumes()) return;
        EXPECT_THAT(leftovers(), IsEmpty());
    }
    /// Four files in three folders, and an empty one.
    static void make_share_tree() {
        write_marked("a.txt", "aa");
        write_marked("d1/b.txt", "b");
        write_marked("d1/d2/c.txt", "c");
        write_marked("d1/d2/d e.txt", "");
        make_folder(kRemote + "/empty");
    }
};

// ---- what arrives ----------------------------------------------------------------------------------------------

TEST_F(SambaServer, AFullRunWithItsBooks) {
    const SmbServer server;
    make_share_tree();
    ASSERT_EQ(shell_output("touch -d '2001-02-03 04:05:06' " + kRemote + "/d1/b.txt"), "");
    EventReceiver events;
    StatusWatcher watcher(kJob);
    const Outcome outcome = run_job(job_of("//127.0.0.1/pub", true) + to_share());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(last_result(kJob), 0) << outcome.err << error_log();

    EXPECT_THAT(files_below(kCopy), UnorderedElementsAre("a.txt", "d1/b.txt", "d1/d2/c.txt", "d1/d2/d e.txt"));
    EXPECT_THAT(list_folder(kCopy + "/empty"), IsEmpty());
    EXPECT_EQ(read_file(kCopy + "/a.txt"), "aa");
    EXPECT_EQ(read_file(kCopy + "/d1/d2/c.txt"), "c");
    EXPECT_EQ(shell_output("stat -c %y " + kCopy + "/d1/b.txt"), "2001-02-03 04:05:06.000000000 +0000\n");
    EXPECT_THAT(lines_of(copy_log()),
                UnorderedElementsAre("./a.txt", "./d1/", "./empty/", "./d1/b.txt", "./d1/d2/", "./d1/d2/c.txt",
                                     "./d1/d2/d e.txt", "", "Copied 4 files and 0 directories", "",
                                     "Copied 7 files and directories"));
    EXPECT_TRUE(copy_log().ends_with("\n\nCopied 7 files and directories\n"));
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_text("name: Box & share\nfull: yes\nproto: cifs-ab\nsrc: [remote:cifs-ab]///127.0.0.1/pub\n"
                          "dst: [share:Backup]/copy\nstart: TIME\nfinish: TIME\nstatus: 0\nlog:\n",
                          with_placeholders(read_file(history_path(kJob)))));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Box &amp; share", 0)));
    EXPECT_THAT(states(watcher),
                ElementsAre("BACKUP_STATUS__IN_PROGRESS,1!!TIME!!OK", "BACKUP_STATUS__COMPLETED!!TIME!!OK"));
}

TEST_F(SambaServer, AnIncrementalRunFetchesWhatIsMarkedAndBothKindsResetTheMark) {
    const SmbServer server;
    make_share_tree();
    ASSERT_EQ(chmod((kRemote + "/a.txt").c_str(), 0644), 0);
    run_job(job_of("//127.0.0.1/pub", false) + to_share());
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_THAT(files_below(kCopy), UnorderedElementsAre("d1/b.txt", "d1/d2/c.txt", "d1/d2/d e.txt"));
    for (const char *file : {"a.txt", "d1/b.txt", "d1/d2/c.txt", "d1/d2/d e.txt"})
        EXPECT_FALSE(is_marked(file)) << file;

    // Nothing is marked any more; the folders come along all the same.
    run_job(job_of("//127.0.0.1/pub", false) + to_share());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(lines_of(copy_log()),
                UnorderedElementsAre("./d1/", "./d1/d2/", "./empty/", "", "Copied 0 files and 0 directories", "",
                                     "Copied 3 files and directories"));

    write_marked("d1/b.txt", "changed");
    ASSERT_EQ(chmod((kRemote + "/d1/b.txt").c_str(), 0744), 0);
    write_marked("new.txt", "new");
    run_job(job_of("//127.0.0.1/pub", false) + to_share());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(read_file(kCopy + "/d1/b.txt"), "changed");
    EXPECT_EQ(read_file(kCopy + "/new.txt"), "new");
    EXPECT_THAT(copy_log(), AllOf(HasSubstr("./new.txt\n"), HasSubstr("\nCopied 2 files and 0 directories\n"),
                                  Not(HasSubstr("c.txt"))));

    // A full run takes all of them.
    write_marked("new.txt", "new");
    run_job(job_of("//127.0.0.1/pub", true) + to_share("full"));
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(files_below(kBackup + "/full"),
                UnorderedElementsAre("a.txt", "d1/b.txt", "d1/d2/c.txt", "d1/d2/d e.txt", "new.txt"));
    EXPECT_FALSE(is_marked("new.txt"));
}

TEST_F(SambaServer, AFolderArrivesWithoutTheFoldersAboveIt) {
    const SmbServer server;
    for (const char *folder :
         {"d1/d2/d3", "sp dir", "br[ab]", "it's", "-dash", "--command=del x", "a;b&c", "$(x)`y`", "#x", "b\xc3\xa4r"}) {
        write_marked(std::string(folder) + "/file", folder);
        write_marked(std::string(folder) + "/below/file", folder);
    }
    const struct {
        const char *path;
        const char *folder;
    } cases[] = {
        {"//127.0.0.1/pub/d1/d2/d3", "d1/d2/d3"},
        {"\\\\127.0.0.1\\pub\\d1\\d2\\d3", "d1/d2/d3"},
        {"//127.0.0.1//pub//d1//d2", "d1/d2"},
        {"//localhost/sp ace/sp dir", "sp dir"},
        {"//127.0.0.1/pub/br[ab]", "br[ab]"},
        {"//127.0.0.1/pub/it's", "it's"},
        {"//127.0.0.1/pub/-dash", "-dash"},
        {"//127.0.0.1/pub/--command=del x", "--command=del x"},
        {"//127.0.0.1/pub/a;b&c", "a;b&c"},
        {"//127.0.0.1/pub/$(x)`y`", "$(x)`y`"},
        {"//127.0.0.1/pub/#x", "#x"},
        {"//127.0.0.1/pub/b\xc3\xa4r", "b\xc3\xa4r"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.path);
        remove_tree(kCopy);
        run_job(job_of(test.path, true) + to_share());
        EXPECT_EQ(last_result(kJob), 0) << error_log();
        EXPECT_EQ(contents(kCopy), contents(kRemote + "/" + test.folder));
    }
    // A separator that is not the path's own does not count, although the server takes it for one.
    remove_tree(kCopy);
    run_job(job_of("//127.0.0.1/pub/d1\\d2", true) + to_share());
    EXPECT_EQ(contents(kCopy + "/d2"), contents(kRemote + "/d1/d2"));
}

TEST_F(SambaServer, NamesWithEveryCharacterThatSharesAllow) {
    const SmbServer server;
    std::vector<std::string> names = {"-rf",
                                      "--help",
                                      "#x",
                                      "~root",
                                      "$HOME",
                                      "$(id)",
                                      "`id`",
                                      "a;b",
                                      "a&b",
                                      "it's",
                                      "{a,b}",
                                      "[ab]",
                                      "(a)",
                                      "a^b",
                                      "!x",
                                      "100%",
                                      "a+b=c",
                                      "a@b",
                                      " leading",
                                      ".hidden",
                                      "..x",
                                      "a,b",
                                      "two  blanks",
                                      "caf\xc3\xa9",
                                      "\xe6\x97\xa5\xe6\x9c\xac",
                                      "\xe2\x98\x83",
                                      "No space left",
                                      "NT_STATUS_X",
                                      "Domain=x",
                                      "Error reading file",
                                      "Connection to x failed",
                                      std::string(200, 'n')};
    for (char character = ' ' + 1; character < 127; ++character)
        if (std::string("\"*/:<>?\\|").find(character) == std::string::npos)
            names.push_back(std::string("c") + character + "c");
    for (const std::string &name : names) {
        // Upper and lower case letters are one name there.
        if (file_exists(kRemote + "/files/" + name)) continue;
        write_marked("files/" + name, name);
        write_marked("folders/" + name + "/in", name);
    }
    run_job(job_of("//127.0.0.1/pub", true) + to_share());
    EXPECT_EQ(contents(kCopy), contents(kRemote));
    // Kept: a name with those words in it counts as a full disk, as it always has.
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_THAT(lines_of(error_log()), Each(HasSubstr("/No space left")));
    EXPECT_THAT(copy_log(), AllOf(HasSubstr("./files/two  blanks\n"), HasSubstr("./files/NT_STATUS_X\n"),
                                  HasSubstr("./files/caf\xc3\xa9\n")));

    // What no share can have in a name arrives under a substitute.
    remove_tree(kRemote);
    for (const char *name : {"co:lon", "qu?estion", "st*ar", "line\nend", "trailing ", "dot."})
        write_marked(name, name);
    run_job(job_of("//127.0.0.1/pub", true) + to_share("again"));
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    std::vector<std::string> arrived;
    for (const auto &[name, content] : contents(kBackup + "/again"))
        arrived.push_back(content);
    EXPECT_THAT(arrived, UnorderedElementsAre("co:lon", "qu?estion", "st*ar", "line\nend", "trailing ", "dot."));
}

TEST_F(SambaServer, ABigFileArrivesWhole) {
    const SmbServer server;
    write_filler(kRemote + "/big", 20 * kMebibyte);
    run_job(job_of("//127.0.0.1/pub", true) + to_share());
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_TRUE(read_file(kCopy + "/big") == read_file(kRemote + "/big"));
}

TEST_F(SambaServer, TwoJobsAtOnce) {
    const SmbServer server;
    make_share_tree();
    write_filler(kRemote + "/d1/big", 4 * kMebibyte);
    write_filler(kRemote + "/empty/big", 4 * kMebibyte);
    JobFile()
        .job(7, job_of("//127.0.0.1/pub/d1", true) + to_share("seven"))
        .job(8, job_of("//127.0.0.1/auth/empty", true) + login("bob", "right $(w)") + to_share("eight"))
        .write();
    Program seven({"-e", "7"});
    Program eight({"-e", "8"});
    EXPECT_EQ(seven.wait().status, 0);
    EXPECT_EQ(eight.wait().status, 0);
    EXPECT_EQ(last_result(7), 0);
    EXPECT_EQ(last_result(8), 0);
    EXPECT_TRUE(contents(kBackup + "/seven") == contents(kRemote + "/d1"));
    EXPECT_TRUE(contents(kBackup + "/eight") == contents(kRemote + "/empty"));
    EXPECT_THAT(copy_log(7), AllOf(HasSubstr("./d1/big\n"), Not(HasSubstr("./empty"))));
    EXPECT_EQ(copy_log(8).find("./d1"), std::string::npos);
}

// ---- log-ins ---------------------------------------------------------------------------------------------------

TEST_F(SambaServer, LogIns) {
    const SmbServer server;
    make_share_tree();
    const struct {
        const char *name;
        Settings login;
        bool accepted;
    } cases[] = {
        {"the right password", login("bob", "right $(w)"), true},
        {"with a domain", login("WORKGROUP\\bob", "right $(w)"), true},
        {"a wrong one", login("bob", "wrong"), false},
        {"none", login("bob", ""), false},
        {"an unknown user", login("eve", "right $(w)"), false},
        {"a guest", {}, false},
        {"a password without a user", login("", "right $(w)"), false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        remove_tree(kCopy);
        const Outcome outcome = run_job(job_of("//127.0.0.1/auth", true) + test.login + to_share());
        EXPECT_EQ(last_result(kJob), test.accepted ? 0 : 7) << error_log();
        EXPECT_EQ(files_below(kCopy).size(), test.accepted ? 4U : 0U);
        if (test.accepted) {
            EXPECT_EQ(error_log(), "");
        } else {
            EXPECT_THAT(lines_of(error_log()),
                        ElementsAre(testing::MatchesRegex("(session setup|tree connect) failed: "
                                                          "NT_STATUS_(LOGON_FAILURE|WRONG_PASSWORD|ACCESS_DENIED)")));
            EXPECT_EQ(copy_log(), "");
        }
        EXPECT_THAT(outcome.err, Not(HasSubstr("right $(w)")));
    }
}

TEST_F(SambaServer, ThePasswordIsOnNoCommandLine) {
    const SmbServer server(kHiddenPort);
    const Line line(kPort, kHiddenPort, 2 * kMebibyte);
    write_filler(kRemote + "/big", 4 * kMebibyte);
    JobFile().job(kJob, job_of("//127.0.0.1/auth", true) + login("bob", "right $(w)") + to_share()).write();
    Program program({"-v", "7", "-e", "7"});
    ASSERT_TRUE(wait_until([&] { return line.passed() > kMebibyte; }));
    bool seen = false;
    for (const std::string &name : list_folder("/proc")) {
        const std::string words = read_file("/proc/" + name + "/cmdline");
        EXPECT_THAT(words, Not(HasSubstr("right")));
        if (words.starts_with("smbclient")) seen = true;
    }
    EXPECT_TRUE(seen);
    const Outcome outcome = program.wait();
    EXPECT_THAT(outcome.err, Not(HasSubstr("right")));
    EXPECT_EQ(last_result(kJob), 0) << error_log();
}

// ---- what goes wrong -------------------------------------------------------------------------------------------

TEST_F(SambaServer, WhatTheServerDoesNotHave) {
    const SmbServer server;
    make_share_tree();
    const struct {
        const char *name;
        const char *path;
        int result;
        const char *error_log;
        const char *copied;
    } cases[] = {
        {"an unknown share", "//127.0.0.1/nope", 99, "tree connect failed: NT_STATUS_BAD_NETWORK_NAME\n", ""},
        {"no share", "//127.0.0.1", 6, "", ""},
        {"a missing folder", "//127.0.0.1/pub/nope", 99, "NT_STATUS_NO_SUCH_FILE listing \\nope\n", ""},
        {"a missing folder of a missing folder", "//127.0.0.1/pub/nope/x", 99,
         "NT_STATUS_OBJECT_NAME_NOT_FOUND listing \\nope\\x\n", ""},
        {"a slash at the end", "//127.0.0.1/pub/d1/", 99, "NT_STATUS_NO_SUCH_FILE listing \\d1\\\n", ""},
        // All of the file's path is stripped, so that nothing is left to extract; nobody reports that.
        {"a file", "//127.0.0.1/pub/a.txt", 0, "", "\nCopied 1 files and 0 directories\n"},
        {"an unknown host", "//nosuch.invalid/pub", 6, "", ""},
        {"nobody at the port", "//127.0.0.2/pub", 6, "", ""},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        EventReceiver events;
        StatusWatcher watcher(kJob);
        const Outcome outcome = run_job(job_of(test.path, true) + to_share());
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(last_result(kJob), test.result);
        EXPECT_EQ(error_log(), test.error_log);
        EXPECT_EQ(copy_log(), test.copied);
        EXPECT_THAT(files_below(kCopy), IsEmpty());
        EXPECT_EQ(outcome.err.find("'cp' command returns rc=512") != std::string::npos, test.result == 6);
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Box &amp; share", test.result)));
        EXPECT_EQ(states(watcher).back(),
                  test.result == 0 ? "BACKUP_STATUS__COMPLETED!!TIME!!OK" : "BACKUP_STATUS__FAILED!!TIME!!warn");
    }
}

TEST_F(SambaServer, MalformedPaths) {
    for (const char *path : {"127.0.0.1/pub", "smb://127.0.0.1/pub", ""}) {
        SCOPED_TRACE(path);
        const Outcome outcome = run_job(job_of(path, true) + to_share());
        EXPECT_EQ(last_result(kJob), 1);
        EXPECT_EQ(error_log(), "Path " + std::string(path) + " is in a wrong format!\n");
        EXPECT_THAT(outcome.err, HasSubstr("Mulformed path=" + std::string(path) + "\n"));
        EXPECT_FALSE(file_exists(kCopy));
    }
}

TEST_F(SambaServer, WhatMayNotBeReadIsToldAndTheRestArrives) {
    const SmbServer server;
    make_share_tree();
    write_file(kRemote + "/closed", "x", 0600);
    ASSERT_EQ(chmod((kRemote + "/d1/d2").c_str(), 0700), 0);
    ASSERT_EQ(shell_output("chmod -R a+rw " + kRemote + "/a.txt " + kRemote + "/d1/b.txt"), "");
    run_job(job_of("//127.0.0.1/as bob", true) + login("bob", "right $(w)") + to_share());
    EXPECT_EQ(last_result(kJob), 7);
    EXPECT_THAT(error_log(), AllOf(HasSubstr("NT_STATUS_ACCESS_DENIED opening remote file \\closed\n"),
                                   HasSubstr("NT_STATUS_ACCESS_DENIED listing \\d1\\d2\\*\n")));
    EXPECT_EQ(read_file(kCopy + "/a.txt"), "aa");
    EXPECT_EQ(read_file(kCopy + "/d1/b.txt"), "b");
    EXPECT_FALSE(file_exists(kCopy + "/closed"));
}

TEST_F(SambaServer, MarksThatMayNotBeResetAreNoFailure) {
    const SmbServer server;
    make_share_tree();
    run_job(job_of("//127.0.0.1/read only", true) + to_share());
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_EQ(contents(kCopy), contents(kRemote));
    EXPECT_TRUE(is_marked("a.txt"));
}

TEST_F(SambaServer, AFullDisk) {
    const SmbServer server;
    for (const char *name : {"1", "2", "3"})
        write_filler(kRemote + "/" + name, 20 * kMebibyte);
    run_job(job_of("//127.0.0.1/pub", true) + destination_usb("2"));
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_THAT(lines_of(error_log()),
                AllOf(Not(IsEmpty()), Each(HasSubstr(": Cannot write: No space left on device"))));

    // tar has other words for the file during which the disk becomes full.
    reset_appliance();
    write_filler(kRemote + "/big", 40 * kMebibyte);
    const Outcome outcome = run_job(job_of("//127.0.0.1/pub", true) + destination_usb("2"));
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(outcome.err, HasSubstr("'cp' command returns rc=512"));
    EXPECT_EQ(error_log(), "");
}

TEST_F(SambaServer, ADestinationThatCannotBeWritten) {
    const SmbServer server;
    make_share_tree();
    ASSERT_EQ(shell_output("mount -o remount,ro /media/STICK"), "");
    run_job(job_of("//127.0.0.1/pub", true) + destination_usb("2"));
    EXPECT_EQ(shell_output("mount -o remount,rw /media/STICK"), "");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "");
}

TEST_F(SambaServer, ADestinationThatIsAFileLeavesTheMarks) {
    const SmbServer server;
    make_share_tree();
    write_file(kCopy, "a file");
    run_job(job_of("//127.0.0.1/pub", false) + to_share());
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(kCopy), "a file");
    EXPECT_TRUE(is_marked("a.txt"));
}

TEST_F(SambaServer, AServerThatGoesDownInTheMiddleOfAFile) {
    write_filler(kRemote + "/big", 12 * kMebibyte);
    SmbServer server(kHiddenPort);
    Line line(kPort, kHiddenPort, 4 * kMebibyte);
    JobFile().job(kJob, job_of("//127.0.0.1/pub", true) + to_share()).write();
    Program program({"-v", "7", "-e", "7"});
    ASSERT_TRUE(wait_until([&] { return line.passed() > 4 * kMebibyte; }));
    line.refuse();
    server.stop();
    const Outcome outcome = program.wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(error_log(), StartsWith("Error reading file \\big : NT_STATUS_CONNECTION_DISCONNECTED\n"));
}

// ---- cancelling ------------------------------------------------------------------------------------------------

TEST_F(SambaServer, ACancelledTransferLeavesNothingBehind) {
    const SmbServer server(kHiddenPort);
    write_filler(kRemote + "/big", 12 * kMebibyte);
    for (const char *scanner : {"0", "1"}) {
        SCOPED_TRACE(std::string("scanner ") + scanner);
        remove_tree(kCopy);
        set_service("ANTIVIRUS", scanner);
        const Line line(kPort, kHiddenPort, 4 * kMebibyte);
        JobFile().job(kJob, job_of("//127.0.0.1/auth", true) + login("bob", "right $(w)") + to_share()).write();
        EventReceiver events;
        Program job({"-e", "7"});
        ASSERT_TRUE(wait_until([&] { return line.passed() > 2 * kMebibyte; }));
        EXPECT_EQ(run_program({"-k", "7"}, {.environment = {}, .preload = {kShortWaits}}).status, 0);
        EXPECT_EQ(job.wait().status, 0);
        EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
        EXPECT_EQ(last_result(kJob), 11);
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Box &amp; share", 11)));
        EXPECT_THAT(leftovers(), IsEmpty());
    }
}

} // namespace
} // namespace tsbackup::test
