// Jobs against three real FTP servers, plain and with TLS, and against one that lies.

#include "ftp_jobs.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kLinePort = 2120;

class Ftp : public FtpJobs {};

class FtpNewestTls : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_FTP_SERVERS();
        reset_ends();
    }
};

/// Where the server's kind alone matters.
class FtpPlain : public Ftp {};

INSTANTIATE_TEST_SUITE_P(Servers, FtpPlain,
                         testing::Values(FtpServerOptions{FtpKind::vsftpd, false},
                                         FtpServerOptions{FtpKind::proftpd, false},
                                         FtpServerOptions{FtpKind::pureftpd, false}),
                         ftp_server_name);
INSTANTIATE_TEST_SUITE_P(
    Servers, Ftp,
    testing::Values(FtpServerOptions{FtpKind::vsftpd, false}, FtpServerOptions{FtpKind::proftpd, false},
                    FtpServerOptions{FtpKind::pureftpd, false}, FtpServerOptions{FtpKind::vsftpd, true},
                    FtpServerOptions{FtpKind::proftpd, true}, FtpServerOptions{FtpKind::pureftpd, true}),
    ftp_server_name);

// ---- both directions -------------------------------------------------------------------------------------------

TEST_P(Ftp, ATreeIsFetchedAndThenOnlyWhatIsNewer) {
    TreeOptions tree;
    tree.awkward_names = false;
    tree.folders = 4;
    tree.files = 10; // one of the servers takes half a second for each log-in
    make_tree(kHome + "/base/tree", tree);
    settle(kHome);
    const FtpServer server(GetParam());

    const Outcome outcome = run_job(download("base/"));
    EXPECT_EQ(last_result(kJob), 0) << outcome.err;
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kHome + "/base", kBackup, kNamesContentsTimes));
    EXPECT_THAT(copied(), testing::Contains("Copy (D) tree"));
    EXPECT_THAT(outcome.err, Not(HasSubstr(FtpServer::kPassword)));

    run_job(download("base"));
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(copied(), IsEmpty());

    const std::string some = list_folder(kHome + "/base/tree").front();
    write_file(kHome + "/base/tree/new file", "new");
    FtpServer::give_home_to_user();
    run_job(download("base"));
    EXPECT_THAT(copied(), testing::ElementsAre("Copy (F) tree/new file"));
    EXPECT_TRUE(same_trees(kHome + "/base", kBackup, kNamesAndContents)) << some;
}

TEST_P(Ftp, ATreeIsSentAndThenOnlyWhatIsNewerWhereTheServerKeepsTimes) {
    TreeOptions tree;
    tree.awkward_names = false;
    tree.folders = 4;
    tree.files = 10; // one of the servers takes half a second for each log-in
    make_tree(kPictures, tree);
    settle(kPictures);
    const FtpServer server(GetParam());

    const Outcome outcome = run_job(upload());
    EXPECT_EQ(last_result(kJob), 0) << outcome.err;
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up", sets_times() ? kNamesContentsTimes : kNamesAndContents));
    EXPECT_THAT(outcome.err, Not(HasSubstr(FtpServer::kPassword)));

    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    if (sets_times()) {
        EXPECT_THAT(copied(), IsEmpty());
    }
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up", kNamesAndContents));
}

TEST_F(FtpNewestTls, AServerWithNothingOlderGetsItsFiles) {
    write_file(kPictures + "/folder/file", "content");
    const FtpServer server({FtpKind::proftpd, true, true});
    const Outcome outcome = run_job(upload());
    EXPECT_EQ(last_result(kJob), 0) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("200 Protection set to Private"));
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up", kNamesAndContents));
}

// What a name holds must not change which file is meant.
const std::vector<std::string> kNames = {"a blank",     "hash#x.txt", "100%41",        "%41",     "A",        "what?",
                                         "semi;type=a", "star*",      "[bracket]",     "{brace}", "quote'\"", "-dash",
                                         ".hidden",     "..two",      "umla\xc3\xbct", "plus+&=", "co,mm:a@", "~tilde",
                                         "$(id)",       "back`tick",  "last.",         "hash"};

