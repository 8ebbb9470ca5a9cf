// Requests to an FTP server: who logs in, what is asked, when it is asked again.

#include "session.h"

#include "noted_options.h"
#include "scripted_ftp_server.h"
#include "support.h"
#include "tsbackup_error.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr std::int64_t kStartOf2020 = 1'577'836'800;
const FtpRule kIdleTooLong = {"CWD", "421 Timeout."};

FtpEndpoint end_at(int port, const std::string &path = "") {
    FtpEndpoint endpoint;
    endpoint.host = "127.0.0.1";
    endpoint.port = port;
    endpoint.path = path;
    return endpoint;
}

UniqueCurl handle() { return ftp_open(); }

/// How often a message stands in the diagnostics.
std::size_t count(const std::string &text, const std::string &part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        ++found;
    return found;
}

// ---- what every request is set up with ---------------------------------------------------------------------------

TEST(FtpSetUp, Options) {
    FtpEndpoint endpoint = end_at(2121, "base dir");
    endpoint.login = "bob";
    endpoint.password = "s3cret";
    const UniqueCurl curl = handle();
    const NotedOptions noted;
    ftp_prepare(curl.get(), endpoint, "a", "/*");
    EXPECT_EQ(noted.text(CURLOPT_USERNAME), "bob");
    EXPECT_EQ(noted.text(CURLOPT_PASSWORD), "s3cret");
    EXPECT_EQ(noted.number(CURLOPT_PORT), 2121);
    EXPECT_EQ(noted.text(CURLOPT_URL), "ftp://127.0.0.1/base%20dir/a/*");
    EXPECT_EQ(noted.number(CURLOPT_USE_SSL), 1);
    EXPECT_EQ(noted.number(CURLOPT_SSL_VERIFYPEER), 0);
    EXPECT_EQ(noted.number(CURLOPT_SSL_VERIFYHOST), 0);
    EXPECT_EQ(noted.number(CURLOPT_VERBOSE), 0);
    // A text that looks like an address of another protocol must not become one.
    EXPECT_EQ(noted.text(CURLOPT_PROTOCOLS_STR), "ftp");
    for (const CURLoption option : {CURLOPT_LOW_SPEED_LIMIT, CURLOPT_LOW_SPEED_TIME, CURLOPT_FTP_RESPONSE_TIMEOUT,
                                    CURLOPT_SSLVERSION, CURLOPT_UPLOAD, CURLOPT_NOBODY})
        EXPECT_FALSE(noted.has(option)) << option;
}

TEST(FtpSetUp, NoPortIsTheLibrarysOwn) {
    const UniqueCurl curl = handle();
    const NotedOptions noted;
    ftp_prepare(curl.get(), end_at(0), "", "");
    EXPECT_FALSE(noted.has(CURLOPT_PORT));
    EXPECT_EQ(noted.text(CURLOPT_URL), "ftp://127.0.0.1");
}

TEST(FtpSetUp, TheTraceFollowsTheProgramsOption) {
    const UniqueCurl curl = handle();
    const NotedOptions noted;
    transfer_trace_set(true);
    ftp_prepare(curl.get(), end_at(0), "", "");
    transfer_trace_set(false);
    EXPECT_EQ(noted.number(CURLOPT_VERBOSE), 1);
}

TEST(FtpSetUp, OldTlsIsTheNewestWhereItIsWanted) {
    FtpEndpoint endpoint = end_at(0);
    endpoint.old_tls = true;
    const UniqueCurl curl = handle();
    const NotedOptions noted;
    ftp_prepare(curl.get(), endpoint, "", "");
    EXPECT_EQ(noted.number(CURLOPT_SSLVERSION), CURL_SSLVERSION_MAX_TLSv1_2);
}

TEST(FtpSetUp, TimeOutsOfATransfer) {
    const UniqueCurl curl = handle();
    const NotedOptions noted;
    ftp_set_timeouts(curl.get());
    EXPECT_EQ(noted.number(CURLOPT_LOW_SPEED_LIMIT), 1);
    EXPECT_EQ(noted.number(CURLOPT_LOW_SPEED_TIME), 30);
    EXPECT_EQ(noted.number(CURLOPT_FTP_RESPONSE_TIMEOUT), 30);
}

TEST(FtpSetUp, ForgetsWhatTheRequestBeforeHadAskedFor) {
    const ScriptedFtpServer server;
    const UniqueCurl curl = handle();
    const FtpEndpoint endpoint = end_at(server.port());
    ASSERT_EQ(ftp_command(curl.get(), endpoint, "MKD /a", "a"), CURLE_OK);
    FtpFileStatus status;
    ASSERT_EQ(_ftp_stat(curl.get(), endpoint, "f", status), CURLE_OK);
    EXPECT_THAT(server.commands("MKD"), ElementsAre("MKD /a"));
    EXPECT_EQ(server.sessions(), 1) << "the connection stays";
}

