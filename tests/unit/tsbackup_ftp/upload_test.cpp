// Uploads against a server whose answers are chosen: what is sent, what is told, what ends a directory or the run.

#include "upload.h"

#include "remote_run.h"
#include "scripted_ftp_server.h"
#include "support.h"
#include "tsbackup_ftp.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr std::int64_t kStartOf2020 = 1'577'836'800;
const FtpRule kDenied = {"PASS", "530 no"};

std::string text_of(CURLcode result) { return curl_easy_strerror(result); }
std::string number_and_text(CURLcode result, const char *between) {
    return std::to_string(static_cast<int>(result)) + between + text_of(result);
}

/// An upload to a loopback port, and the run it belongs to.
struct Uploading {
    explicit Uploading(int port, const std::string &base = "base") : upload{{}, run, ftp_open(), ftp_open(), {}} {
        run.clock_failed = 1; // no status file
        upload.endpoint.host = "127.0.0.1";
        upload.endpoint.port = port;
        upload.endpoint.path = base;
    }
    LoggedRun run;
    Upload upload;
};

void write_dated(const std::string &path, const std::string &content, time_t seconds) {
    write_file(path, content);
    const std::array<timespec, 2> times = {timespec{seconds, 0}, timespec{seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

// ---- the probe ---------------------------------------------------------------------------------------------------

TEST(FtpSiteCommand, AnswersThatMeanThatItIsThere) {
    const struct {
        const char *reply;
        bool supported;
    } cases[] = {
        {"200 fine", true},
        {"213 UTIME OK", true},
        {"202 superfluous", true},
        // Servers that know the command miss its arguments; that is how those answer that do not know it, too.
        {"500 'SITE UTIME' not understood", true},
        {"500 Unknown SITE command.", true},
        {"501 No file name", true},
        {"550 no", true},
        {"450 later", true}, // a success to the library
        {"502 Command not implemented.", false},
        {"504 Command not implemented for that parameter", false},
        {"502 not implemented", false},
        {"502 No such command", true},
        {"504 No such parameter", true},
        {"502 Command NOT IMPLEMENTED", true},
        {"500 Command not implemented", true},
        {"500 not implemented (502)", false},
        {"500 not implemented, see section 5041", false},
        {"502-Sorry.\r\n502 Command not implemented.", false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.reply);
        const ScriptedFtpServer server({{"SITE", test.reply, FtpThen::goes_on}});
        Uploading up(server.port());
        EXPECT_EQ(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint), test.supported);
        EXPECT_THAT(server.commands("SITE"), ElementsAre("site utime"));
        EXPECT_THAT(server.commands("CWD"), IsEmpty());
        EXPECT_TRUE(up.run.silent());
    }
}

TEST(FtpSiteCommand, AnythingElseMeansThatItIsNot) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
        std::size_t calls;
    } cases[] = {
        {"a denied log-in", {kDenied}, CURLE_LOGIN_DENIED, 0},
        {"a denied user", {{"USER", "530 no"}}, CURLE_LOGIN_DENIED, 0},
        {"idle for ever", {{"SITE", "421 Timeout.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"no FTP server", {{"", "500 no"}}, CURLE_WEIRD_SERVER_REPLY, 0},
        {"a broken connection", {{"SITE", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR, 1},
        {"no data connections",
         {{"EPSV", "500 no"}, {"PASV", "500 no"}, {"EPRT", "500 no"}, {"PORT", "500 no"}},
         CURLE_FTP_WEIRD_PASV_REPLY,
         0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        const Diagnostics diagnostics(3);
        EXPECT_FALSE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
        EXPECT_EQ(diagnostics.without_places(),
                  "(error) _check_site_command curl_easy_perform failed: " + number_and_text(test.result, " ") + "\n");
        EXPECT_EQ(server.commands("SITE").size(), test.calls);
        EXPECT_TRUE(up.run.silent());
    }
}

TEST(FtpSiteCommand, NobodyListens) {
    Uploading up(unused_port());
    const Diagnostics diagnostics(3);
    EXPECT_FALSE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
    EXPECT_EQ(diagnostics.without_places(), "(error) _check_site_command curl_easy_perform failed: " +
                                                number_and_text(CURLE_COULDNT_CONNECT, " ") + "\n");
}

TEST(FtpSiteCommand, AnIdleConnectionIsReplaced) {
    const ScriptedFtpServer server({{"SITE", "421 Timeout.", FtpThen::hangs_up, 1}});
    Uploading up(server.port());
    EXPECT_TRUE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
    EXPECT_EQ(server.commands("SITE").size(), 2U);
}

TEST(FtpSiteCommand, EveryLineOfTheServerIsLogged) {
    const ScriptedFtpServer server({{"SITE", "200-many\r\n lines\r\n200 fine", FtpThen::goes_on}});
    Uploading up(server.port());
    {
        const Diagnostics diagnostics(7);
        _check_site_command(up.upload.command_handle.get(), up.upload.endpoint);
        for (const char *line : {"220 hello", "331 and the password?", "230 in", "200-many", " lines", "200 fine"})
            EXPECT_THAT(diagnostics.without_places(), HasSubstr(std::string("(debug) ") + line + "\r\n"));
        EXPECT_THAT(diagnostics.text(), Not(HasSubstr("@localhost")));
    }
    const Diagnostics quiet(6);
    _check_site_command(up.upload.command_handle.get(), up.upload.endpoint);
    EXPECT_EQ(quiet.text(), "");
}

// What a server says when encryption is asked for is no answer to the command.
TEST(FtpSiteCommand, TheAnswerToTheCommandDecides) {
    const ScriptedFtpServer server({{"AUTH", "502 Command not implemented.", FtpThen::goes_on}});
    Uploading up(server.port());
    EXPECT_TRUE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
}

TEST(FtpSiteCommand, FindsOutWhetherTheServerTakesOldEncryption) {
    {
        const ScriptedFtpServer server;
        Uploading up(server.port());
        EXPECT_TRUE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
        EXPECT_TRUE(up.upload.endpoint.old_tls);
        EXPECT_EQ(server.sessions(), 1);
    }
    const ScriptedFtpServer broken({{"AUTH", "234 and nothing comes of it", FtpThen::hangs_up}});
    Uploading up(broken.port());
    EXPECT_FALSE(_check_site_command(up.upload.command_handle.get(), up.upload.endpoint));
    EXPECT_FALSE(up.upload.endpoint.old_tls);
    EXPECT_EQ(broken.sessions(), 2);
    EXPECT_THAT(broken.commands("USER"), IsEmpty()) << "nobody logs in without the encryption that was agreed on";
}

// ---- whether a directory is there --------------------------------------------------------------------------------

TEST(FtpIsDir, Results) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
        std::size_t calls;
    } cases[] = {
        {"it is", {}, CURLE_OK, 1},
        {"it is missing", {{"CWD", "550 no such folder"}}, CURLE_QUOTE_ERROR, 1},
        {"any refusal says so", {{"CWD", "500 what?"}}, CURLE_QUOTE_ERROR, 1},
        {"for now, too", {{"CWD", "450 later"}}, CURLE_QUOTE_ERROR, 1},
        {"idle once", {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}}, CURLE_OK, 2},
        {"idle once, then missing",
         {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}, {"CWD", "550 no"}},
         CURLE_QUOTE_ERROR,
         2},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        const Diagnostics diagnostics(5);
        EXPECT_EQ(_ftp_isdir(up.upload, "a b"), test.result);
        EXPECT_THAT(server.commands("CWD"), testing::Each("CWD /base/a b"));
        EXPECT_EQ(server.commands("CWD").size(), test.calls);
        EXPECT_EQ(diagnostics.text(), "");
        EXPECT_TRUE(up.run.silent());
        EXPECT_EQ(up.run.copies(), "");
    }
}

TEST(FtpIsDir, Failures) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
    } cases[] = {
        {"a denied password", {kDenied}, CURLE_LOGIN_DENIED},
        {"a denied user", {{"USER", "530 no"}}, CURLE_LOGIN_DENIED},
        {"idle for ever", {{"CWD", "421 Timeout.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT},
        {"no FTP server", {{"", "500 no"}}, CURLE_WEIRD_SERVER_REPLY},
        {"a broken connection", {{"CWD", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR},
        {"broken encryption", {{"AUTH", "234 come", FtpThen::hangs_up}}, CURLE_SSL_CONNECT_ERROR},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        const Diagnostics diagnostics(5);
        EXPECT_EQ(_ftp_isdir(up.upload, "a b"), test.result);
        EXPECT_EQ(diagnostics.without_places(),
                  "(error) curl_easy_perform('CWD base/a b') failed: " + number_and_text(test.result, " ") + "\n");
        const std::string text = text_of(test.result);
        if (test.result == CURLE_LOGIN_DENIED) {
            EXPECT_TRUE(up.run.recorded(7, "Login failed to destination\n",
                                        "Failed to login the remote server! " + text + "\n"));
        } else {
            EXPECT_TRUE(
                up.run.recorded(6, "Error from curl " + text + "\n", "Failed to run CWD command! " + text + "\n"));
        }
    }
}

TEST(FtpIsDir, NobodyListens) {
    Uploading up(unused_port());
    const Diagnostics diagnostics(5);
    EXPECT_EQ(_ftp_isdir(up.upload, ""), CURLE_COULDNT_CONNECT);
    const std::string text = text_of(CURLE_COULDNT_CONNECT);
    EXPECT_EQ(diagnostics.without_places(), "(error) curl_easy_perform('CWD base') failed: 7 " + text + "\n");
    EXPECT_TRUE(up.run.recorded(6, "Error from curl " + text + "\n", "Failed to run CWD command! " + text + "\n"));
}

TEST(FtpIsDir, Paths) {
    const struct {
        const char *base;
        const char *relative;
        const char *command;
    } cases[] = {
        {"base", "", "CWD /base"}, {"base", "a/b", "CWD /base/a/b"},       {"", "a", "CWD /a"},
        {"", "", "CWD /."},        {"base", "100%41", "CWD /base/100%41"},
    };
    for (const auto &test : cases) {
        const ScriptedFtpServer server;
        Uploading up(server.port(), test.base);
        EXPECT_EQ(_ftp_isdir(up.upload, test.relative), CURLE_OK);
        EXPECT_THAT(server.commands("CWD"), ElementsAre(test.command));
    }
}

TEST(FtpIsDir, WhatCannotBeNamedIsNotAskedFor) {
    const ScriptedFtpServer server;
    for (const std::string &name : {std::string("a\r\nDELE b"), std::string(5000, 'x')}) {
        Uploading up(server.port());
        EXPECT_EQ(_ftp_isdir(up.upload, name), CURLE_URL_MALFORMAT);
        EXPECT_EQ(up.run.error_code, 6);
    }
    EXPECT_EQ(server.sessions(), 0);
}

// ---- creating one ------------------------------------------------------------------------------------------------

TEST(FtpMkdir, Success) {
    const ScriptedFtpServer server;
    Uploading up(server.port());
    const Diagnostics diagnostics;
    EXPECT_EQ(_ftp_mkdir(up.upload, "a b/c"), CURLE_OK);
    EXPECT_THAT(server.commands("MKD"), ElementsAre("MKD /base/a b/c"));
    EXPECT_EQ(up.run.copies(), "Copy (D) a b/c\n");
    EXPECT_TRUE(up.run.silent());
    EXPECT_EQ(diagnostics.without_places(), "(debug) _ftp_mkdir() no dir exist, create base/a b/c\n");
}

TEST(FtpMkdir, AnIdleConnectionIsReplaced) {
    const ScriptedFtpServer server({{"MKD", "421 Timeout.", FtpThen::hangs_up, 2}});
    Uploading up(server.port());
    EXPECT_EQ(_ftp_mkdir(up.upload, "a"), CURLE_OK);
    EXPECT_THAT(server.commands("MKD"), ElementsAre("MKD /base/a", "MKD /base/a", "MKD /base/a"));
    EXPECT_EQ(up.run.copies(), "Copy (D) a\n");
}

TEST(FtpMkdir, Failures) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
    } cases[] = {
        {"not allowed", {{"MKD", "550 no"}}, CURLE_QUOTE_ERROR},
        {"a denied log-in", {kDenied}, CURLE_LOGIN_DENIED},
        {"idle for ever", {{"MKD", "421 Timeout.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT},
        {"a broken connection", {{"MKD", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        EXPECT_EQ(_ftp_mkdir(up.upload, "a"), test.result);
        EXPECT_TRUE(up.run.recorded(6, "Cannot create remote directory 'base/a'\n",
                                    "Failed to create remote directory base/a! " + text_of(test.result) + "\n"));
        EXPECT_EQ(up.run.copies(), "");
    }
}

// ---- whole directories -------------------------------------------------------------------------------------------

class FtpPut : public testing::Test {
  protected:
    std::string file(const std::string &name) const { return folder_ / name; }
    CURLcode put(Uploading &up) const { return _ftp_mput_recurse(up.upload, "", folder_.path()); }

    TempFolder folder_;
};

TEST_F(FtpPut, ATree) {
    write_file(file("f"), "content");
    write_file(file("d/g"), "more");
    write_file(file("snapshot"), "a file of this name is left out, too");
    write_file(file("d/snapshot/x"), "x");
    const ScriptedFtpServer server({{"CWD /base/d", "550 no", FtpThen::goes_on, 1}});
    Uploading up(server.port());
    const Diagnostics diagnostics;
    EXPECT_EQ(put(up), CURLE_OK);
    EXPECT_TRUE(up.run.silent());
    EXPECT_EQ(up.run.copies(), "Copy (F) f\nCopy (D) d\nCopy (F) d/g\n");
    EXPECT_EQ(up.run.bytes, 11);

    const std::vector<FtpStored> stored = server.stored();
    ASSERT_EQ(stored.size(), 2U);
    EXPECT_EQ(stored[0].command + ": " + stored[0].content, "STOR f: content");
    EXPECT_EQ(stored[1].command + ": " + stored[1].content, "STOR g: more");
    EXPECT_EQ(stored[0].folder, "base");
    EXPECT_THAT(server.commands("MKD"), ElementsAre("MKD /base/d"));
    EXPECT_THAT(server.commands("SITE"), IsEmpty());
    EXPECT_THAT(server.commands("DELE"), IsEmpty());

    const std::string logged = diagnostics.without_places();
    for (const std::string &line :
         {"_ftp_mput_recurse(," + folder_.path() + ")\n", "_ftp_mput_recurse(d," + file("d") + ")\n",
          std::string("base already exists\n"), std::string("_ftp_mkdir() no dir exist, create base/d\n"),
          file("f") + " need to copy.\n", "_ftp_put_one() " + file("f") + " ==> f\n",
          std::string("_progress dltotal:'0.000000', dlnow:'0.000000', ultotal:'7.000000', ulnow:'7.000000'\n")})
        EXPECT_THAT(logged, HasSubstr("(debug) " + line));
    EXPECT_THAT(logged, Not(HasSubstr("(error)")));
}

TEST_F(FtpPut, OnlyWhatIsNotUpToDate) {
    const struct {
        const char *name;
        time_t local;
        std::vector<FtpRule> rules;
        bool sent;
    } cases[] = {
        {"the same time", kStartOf2020, {}, false},
        {"a second older than the server's", kStartOf2020 - 1, {}, false},
        {"two seconds older", kStartOf2020 - 2, {}, true},
        {"a second newer", kStartOf2020 + 1, {}, true},
        {"a server without times", kStartOf2020, {{"MDTM", "500 what?"}}, true},
        {"a file that the server does not have",
         kStartOf2020,
         {{"MDTM", "550 no such file"}, {"SIZE", "550 no such file"}},
         true},
        {"sizes do not count", kStartOf2020, {{"SIZE", "213 12345"}}, false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        write_dated(file("f"), "content", test.local);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        EXPECT_EQ(put(up), CURLE_OK);
        EXPECT_EQ(server.commands("STOR").size(), test.sent ? 1U : 0U);
        EXPECT_EQ(up.run.copies(), test.sent ? "Copy (F) f\n" : "");
        EXPECT_TRUE(up.run.silent());
    }
}

/// Lets the process live far from the zero meridian.
class ElsewhereOnEarth {
  public:
    ElsewhereOnEarth() {
        setenv("TZ", "XYZ-9", 1);
        tzset();
    }
    ~ElsewhereOnEarth() {
        unsetenv("TZ");
        tzset();
    }
    ElsewhereOnEarth(const ElsewhereOnEarth &) = delete;
    ElsewhereOnEarth &operator=(const ElsewhereOnEarth &) = delete;
};

TEST_F(FtpPut, TheTimeIsSetWhereTheServerCan) {
    const ElsewhereOnEarth elsewhere;
    const struct {
        const char *name;
        time_t time;
        const char *command;
    } cases[] = {
        {"digits with zeros in front", 1'580'702'706, "site utime 20200203040506 /base/f"},
        {"the end of a year", 1'704'067'199, "site utime 20231231235959 /base/f"},
        {"the epoch", 0, "site utime 19700101000000 /base/f"},
        {"before the epoch", -1, "site utime 19691231235959 /base/f"},
        {"beyond 32 bits", 4'294'967'296, "site utime 21060207062816 /base/f"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        write_dated(file("f"), "content", test.time);
        // The library takes every answer to the command for a failure.
        for (const char *reply : {"200 set", "213 set", "500 no"}) {
            const ScriptedFtpServer server({{"MDTM", "550 no", FtpThen::goes_on}, {"SITE", reply, FtpThen::goes_on}});
            Uploading up(server.port());
            up.upload.endpoint.site_utime = true;
            const Diagnostics diagnostics(5);
            EXPECT_EQ(put(up), CURLE_OK);
            EXPECT_THAT(server.commands("SITE"), ElementsAre(test.command));
            EXPECT_EQ(up.run.copies(), "Copy (F) f\n");
            EXPECT_EQ(diagnostics.text(), "");
        }
    }
}

TEST_F(FtpPut, ATimeThatCannotBeSetIsOnlyLogged) {
    write_file(file("f"), "content");
    const ScriptedFtpServer server({{"SITE", "421 Timeout.", FtpThen::hangs_up}});
    Uploading up(server.port());
    up.upload.endpoint.site_utime = true;
    const Diagnostics diagnostics(5);
    EXPECT_EQ(put(up), CURLE_OK);
    EXPECT_EQ(server.commands("SITE").size(), 3U);
    EXPECT_EQ(diagnostics.without_places(),
              "(error) curl_easy_perform() failed: " + number_and_text(CURLE_OPERATION_TIMEDOUT, " ") + "\n");
    EXPECT_TRUE(up.run.silent());
    EXPECT_EQ(up.run.copies(), "Copy (F) f\n");
}

TEST_F(FtpPut, AFileThatFailsIsRecordedAndTheOthersArrive) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
    } cases[] = {
        {"not allowed", {{"STOR f", "553 no"}}, CURLE_UPLOAD_FAILED},
        {"no room", {{"STOR f", "552 full"}}, CURLE_UPLOAD_FAILED},
        {"idle", {{"STOR f", "421 Timeout.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT},
        {"a broken connection", {{"STOR f", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR},
    };
    write_file(file("f"), "content");
    write_file(file("e"), "before or after it");
    write_file(file("d/g"), "below");
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        up.upload.endpoint.site_utime = true;
        const Diagnostics diagnostics(5);
        put(up);
        EXPECT_EQ(diagnostics.without_places(),
                  "(error) curl_easy_perform() failed: " + number_and_text(test.result, ": ") + "\n");
        EXPECT_TRUE(up.run.recorded(6, "Cannot copy to destination\n", ""));
        EXPECT_THAT(server.commands("STOR"), UnorderedElementsAre("STOR e", "STOR f", "STOR g"));
        EXPECT_EQ(server.stored().size(), 2U);
        EXPECT_EQ(server.commands("SITE").size(), 2U);
        EXPECT_EQ(server.sessions(), 3) << "the next file gets a new connection";
        EXPECT_EQ(up.run.copies(), "Copy (F) e\nCopy (F) d/g\n");
    }
}

TEST_F(FtpPut, ADirectoryThatFailsIsGivenUpAndItsSiblingsArrive) {
    write_file(file("closed/below/f"), "1");
    write_file(file("open/f"), "2");
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        std::string diagnostic;
        std::string message;
        std::string error_log;
    } cases[] = {
        {"it cannot be entered",
         {{"CWD /base/closed", "421 Timeout.", FtpThen::hangs_up}},
         "(debug) _isdir(base/closed) returns error rc=28\n",
         "Error from curl " + text_of(CURLE_OPERATION_TIMEDOUT) + "\n",
         "Failed to run CWD command! " + text_of(CURLE_OPERATION_TIMEDOUT) + "\n"},
        {"it cannot be created",
         {{"CWD /base/closed", "550 no"}, {"MKD /base/closed", "550 no"}},
         "(debug) _ftp_mkdir() no dir exist, create base/closed\n",
         "Cannot create remote directory 'base/closed'\n",
         "Failed to create remote directory base/closed! " + text_of(CURLE_QUOTE_ERROR) + "\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        Uploading up(server.port());
        const Diagnostics diagnostics;
        put(up);
        EXPECT_THAT(diagnostics.without_places(), HasSubstr(test.diagnostic));
        EXPECT_TRUE(up.run.recorded(6, test.message, test.error_log));
        EXPECT_EQ(up.run.copies(), "Copy (F) open/f\n");
        EXPECT_THAT(server.commands("CWD /base/closed/below"), IsEmpty());
    }
}

TEST_F(FtpPut, ADeniedLogInEndsTheUpload) {
    write_file(file("f"), "content");
    write_file(file("a/f"), "content");
    write_file(file("b/f"), "content");
    const ScriptedFtpServer server({kDenied});
    Uploading up(server.port());
    const Diagnostics diagnostics;
    EXPECT_EQ(put(up), CURLE_LOGIN_DENIED);
    EXPECT_TRUE(up.run.recorded(7, "Login failed to destination\n",
                                "Failed to login the remote server! " + text_of(CURLE_LOGIN_DENIED) + "\n"));
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) _isdir(base) returns error rc=67\n"));
    EXPECT_EQ(server.sessions(), 1);
    EXPECT_EQ(up.run.copies(), "");
}

TEST_F(FtpPut, ALogInThatIsDeniedOnTheWayEndsTheUpload) {
    write_file(file("a/f"), "content");
    write_file(file("b/f"), "content");
    // The connection of the commands is lost at the first of the two folders.
    const ScriptedFtpServer server({{"PASS", "230 in", FtpThen::goes_on, 1},
                                    {"PASS", "530 no", FtpThen::goes_on},
                                    {"CWD /base/", "421 Timeout.", FtpThen::hangs_up, 1}});
    Uploading up(server.port());
    EXPECT_EQ(put(up), CURLE_LOGIN_DENIED);
    EXPECT_TRUE(up.run.recorded(7, "Login failed to destination\n",
                                "Failed to login the remote server! " + text_of(CURLE_LOGIN_DENIED) + "\n"));
    EXPECT_EQ(server.sessions(), 2);
    EXPECT_EQ(server.commands("CWD").size(), 2U);
}

// ---- the driver --------------------------------------------------------------------------------------------------

class FtpUploadDriver : public testing::Test {
  protected:
    static constexpr char kDisk[] = "/media/DISK";

    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(kDisk);
        // A file system that is neither the root's nor a tmpfs.
        if (mount("none", kDisk, "ramfs", 0, nullptr) != 0) GTEST_SKIP() << "cannot mount";
        write_file(std::string(kDisk) + "/copy/f", "content");
        run_.clock_failed = 1;
    }
    void TearDown() override {
        if (!in_appliance()) return;
        umount2(kDisk, MNT_DETACH);
        remove_tree(kDisk);
    }
    static BackupJob job_to(int port) {
        BackupJob job;
        job.job_id = 7;
        job.src_type = "share";
        job.src_share_vol = "media";
        job.src_share_proto = "DISK";
        job.src_path = "copy";
        job.dst_type = "remote";
        job.dst_share_proto = "ftp";
        job.dst_path = "ftp://127.0.0.1/base/";
        job.dst_login = "bob";
        job.dst_password = "s3cret";
        job.dst_port = std::to_string(port);
        return job;
    }

    LoggedRun run_;
};

TEST_F(FtpUploadDriver, ProbesOnceAndSends) {
    const ScriptedFtpServer server;
    backup_local_to_ftp(job_to(server.port()), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_EQ(run_.copies(), "Copy (F) f\n");
    const std::vector<std::string> sites = server.commands("SITE");
    ASSERT_EQ(sites.size(), 2U);
    EXPECT_EQ(sites[0], "site utime");
    EXPECT_THAT(sites[1], testing::MatchesRegex("site utime [0-9]{14} /base/f"));
    EXPECT_THAT(server.commands("USER"), testing::Each("USER bob"));
    EXPECT_THAT(server.commands("PASS"), testing::Each("PASS s3cret"));
    ASSERT_EQ(server.stored().size(), 1U);
    EXPECT_EQ(server.stored()[0].content, "content");
}

TEST_F(FtpUploadDriver, AServerWithoutTheCommandIsNotAskedForIt) {
    const ScriptedFtpServer server({{"SITE", "502 Command not implemented.", FtpThen::goes_on}});
    backup_local_to_ftp(job_to(server.port()), run_);
    EXPECT_TRUE(run_.silent());
    EXPECT_THAT(server.commands("SITE"), ElementsAre("site utime"));
}

TEST_F(FtpUploadDriver, NothingIsDeletedBeforeAFullRun) {
    const struct {
        int full;
        JobText remove;
        bool told;
    } cases[] = {{1, "1", true}, {1, "0", false}, {1, std::nullopt, false}, {0, "1", false}, {1, "2", true}};
    for (const auto &test : cases) {
        const ScriptedFtpServer server;
        BackupJob job = job_to(server.port());
        job.opt_remove_previous_backup = test.remove;
        run_.full = test.full;
        const Diagnostics diagnostics;
        backup_local_to_ftp(job, run_);
        EXPECT_EQ(diagnostics.without_places().find("_ftp_rmtree(base)\n") != std::string::npos, test.told);
        for (const char *verb : {"DELE", "RMD", "RNFR"})
            EXPECT_THAT(server.commands(verb), IsEmpty());
        EXPECT_EQ(server.stored().size(), 1U);
    }
}

// What resolving the source has recorded is more precise, and stays.
TEST_F(FtpUploadDriver, WithoutASourceNobodyIsConnected) {
    const ScriptedFtpServer server;
    BackupJob missing = job_to(server.port());
    missing.src_path = "nowhere";
    backup_local_to_ftp(missing, run_);
    EXPECT_TRUE(run_.recorded(5, "'/media/DISK/nowhere' not exists",
                              "Path /media/DISK/nowhere does not exist!\n/DISK/nowhere does not exist!\n"));

    BackupJob unplugged = job_to(server.port());
    unplugged.src_type = "usb";
    unplugged.src_share_proto = "usb_port_9";
    unplugged.src_path = std::nullopt;
    LoggedRun run;
    backup_local_to_ftp(unplugged, run);
    EXPECT_TRUE(run.recorded(3, "No USB storage device at usb_port_9",
                             "No USB storage was found at usb_port_9!\n/usb_port_9/ does not exist!\n"));
    EXPECT_EQ(server.sessions(), 0);
}

} // namespace
} // namespace tsbackup::test