TEST_P(FtpPlain, NamesStayWhatTheyAreInBothDirections) {
    for (const std::string &name : kNames) {
        write_file(kPictures + "/" + name, "content of " + name);
    }
    // ProFTPD makes no directory whose name is a pattern.
    const char *odd = GetParam().kind == FtpKind::proftpd ? "dir ?;" : "dir ?;*[x]";
    for (const char *folder : {"hash#dir", "100%25", odd, ".dir"})
        write_file(kPictures + "/" + folder + "/inner", std::string("inner content of ") + folder);
    settle(kPictures);
    const FtpServer server(GetParam());
    run_job(upload("base #1"));
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_TRUE(same_trees(kPictures, kHome + "/base #1", kNamesAndContents));

    const Outcome outcome = run_job(download("base #1"));
    EXPECT_EQ(last_result(kJob), 0) << outcome.err;
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kPictures, kBackup, kNamesAndContents));
    run_job(download("base #1"));
    EXPECT_THAT(copied(), IsEmpty());
}

TEST_P(Ftp, AFileLandsInItsOwnDirectoryBehindEmptyOnes) {
    for (const char *folder : {"/empty1", "/zz/empty2", "/m"})
        make_folder(kPictures + folder);
    for (const char *file : {"/first", "/zz/second", "/m/third"})
        write_file(kPictures + file, file);
    settle(kPictures);
    const FtpServer server(GetParam());
    run_job(upload(""));
    EXPECT_EQ(last_result(kJob), 0) << error_log();
    EXPECT_TRUE(same_trees(kPictures, kHome, kNamesAndContents));
    EXPECT_EQ(copied(), sorted({"Copy (D) empty1", "Copy (D) m", "Copy (D) zz", "Copy (D) zz/empty2", "Copy (F) first",
                                "Copy (F) m/third", "Copy (F) zz/second"}));
}

TEST_P(FtpPlain, NothingIsEverDeletedOnTheServer) {
    write_file(kHome + "/up/old", "old");
    write_file(kPictures + "/new", "new");
    const FtpServer server(GetParam());
    const Outcome outcome =
        run_job(upload() + Settings{{"opt_full_backup_freq", "EVERY_TIME"}, {"opt_remove_previous_backup", "1"}});
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(read_file(kHome + "/up/old"), "old");
    EXPECT_EQ(read_file(kHome + "/up/new"), "new");
}

TEST_P(FtpPlain, FoldersNamedSnapshotAndLinksAreNotSent) {
    write_file(kPictures + "/snapshot/x", "x");
    write_file(kPictures + "/a", "a");
    ASSERT_EQ(symlink("a", (kPictures + "/link").c_str()), 0);
    const FtpServer server(GetParam());
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(list_folder(kHome + "/up"), testing::ElementsAre("a"));
}

// ---- failures --------------------------------------------------------------------------------------------------

TEST_P(FtpPlain, ADeniedLogInEndsTheRun) {
    write_file(kHome + "/a", "a");
    write_file(kPictures + "/a", "a");
    const FtpServer server(GetParam());
    run_job(download("", FtpServer::kPort, "wrong"));
    EXPECT_EQ(last_result(kJob), 7);
    EXPECT_EQ(error_log(), "Login denied!\n");
    EXPECT_THAT(list_folder(kBackup), IsEmpty());

    run_job(upload("up", FtpServer::kPort, "wrong"));
    EXPECT_EQ(last_result(kJob), 7);
    EXPECT_EQ(error_log(), "Failed to login the remote server! Login denied\n");
    EXPECT_FALSE(file_exists(kHome + "/up"));
}

TEST_P(Ftp, AFileThatCannotBeReadIsToldAndTheRestArrives) {
    for (const char *name : {"a", "b", "c", "d"})
        write_file(kHome + "/" + name, std::string("content ") + name);
    write_file(kHome + "/z/below", "below");
    const FtpServer server(GetParam());
    ASSERT_EQ(chmod((kHome + "/b").c_str(), 0), 0);
    ASSERT_EQ(chown((kHome + "/b").c_str(), 0, 0), 0);
    const Outcome outcome = run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "Failed to copy b\n") << outcome.err;
    EXPECT_EQ(copied(), sorted({"Copy (D) z", "Copy (F) a", "Copy (F) c", "Copy (F) d", "Copy (F) z/below"}));
    EXPECT_THAT(outcome.err, HasSubstr("Ignore the CURL failure. "));
}