// ---- logging in --------------------------------------------------------------------------------------------------

TEST(FtpLogIn, Names) {
    const struct {
        const char *login;
        const char *password;
        const char *user_command;
        const char *password_pattern;
    } cases[] = {
        {"", "", "USER anonymous", "PASS [^@ ]+@[^@ ]+"}, // an address of e-mail, as is the custom
        {"bob", "s3cret", "USER bob", "PASS s3cret"},     {"bob", "", "USER bob", "PASS [^@ ]+@[^@ ]+"},
        {"", "s3cret", "USER anonymous", "PASS s3cret"},  {"a b", "p w:@/%41#", "USER a b", "PASS p w:@/%41#"},
        {"ann:other", "x", "USER ann:other", "PASS x"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.user_command);
        const ScriptedFtpServer server;
        FtpEndpoint endpoint = end_at(server.port());
        endpoint.login = test.login;
        endpoint.password = test.password;
        EXPECT_EQ(ftp_command(handle().get(), endpoint, "NOOP", ""), CURLE_OK);
        EXPECT_THAT(server.commands("USER"), ElementsAre(test.user_command));
        EXPECT_THAT(server.commands("PASS"), ElementsAre(MatchesRegex(test.password_pattern)));
    }
}

TEST(FtpLogIn, EncryptionIsAskedForAndDoneWithout) {
    const ScriptedFtpServer server;
    EXPECT_EQ(ftp_command(handle().get(), end_at(server.port()), "NOOP", ""), CURLE_OK);
    const std::vector<std::string> commands = server.commands();
    ASSERT_GE(commands.size(), 3U);
    EXPECT_EQ(commands[0].substr(0, 5), "AUTH ");
    EXPECT_THAT(server.commands("USER"), ElementsAre("USER anonymous"));
}

TEST(FtpLogIn, TheTraceDoesNotShowThePassword) {
    const ScriptedFtpServer server;
    FtpEndpoint endpoint = end_at(server.port());
    endpoint.login = "bob";
    endpoint.password = "s3cret";
    transfer_trace_set(true);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ftp_command(handle().get(), endpoint, "NOOP", ""), CURLE_OK);
    const std::string trace = testing::internal::GetCapturedStderr();
    transfer_trace_set(false);
    EXPECT_THAT(server.commands("PASS"), ElementsAre("PASS s3cret"));
    EXPECT_THAT(trace, Not(HasSubstr("s3cret")));
    EXPECT_THAT(trace, HasSubstr("> USER bob"));
    EXPECT_THAT(trace, HasSubstr("> PASS ...\n"));
    EXPECT_THAT(trace, HasSubstr("< 220 hello"));
}

// ---- asking again ------------------------------------------------------------------------------------------------

