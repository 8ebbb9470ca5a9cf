// Downloads against a server whose answers are chosen: what is told of a failure, and what goes on after it.

#include "download.h"

#include "remote_run.h"
#include "scripted_ftp_server.h"
#include "support.h"
#include "tsbackup_ftp.h"

#include <array>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::int64_t kStartOf2020 = 1'577'836'800;

std::string text_of(CURLcode result) { return curl_easy_strerror(result); }

FtpRule listing(const std::string &lines, int uses = FtpRule::kAlways, FtpThen then = FtpThen::goes_on) {
    return {"LIST", "226 done", then, uses, lines};
}

std::string file_line(const std::string &name) { return ftp_listing_line('-', name); }
std::string folder_line(const std::string &name) { return ftp_listing_line('d', name); }

/// A download from a loopback port, and the run it belongs to.
struct Downloading {
    explicit Downloading(int port) : download{{}, run, ftp_open(), ftp_open()} {
        run.clock_failed = 1; // no status file
        download.endpoint.host = "127.0.0.1";
        download.endpoint.port = port;
        download.endpoint.path = "base";
    }
    LoggedRun run;
    Download download;
};

class FtpGet : public testing::Test {
  protected:
    std::string file(const std::string &name) const { return folder_ / name; }
    CURLcode get(Downloading &down) const { return _ftp_mget_recurse(down.download, "", folder_.path()); }
    time_t time_of(const std::string &name) const {
        struct stat status {};
        return stat(file(name).c_str(), &status) == 0 ? status.st_mtim.tv_sec : -1;
    }

    TempFolder folder_;
};

// ---- what arrives ------------------------------------------------------------------------------------------------

TEST_F(FtpGet, ATree) {
    const ScriptedFtpServer server(
        {listing(folder_line(".") + folder_line("..") + file_line("f") + folder_line("d"), 1),
         listing(file_line("g") + folder_line("e"), 1)});
    Downloading down(server.port());
    const Diagnostics diagnostics;
    get(down);
    EXPECT_TRUE(down.run.silent());
    EXPECT_EQ(down.run.copies(), "Copy (F) f\nCopy (D) d\nCopy (F) d/g\nCopy (D) d/e\n");
    EXPECT_EQ(read_file(file("f")) + read_file(file("d/g")), "1234512345");
    EXPECT_THAT(list_folder(file("d/e")), IsEmpty());
    EXPECT_EQ(time_of("f"), kStartOf2020);
    EXPECT_EQ(down.run.bytes, 10);
    const std::string logged = diagnostics.without_places();
    for (const std::string &line :
         {"_ftp_mget_recurse(," + folder_.path() + ")\n", "_ftp_mget_recurse(d," + file("d") + ")\n",
          "_ftp_mget_recurse(d/e," + file("d/e") + ")\n"})
        EXPECT_THAT(logged, HasSubstr("(debug) " + line));
    EXPECT_THAT(server.commands("CWD d"), Not(IsEmpty()));
}

TEST_F(FtpGet, OnlyWhatIsNotUpToDate) {
    const struct {
        const char *name;
        time_t local;
        std::vector<FtpRule> rules;
        bool fetched;
        time_t time; ///< afterwards; -1: some other
    } cases[] = {
        {"the same time", kStartOf2020, {}, false, kStartOf2020},
        {"a second newer than the server's", kStartOf2020 + 1, {}, false, kStartOf2020 + 1},
        {"two seconds newer", kStartOf2020 + 2, {}, true, kStartOf2020},
        {"a second older", kStartOf2020 - 1, {}, true, kStartOf2020},
        {"a server without times", kStartOf2020, {{"MDTM", "500 what?"}}, true, -1},
        {"a server without sizes", kStartOf2020, {{"SIZE", "500 what?"}}, true, -1},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        write_file(file("f"), "old");
        const std::array<timespec, 2> times = {timespec{test.local, 0}, timespec{test.local, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, file("f").c_str(), times.data(), 0), 0);
        std::vector<FtpRule> rules = test.rules;
        rules.push_back(listing(file_line("f")));
        const ScriptedFtpServer server(rules);
        Downloading down(server.port());
        get(down);
        EXPECT_EQ(read_file(file("f")), test.fetched ? "12345" : "old");
        EXPECT_EQ(down.run.copies(), test.fetched ? "Copy (F) f\n" : "");
        EXPECT_TRUE(down.run.silent());
        if (test.time >= 0) {
            EXPECT_EQ(time_of("f"), test.time);
        } else {
            EXPECT_GT(time_of("f"), kStartOf2020 + 1000);
        }
    }
}