TEST_P(FtpPlain, AFolderThatMayNotBeWrittenIsTold) {
    write_file(kPictures + "/closed/a", "a");
    write_file(kPictures + "/z", "z");
    const FtpServer server(GetParam());
    make_folder(kHome + "/up/closed");
    ASSERT_EQ(shell_output("chown 1003 " + kHome + "/up && chown 0:0 " + kHome + "/up/closed && chmod 0755 " + kHome +
                           "/up/closed"),
              "");
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(kHome + "/up/z"), "z");
    EXPECT_FALSE(file_exists(kHome + "/up/closed/a"));

    ASSERT_EQ(shell_output("rmdir " + kHome + "/up/closed && chown 0:0 " + kHome + "/up"), "");
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_THAT(error_log(), HasSubstr("Failed to create remote directory up/closed! Quote command returned error\n"));
}

TEST_P(FtpPlain, AFileCutInTheMiddleIsFetchedAgain) {
    write_filler(kHome + "/big", 8 * kMebibyte);
    set_time(kHome + "/big", kSomeTime);
    const FtpServer server(GetParam());
    ASSERT_EQ(shell_output("mount -t tmpfs -o size=4m small /vault/Backup"), "");
    run_job(download());
    EXPECT_EQ(error_log(), "Failed to copy big\n");
    struct stat status {};
    ASSERT_EQ(stat((kBackup + "/big").c_str(), &status), 0);
    EXPECT_NE(status.st_mtim.tv_sec, kSomeTime);
    shell_output("umount /vault/Backup");
    run_job(download());
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesContentsTimes));
}

TEST_P(FtpPlain, ACancelLeavesNothingBehindAndTheNextRunCompletes) {
    write_filler(kHome + "/big", 8 * kMebibyte);
    set_time(kHome + "/big", kSomeTime);
    const FtpServer server(GetParam());
    JobFile().job(kJob, download()).write();
    {
        // Halted by its own full pipe of diagnostics it cannot be; the file's first bytes are waited for.
        Program worker({"-e", "7"});
        ASSERT_TRUE(wait_until([] { return file_exists(kBackup + "/big"); }));
        const Outcome canceller = run_program({"-k", "7"}, {.environment = {}, .preload = {}});
        EXPECT_EQ(canceller.status, 0);
        worker.wait();
    }
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesContentsTimes));
}

TEST_P(FtpPlain, ManyFilesInOneFolderAndADeepTree) {
    constexpr int kFiles = 2000;
    constexpr int kLevels = 60;
    for (int number = 0; number < kFiles; ++number)
        write_file(kHome + "/many/" + std::to_string(number), std::to_string(number));
    std::string deep = kHome + "/deep";
    for (int level = 0; level < kLevels; ++level)
        deep += "/level" + std::to_string(level);
    write_file(deep + "/bottom", "bottom");
    const FtpServer server(GetParam());
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesAndContents));
}

// ---- without a server ------------------------------------------------------------------------------------------

class FtpWithoutServer : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
    }
};

TEST_F(FtpWithoutServer, ARefusedConnectionIsTold) {
    run_job(download("", kLinePort));
    EXPECT_EQ(last_result(kJob), 10);
    EXPECT_EQ(error_log(), "Cannot connect to server or connection timeout! Couldn't connect to server\n");
    write_file(kPictures + "/a", "a");
    run_job(upload("up", kLinePort));
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "Failed to run CWD command! Couldn't connect to server\n");
}

TEST_F(FtpWithoutServer, AMissingSourceIsTold) {
    run_job(ftp_options() + source_share("data", "Pictures", "nowhere") +
            Settings{{"dst_type", "remote"}, {"dst_share_proto", "ftp"}, {"dst_path", "127.0.0.1"}});
    EXPECT_EQ(last_result(kJob), 5);
    EXPECT_THAT(error_log(), HasSubstr("/Pictures/nowhere does not exist!\n"));
}