TEST(FtpPerform, IsRepeatedOnlyWhereTheServerHadClosedAnIdleConnection) {
    constexpr int kOften = FtpRule::kAlways;
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
        std::size_t calls;
    } cases[] = {
        {"a success", {}, CURLE_OK, 1},
        {"idle once", {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}}, CURLE_OK, 2},
        {"idle twice", {{"CWD", "421 Timeout.", FtpThen::hangs_up, 2}}, CURLE_OK, 3},
        {"idle three times", {{"CWD", "421 Timeout.", FtpThen::hangs_up, 3}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"idle for ever", {{"CWD", "421 Timeout.", FtpThen::hangs_up, kOften}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"idle, and the connection stays open", {{"CWD", "421 Timeout."}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"idle, several lines", {{"CWD", "421-One\r\n two\r\n421 three"}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"too many users at first", {{"", "421 Too many users.", FtpThen::hangs_up, 1}}, CURLE_OK, 2},
        {"too many users", {{"", "421 Too many users.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"too many log-ins", {{"PASS", "421 Too many.", FtpThen::hangs_up}}, CURLE_OPERATION_TIMEDOUT, 3},
        {"idle once, refused then",
         {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}, {"CWD", "550 no"}},
         CURLE_QUOTE_ERROR,
         2},
        {"idle once, denied then",
         {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}, {"PASS", "230 in", FtpThen::goes_on, 1}, {"PASS", "530 no"}},
         CURLE_LOGIN_DENIED,
         2},
        {"refused", {{"CWD", "550 no"}}, CURLE_QUOTE_ERROR, 1},
        {"denied", {{"PASS", "530 no"}}, CURLE_LOGIN_DENIED, 1},
        {"no FTP server", {{"", "500 no"}}, CURLE_WEIRD_SERVER_REPLY, 1},
        {"a broken connection", {{"CWD", "", FtpThen::hangs_up}}, CURLE_RECV_ERROR, 1},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        const Diagnostics diagnostics(6);
        EXPECT_EQ(ftp_command(handle().get(), end_at(server.port()), "CWD /a b", "a b"), test.result);
        EXPECT_EQ(server.sessions(), static_cast<int>(test.calls));
        const std::string logged = diagnostics.text();
        EXPECT_EQ(count(logged, "\n"), test.calls - 1) << logged;
        for (std::size_t retry = 1; retry < test.calls; ++retry) {
            EXPECT_THAT(logged, HasSubstr(" FTP server timeout reached. Try curl_easy_perform again. rpath = a b, "
                                          "retry = " +
                                          std::to_string(retry) + "\n"));
        }
    }
}

TEST(FtpPerform, ARepetitionIsTold) {
    const ScriptedFtpServer server({{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}});
    const Diagnostics diagnostics(6);
    ftp_command(handle().get(), end_at(server.port()), "CWD /a", "a");
    EXPECT_THAT(diagnostics.text(),
                MatchesRegex("tsbackup_ftp:[0-9]+ \\(info\\) [a-z_]+:[0-9]+ FTP server timeout reached. Try "
                             "curl_easy_perform again. rpath = a, retry = 1\n"));
}

TEST(FtpPerform, ARepetitionIsNotToldAtTheDefaultThreshold) {
    const ScriptedFtpServer server({kIdleTooLong});
    const Diagnostics diagnostics(5);
    ftp_command(handle().get(), end_at(server.port()), "CWD /a", "a");
    EXPECT_EQ(diagnostics.text(), "");
}

// A connection that was fine for the request before is the usual case.
TEST(FtpPerform, AnIdleConnectionIsReplaced) {
    const ScriptedFtpServer server({{"CWD /b", "421 Timeout.", FtpThen::hangs_up, 1}});
    const UniqueCurl curl = handle();
    const FtpEndpoint endpoint = end_at(server.port());
    EXPECT_EQ(ftp_command(curl.get(), endpoint, "CWD /a", "a"), CURLE_OK);
    EXPECT_EQ(ftp_command(curl.get(), endpoint, "CWD /b", "b"), CURLE_OK);
    EXPECT_THAT(server.commands("CWD"), ElementsAre("CWD /a", "CWD /b", "CWD /b"));
    EXPECT_EQ(server.sessions(), 2);
}

TEST(FtpPerform, AServerThatFallsSilentIsNotAskedAgain) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        long limit; ///< milliseconds; what is answered must come within them
        int calls;
    } cases[] = {
        {"from the beginning", {{"", ""}}, 300, 1},
        {"at the command", {{"CWD", ""}}, 300, 1},
        {"when it is asked again", {{"CWD", "421 Timeout.", FtpThen::hangs_up, 1}, {"CWD", ""}}, 3000, 2},
        {"from the beginning when it is asked again",
         {{"", "220 hello", FtpThen::goes_on, 1}, {"CWD", "421 Timeout.", FtpThen::hangs_up, 1}, {"", ""}},
         3000,
         2},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        const UniqueCurl curl = handle();
        ftp_prepare(curl.get(), end_at(server.port()), "", "");
        const UniqueCurlList commands(curl_slist_append(nullptr, "CWD /a"));
        curl_easy_setopt(curl.get(), CURLOPT_QUOTE, commands.get());
        curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
        curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, test.limit);
        EXPECT_EQ(ftp_perform(curl.get(), "a"), CURLE_OPERATION_TIMEDOUT);
        EXPECT_EQ(server.sessions(), test.calls);
        curl_easy_setopt(curl.get(), CURLOPT_QUOTE, nullptr);
    }
}

TEST(FtpPerform, NobodyListens) {
    const Diagnostics diagnostics;
    EXPECT_EQ(ftp_command(handle().get(), end_at(unused_port()), "CWD /a", "a"), CURLE_COULDNT_CONNECT);
    EXPECT_EQ(diagnostics.text(), "");
}

// ---- commands ----------------------------------------------------------------------------------------------------

TEST(FtpCommand, IsSentAsItIsAndNothingIsTransferred) {
    const ScriptedFtpServer server;
    EXPECT_EQ(ftp_command(handle().get(), end_at(server.port(), "base"), "CWD /a b/%41#?", "x"), CURLE_OK);
    EXPECT_THAT(server.commands("CWD"), ElementsAre("CWD /a b/%41#?"));
    for (const char *verb : {"LIST", "NLST", "RETR", "STOR", "EPSV", "PASV"})
        EXPECT_THAT(server.commands(verb), IsEmpty());
}