TEST_F(FtpGet, AFileOfAnotherSizeThanAnnouncedIsToldAndTheRestArrives) {
    const ScriptedFtpServer server(
        {listing(file_line("a") + file_line("b") + file_line("c")), {"SIZE b", "213 7", FtpThen::goes_on}});
    Downloading down(server.port());
    get(down);
    EXPECT_EQ(down.run.errors(), "Failed to copy b\n");
    EXPECT_EQ(down.run.error_code, 0);
    EXPECT_THAT(down.run.copies(), HasSubstr("Copy (F) a\n"));
    EXPECT_THAT(down.run.copies(), HasSubstr("Copy (F) c\n"));
    EXPECT_THAT(down.run.copies(), Not(HasSubstr("Copy (F) b\n")));
    EXPECT_EQ(time_of("b"), 0) << "it must be fetched again, whatever its time on the server";
}

TEST_F(FtpGet, AnEmptyFile) {
    const ScriptedFtpServer server(
        {{"LIST", "226 done", FtpThen::goes_on, FtpRule::kAlways, ftp_listing_line('-', "f", 0)},
         {"SIZE", "213 0", FtpThen::goes_on},
         {"RETR", "226 done", FtpThen::goes_on, FtpRule::kAlways, ""}});
    Downloading down(server.port());
    get(down);
    EXPECT_TRUE(down.run.silent());
    EXPECT_EQ(down.run.copies(), "Copy (F) f\n");
    EXPECT_TRUE(file_exists(file("f")));
    EXPECT_NE(time_of("f"), kStartOf2020) << "the time of an empty file is not taken over";
}

TEST_F(FtpGet, OtherThingsThanFilesAndFoldersAreTold) {
    const ScriptedFtpServer server({listing(ftp_listing_line('l', "link -> f") + ftp_listing_line('p', "pipe") +
                                            ftp_listing_line('s', "socket") + file_line("f"))});
    Downloading down(server.port());
    const Diagnostics diagnostics(3);
    get(down);
    const std::string logged = diagnostics.without_places();
    for (const char *name : {"2 for link\n", "5 for pipe\n", "6 for socket\n"})
        EXPECT_THAT(logged, HasSubstr(std::string("(error) Unknown or un supported filetype ") + name));
    EXPECT_THAT(list_folder(folder_.path()), ElementsAre("f"));
    EXPECT_TRUE(down.run.silent());
}

// ---- failures ----------------------------------------------------------------------------------------------------