/// A server whose only directory holds what it says. It lets everybody in.
class LyingServer {
  public:
    explicit LyingServer(std::string listing) : listing_(std::move(listing)) {
        listener_ = listen_at(kLinePort);
        thread_ = std::thread([this] { serve(); });
    }
    ~LyingServer() {
        ended_ = true;
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    LyingServer(const LyingServer &) = delete;
    LyingServer &operator=(const LyingServer &) = delete;

  private:
    static int listen_at(int port) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd, 8), 0);
        return fd;
    }

    static void say(int fd, const std::string &text) {
        static_cast<void>(send(fd, text.data(), text.size(), MSG_NOSIGNAL));
    }

    static bool line_of(int fd, std::string &line) {
        line.clear();
        char byte = 0;
        while (read(fd, &byte, 1) == 1) {
            if (byte == '\n') return true;
            if (byte != '\r') line += byte;
        }
        return false;
    }

    void serve() {
        std::vector<std::thread> sessions;
        while (!ended_) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) break;
            sessions.emplace_back([this, fd] { talk(fd); });
        }
        for (std::thread &session : sessions)
            session.join();
    }

    void talk(int fd) {
        int data_listener = -1;
        std::string line;
        say(fd, "220 hello\r\n");
        while (line_of(fd, line)) {
            const std::string verb = line.substr(0, line.find(' '));
            if (verb == "USER") {
                say(fd, "230 in\r\n");
            } else if (verb == "PWD") {
                say(fd, "257 \"/\"\r\n");
            } else if (verb == "EPSV") {
                if (data_listener >= 0) close(data_listener);
                data_listener = listen_at(0);
                sockaddr_in address{};
                socklen_t size = sizeof address;
                getsockname(data_listener, reinterpret_cast<sockaddr *>(&address), &size);
                say(fd, "229 (|||" + std::to_string(ntohs(address.sin_port)) + "|)\r\n");
            } else if (verb == "LIST" || verb == "RETR") {
                say(fd, "150 comes\r\n");
                const int data = accept4(data_listener, nullptr, nullptr, SOCK_CLOEXEC);
                say(data, verb == "LIST" ? listing_ : "owned");
                close(data);
                say(fd, "226 done\r\n");
            } else if (verb == "SIZE") {
                say(fd, "213 5\r\n");
            } else if (verb == "MDTM") {
                say(fd, "213 20200101000000\r\n");
            } else if (verb == "AUTH") {
                say(fd, "502 no\r\n");
            } else {
                say(fd, "200 fine\r\n");
            }
        }
        if (data_listener >= 0) close(data_listener);
        close(fd);
    }

    std::string listing_;
    int listener_ = -1;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

std::string listed(char type, const std::string &name) {
    return std::string(1, type) + "rw-r--r-- 1 owner group 5 Jan 01 2020 " + name + "\r\n";
}

TEST_F(FtpWithoutServer, NoListingLeadsOutOfTheDestination) {
    const std::string before = shell_output("find / -xdev -name '*owned*' 2>/dev/null; ls -R /vault/Backup");
    const LyingServer server(listed('-', "../owned1") + listed('-', "/etc/owned2") + listed('-', "a/owned3") +
                             listed('-', "..") + listed('-', "good") + listed('l', "link -> /etc"));
    const Outcome outcome = run_job(download("", kLinePort));
    EXPECT_THAT(copied(), testing::ElementsAre("Copy (F) good"));
    EXPECT_THAT(outcome.err, HasSubstr("Refuse remote name "));
    EXPECT_THAT(outcome.err, HasSubstr("Unknown or un supported filetype "));
    EXPECT_THAT(list_folder(kBackup), testing::ElementsAre("good"));
    EXPECT_THAT(list_folder("/vault/Backup"), testing::ElementsAre("copy"));
    EXPECT_FALSE(file_exists("/etc/owned2"));
    EXPECT_EQ(before.find("owned"), std::string::npos);
}

TEST_F(FtpWithoutServer, LinksInTheDestinationAreNotFollowed) {
    make_folder(kBackup);
    make_folder("/srv/elsewhere");
    ASSERT_EQ(symlink("/srv/elsewhere", (kBackup + "/folder").c_str()), 0);
    ASSERT_EQ(symlink("/srv/elsewhere/file", (kBackup + "/file").c_str()), 0);
    const LyingServer server(listed('d', "folder") + listed('-', "file"));
    run_job(download("", kLinePort));
    EXPECT_THAT(list_folder("/srv/elsewhere"), IsEmpty());
    EXPECT_THAT(error_log(), HasSubstr("Failed to copy file\n"));
}

} // namespace
} // namespace tsbackup::test