TEST(FtpCommand, ALineEndIsNotSent) {
    const ScriptedFtpServer server;
    for (const char *command : {"CWD /a\r\nDELE b", "CWD /a\nDELE b", "CWD /a\rDELE b", "CWD /a\n"})
        EXPECT_EQ(ftp_command(handle().get(), end_at(server.port()), command, "a"), CURLE_URL_MALFORMAT);
    EXPECT_EQ(server.sessions(), 0);
}

TEST(FtpCommand, WhatTheServerSaysIsNotShown) {
    const FtpRule lines = {"CWD", "250-many\r\n lines\r\n250 there"};
    const ScriptedFtpServer server({lines});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(ftp_command(handle().get(), end_at(server.port()), "CWD /a", "a"), CURLE_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// ---- a file's size and time --------------------------------------------------------------------------------------

TEST(FtpStat, WhatIsKnownOfAFile) {
    const struct {
        const char *name;
        std::vector<FtpRule> rules;
        CURLcode result;
        std::int64_t mtime;
        std::int64_t size;
    } cases[] = {
        {"all", {}, CURLE_OK, kStartOf2020, 5},
        {"large", {{"SIZE", "213 5000000000"}}, CURLE_OK, kStartOf2020, 5'000'000'000},
        {"empty", {{"SIZE", "213 0"}}, CURLE_OK, kStartOf2020, 0},
        {"a fraction of a second", {{"MDTM", "213 20200101000001.750"}}, CURLE_OK, kStartOf2020 + 1, 5},
        {"the epoch", {{"MDTM", "213 19700101000000"}}, CURLE_OK, 0, 5},
        {"a time beyond 32 bits", {{"MDTM", "213 21060207062816"}}, CURLE_OK, 4'294'967'296, 5},
        {"no time", {{"MDTM", "500 what?"}}, CURLE_OK, -1, 5},
        {"a time that is none", {{"MDTM", "213 yesterday"}}, CURLE_OK, -1, 5},
        {"no size", {{"SIZE", "500 what?"}}, CURLE_OK, kStartOf2020, -1},
        {"neither", {{"SIZE", "502 no"}, {"MDTM", "502 no"}}, CURLE_OK, -1, -1},
        {"a file that is not there",
         {{"SIZE", "550 no such file"}, {"MDTM", "550 no such file"}},
         CURLE_REMOTE_FILE_NOT_FOUND,
         -1,
         -1},
        {"a folder that is not there", {{"CWD", "550 no such folder"}}, CURLE_REMOTE_ACCESS_DENIED, -1, -1},
        {"a denied log-in", {{"PASS", "530 no"}}, CURLE_LOGIN_DENIED, -1, -1},
        {"an idle connection", {{"SIZE", "421 Timeout.", FtpThen::hangs_up, 1}}, CURLE_OK, kStartOf2020, 5},
        {"nobody is in", {{"SIZE", "421 Timeout."}}, CURLE_OPERATION_TIMEDOUT, -1, -1},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ScriptedFtpServer server(test.rules);
        FtpFileStatus status{99, 99};
        EXPECT_EQ(_ftp_stat(handle().get(), end_at(server.port(), "base"), "dir/f", status), test.result);
        EXPECT_EQ(status.mtime, test.mtime);
        EXPECT_EQ(status.size, test.size);
        EXPECT_THAT(server.commands("RETR"), IsEmpty());
    }
}

TEST(FtpStat, NamesTheFileItself) {
    const ScriptedFtpServer server;
    FtpFileStatus status;
    EXPECT_EQ(_ftp_stat(handle().get(), end_at(server.port(), "ba se"), "dir/100%41 #;type=a", status), CURLE_OK);
    EXPECT_THAT(server.commands("CWD"), ElementsAre("CWD ba se", "CWD dir"));
    EXPECT_THAT(server.commands("SIZE"), ElementsAre("SIZE 100%41 #;type=a"));
    EXPECT_THAT(server.commands("MDTM"), ElementsAre("MDTM 100%41 #;type=a"));
}

TEST(FtpStat, ARepetitionNamesTheWholePath) {
    const ScriptedFtpServer server({{"SIZE", "421 Timeout.", FtpThen::hangs_up, 1}});
    const Diagnostics diagnostics(6);
    FtpFileStatus status;
    _ftp_stat(handle().get(), end_at(server.port(), "base"), "dir/f", status);
    EXPECT_THAT(diagnostics.text(), HasSubstr("rpath = base/dir/f, retry = 1\n"));
}

TEST(FtpStat, TheServersWordsAreNotShown) {
    const ScriptedFtpServer server;
    FtpFileStatus status;
    testing::internal::CaptureStdout();
    _ftp_stat(handle().get(), end_at(server.port()), "f", status);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
} // namespace tsbackup::test