TEST_F(FtpGet, FailuresOfADirectory) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
        int sessions; ///< a transfer is not repeated
    } cases[] = {
        {"a denied password", {{"PASS", "530 no"}}, CURLE_LOGIN_DENIED, 1},
        {"a denied user", {{"USER", "530 no"}}, CURLE_LOGIN_DENIED, 1},
        {"idle", {{"LIST", "421 Timeout.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT, 1},
        {"too many users", {{"", "421 Too many users.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT, 1},
        {"a directory that is not there", {{"CWD", "550 no"}}, CURLE_REMOTE_ACCESS_DENIED, 1},
        {"an empty one", {listing("")}, CURLE_REMOTE_FILE_NOT_FOUND, 1},
        {"no FTP server", {{"", "500 no"}}, CURLE_WEIRD_SERVER_REPLY, 1},
        {"a broken connection", {{"CWD", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR, 1},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Downloading down(server.port());
        const Diagnostics diagnostics(6);
        EXPECT_EQ(get(down), test.result);
        EXPECT_EQ(server.sessions(), test.sessions);
        const std::string number = std::to_string(static_cast<int>(test.result));
        const std::string text = text_of(test.result);
        const std::string failed = "(error) CURL failed. " + number + " :" + text + "\n";
        if (test.result == CURLE_LOGIN_DENIED) {
            EXPECT_TRUE(down.run.recorded(7, "curl_easy_perform() return 67", text + "!\n"));
            EXPECT_EQ(diagnostics.without_places(), failed);
        } else if (test.result == CURLE_OPERATION_TIMEDOUT) {
            EXPECT_TRUE(down.run.recorded(10, "curl_easy_perform() return 28",
                                          "Cannot connect to server or connection timeout! " + text + "\n"));
            EXPECT_EQ(diagnostics.without_places(), failed);
        } else {
            EXPECT_TRUE(down.run.silent());
            EXPECT_EQ(diagnostics.without_places(),
                      failed + "(error) Ignore the CURL failure. " + number + " :" + text + "!\n");
        }
    }
}

TEST_F(FtpGet, NobodyListens) {
    Downloading down(unused_port());
    const Diagnostics diagnostics(6);
    EXPECT_EQ(get(down), CURLE_COULDNT_CONNECT);
    const std::string text = text_of(CURLE_COULDNT_CONNECT);
    EXPECT_TRUE(down.run.recorded(10, "curl_easy_perform() return 7",
                                  "Cannot connect to server or connection timeout! " + text + "\n"));
    EXPECT_EQ(diagnostics.without_places(), "(error) CURL failed. 7 :" + text + "\n");
}

TEST_F(FtpGet, AFailedFolderLeavesItsSiblings) {
    const struct {
        const char *reply;
        int code;
        std::string error_log;
    } cases[] = {
        {"550 no", 0, ""},
        {"421 Timeout.", 10,
         "Cannot connect to server or connection timeout! " + text_of(CURLE_OPERATION_TIMEDOUT) + "\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.reply);
        remove_tree(file("a"));
        remove_tree(file("b"));
        const ScriptedFtpServer server({{"CWD a", test.reply, FtpThen::goes_on},
                                        listing(folder_line("a") + folder_line("b"), 1),
                                        listing(file_line("f"))});
        Downloading down(server.port());
        get(down);
        EXPECT_EQ(down.run.error_code, test.code);
        EXPECT_EQ(down.run.errors(), test.error_log);
        EXPECT_EQ(down.run.copies(), "Copy (D) a\nCopy (D) b\nCopy (F) b/f\n");
    }
}

// The directory above tells it once more.
TEST_F(FtpGet, ALogInThatIsDeniedOnTheWayEndsTheDownload) {
    const ScriptedFtpServer server({{"PASS", "230 in", FtpThen::goes_on, 1},
                                    {"PASS", "530 no", FtpThen::goes_on},
                                    listing(folder_line("a") + folder_line("b"), 1),
                                    listing(folder_line("c"), 1, FtpThen::hangs_up)});
    Downloading down(server.port());
    EXPECT_EQ(get(down), CURLE_LOGIN_DENIED);
    const std::string line = text_of(CURLE_LOGIN_DENIED) + "!\n";
    EXPECT_TRUE(down.run.recorded(7, "curl_easy_perform() return 67", line + line));
    EXPECT_EQ(server.sessions(), 2);
    EXPECT_EQ(down.run.copies(), "Copy (D) a\nCopy (D) b\n");
}

TEST_F(FtpGet, FilesThatMayNotBeReadAreToldAndTheRestArrives) {
    std::string lines;
    for (const char *name : {"a", "b", "c", "d", "e"})
        lines += file_line(name);
    const ScriptedFtpServer server(
        {listing(lines), {"RETR b", "550 no", FtpThen::goes_on}, {"RETR d", "550 no", FtpThen::goes_on}});
    Downloading down(server.port());
    const Diagnostics diagnostics(3);
    get(down);
    EXPECT_EQ(down.run.errors(), "Failed to copy b\nFailed to copy d\n");
    EXPECT_EQ(down.run.error_code, 0);
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(error) Ignore the CURL failure. "));
    for (const char *name : {"a", "c", "e"})
        EXPECT_EQ(read_file(file(name)), "12345") << name;
    EXPECT_EQ(server.commands("RETR").size(), 5U) << "each is asked for once";
}

} // namespace
} // namespace tsbackup::test
