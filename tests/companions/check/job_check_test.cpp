#include "job_check.h"

#include "job_texts.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

std::vector<std::string> texts_of(const CheckResult &result) {
    std::vector<std::string> texts;
    for (const Finding &finding : result.findings)
        texts.push_back(finding.text);
    return texts;
}

TEST(AcceptedJobs, AreLeftAlone) {
    for (const AcceptedCase &c : kAcceptedJobs) {
        SCOPED_TRACE(c.name);
        const CheckResult result = job_text_check(job_text(c.changes));
        EXPECT_EQ(result.jobs, 1U);
        EXPECT_THAT(texts_of(result), ElementsAre());
    }
}

struct RejectedCase {
    const char *name;
    Changes changes;
    std::vector<std::string> findings;
};

const std::string kCopies =
    "dst_path: the destination lies in its own source, so that each run copies the copies of the "
    "runs before";

const RejectedCase kRejectedJobs[] = {
    // Numbers.
    {"no number", {{"job_id", std::nullopt}}, {"job_id: is missing"}},
    {"an empty number", {{"job_id", ""}}, {"job_id: is empty"}},
    {"the button's number", {{"job_id", "0"}}, {"job_id: 0 is out of range (1 to 2147483647)"}},
    {"a negative number", {{"job_id", "-3"}}, {"job_id: -3 is out of range (1 to 2147483647)"}},
    {"a number with letters",
     {{"job_id", "12abc"}},
     {"job_id: \"12abc\" is no number from 1 to 2147483647; it is taken as 12"}},
    {"a number beyond 32 bits", {{"job_id", "4294967303"}}, {"job_id: 4294967303 is out of range (1 to 2147483647)"}},
    {"a number beyond 64 bits",
     {{"job_id", "99999999999999999999"}},
     {"job_id: 99999999999999999999 is out of range (1 to 2147483647)"}},
    {"a port that is none",
     {{"src_port", "ftp"}},
     {"src_port: \"ftp\" is no number from 0 to 65535; it is taken as 0"}},
    {"a port with a blank",
     {{"dst_port", " 22"}},
     {"dst_port: \" 22\" is no number from 0 to 65535; it is taken as 22"}},
    {"a port too high", {{"dst_port", "65536"}}, {"dst_port: 65536 is out of range (0 to 65535)"}},
    {"yes in place of 1", {{"dst_eject", "yes"}}, {"dst_eject: \"yes\" is no number from 0 to 1; it is taken as 0"}},
    {"a blank behind the 1",
     {{"opt_chown_to_share_owner", "1 "}},
     {"opt_chown_to_share_owner: \"1 \" is no number from 0 to 1; it is taken as 1"}},
    {"an unknown option of rsync", {{"opt_rsync_options", "16"}}, {"opt_rsync_options: 16 is out of range (0 to 15)"}},
    {"no log lines", {{"opt_max_log_lines", "0"}}, {"opt_max_log_lines: 0 is out of range (1 to 2147483647)"}},
    {"a long wait", {{"time_to_wait", "1441"}}, {"time_to_wait: 1441 is out of range (0 to 1440)"}},

    // Fields that every job needs.
    {"hardly anything",
     {{"name", std::nullopt},
      {"src_type", std::nullopt},
      {"dst_type", ""},
      {"opt_full_backup_freq", std::nullopt},
      {"opt_email_this_to_alert_email", ""}},
     {"name: is missing", "src_type: is missing", "opt_full_backup_freq: is missing", "dst_type: is empty",
      "opt_email_this_to_alert_email: is empty"}},
    {"an unknown frequency",
     {{"opt_full_backup_freq", "every_week"}},
     {"opt_full_backup_freq: unknown keyword \"every_week\"; every run would be full"}},
    {"a line end in the name",
     {{"name", "a\nstatus: 0"}},
     {"name: holds a line end, a tab or another control character"}},
    {"a very long name", {{"name", std::string(256, 'x')}}, {"name: is longer than 255 bytes"}},
    {"too many patterns",
     {{"opt_rsync_exclude", std::string(1024, 'x')}},
     {"opt_rsync_exclude: is longer than 1023 bytes and is cut, so that files are copied that should not be"}},

    // Wake-up.
    {"no hardware address",
     {{"wol_addr", "00:11:22:33:44"}, {"time_to_wait", "1"}},
     {"wol_addr: \"00:11:22:33:44\" is no hardware address (six pairs of digits)"}},
    {"mixed separators",
     {{"wol_addr", "00:11:22-33:44:55"}, {"time_to_wait", "1"}},
     {"wol_addr: \"00:11:22-33:44:55\" is no hardware address (six pairs of digits)"}},
    {"nobody waits",
     {{"wol_addr", "001122334455"}, {"time_to_wait", "0"}},
     {"time_to_wait: no time to wait is set, so that the job starts before the machine is awake"}},

    // Local ends.
    {"an unknown kind",
     {{"src_type", "Share "}},
     {"src_type: unknown kind of end \"Share \"; did you mean \"share\"?"}},
    {"a kind that is none", {{"dst_type", "tape"}}, {"dst_type: unknown kind of end \"tape\""}},
    {"a share without a volume", {{"src_share_vol", ""}}, {"src_share_vol: is empty"}},
    {"a share without a name", {{"src_share_proto", std::nullopt}}, {"src_share_proto: is missing"}},
    {"a share of two folders",
     {{"src_share_proto", "a/b"}},
     {"src_share_proto: \"a/b\" is no name of a single folder"}},
    {"a short name",
     {{"src_share_proto", "abc~1"}},
     {"src_share_proto: \"abc~1\" looks like another system's short name and is refused"}},
    {"a volume that leads away", {{"src_share_vol", ".."}}, {"src_share_vol: \"..\" is no name of a single folder"}},
    {"a path that leads away",
     {{"src_path", "a/../../b"}},
     {"src_path: \"a/../../b\" leads out of its place by \"..\""}},
    {"a path with an outer blank",
     {{"dst_path", "copy "}},
     {"dst_path: \"copy \" begins or ends with a blank, which counts"}},
    {"a path for the shell",
     {{"dst_path", "a; rm -rf x"}},
     {"dst_path: \"a; rm -rf x\" holds ;, on which a shell acts"}},
    {"a share for the shell",
     {{"src_share_proto", "a$(id)"}},
     {"src_share_proto: \"a$(id)\" holds $, on which a shell acts"}},
    {"a quotation mark", {{"src_path", "it's"}}, {"src_path: \"it's\" holds ', on which a shell acts"}},
    {"all homes as destination",
     {{"dst_type", "home"}, {"dst_share_proto", "*"}},
     {"dst_share_proto: all homes together can be a source only"}},
    {"no USB port",
     {{"dst_share_proto", "usb_port_"}},
     {"dst_share_proto: \"usb_port_\" is no USB port (usb_port_ and a number)"}},
    {"a USB disk's name",
     {{"dst_share_proto", "USB"}},
     {"dst_share_proto: \"USB\" is no USB port (usb_port_ and a number)"}},
    {"the Time Machine area of no volume",
     {{"src_type", "timemachine"}, {"src_share_vol", std::nullopt}},
     {"src_share_vol: is missing"}},

    // Remote ends.
    {"an unknown protocol",
     remote("src", "RSYNC", "server::x"),
     {"src_share_proto: unknown protocol \"RSYNC\"; did you mean \"rsync\"?"}},
    {"a protocol that is none", remote("dst", "sftp", "server:/x"), {"dst_share_proto: unknown protocol \"sftp\""}},
    {"http as destination", remote("dst", "http", "server/x"), {"dst_share_proto: \"http\" can be a source only"}},
    {"an archive as destination",
     remote("dst", "cifs-ab", "//server/x"),
     {"dst_share_proto: \"cifs-ab\" can be a source only"}},
    {"no path", remote("src", "nfs", ""), {"src_path: is empty"}},
    {"cifs with one slash",
     remote("src", "cifs", "/server/share"),
     {"src_path: \"/server/share\" has not the form //SERVER/SHARE/FOLDER"}},
    {"cifs without a share",
     remote("src", "cifs", "//server"),
     {"src_path: \"//server\" names no share of the server"}},
    {"cifs without a server",
     remote("src", "cifs", "//"),
     {"src_path: \"//\" names no server", "src_path: \"//\" names no share of the server"}},
    {"cifs, options in the user",
     remote("src", "cifs", "//s/x", {{"src_login", "u,uid=0"}}),
     {"src_login: holds a comma, behind which further options of the mount would stand"}},
    {"cifs, too long a user",
     remote("src", "cifs", "//s/x", {{"src_login", std::string(55, 'u')}}),
     {"src_login: is too long and is left out, so that the server is asked without a user"}},
    {"cifs, too long a password",
     remote("src", "cifs", "//s/x", {{"src_login", "u"}, {"src_password", std::string(249, 'p')}}),
     {"src_password: is longer than 248 bytes and is cut"}},
    {"cifs, a password of nobody",
     remote("src", "cifs", "//s/x", {{"src_password", "p"}}),
     {"src_password: is not used without a user (src_login)"}},
    {"nfs without a colon",
     remote("dst", "nfs", "server/export"),
     {"dst_path: \"server/export\" has not the form SERVER:/FOLDER"}},
    {"nfs with a password",
     remote("dst", "nfs", "server:/export", {{"dst_password", "p"}}),
     {"dst_password: is not used with nfs"}},
    {"nfs, a server like an option",
     remote("dst", "nfs", "-oexec:/x"),
     {"dst_path: the server's name begins with -, so that programs take it for an option"}},
    {"ftp with a password",
     remote("dst", "ftp", "server", {{"dst_login", "u"}, {"dst_password", "p"}}),
     {"dst_password: crosses the network in plain text when the server offers no encryption, and nothing proves that "
      "it "
      "is the right server"}},
    {"ftp over another scheme",
     remote("src", "ftp", "sftp://server/x"),
     {"src_path: \"sftp://\" is not spoken here, only \"ftp://\""}},
    {"ftp without a server", remote("src", "ftp", "ftp:///x"), {"src_path: \"ftp:///x\" names no server"}},
    {"http with a password",
     remote("src", "http", "server", {{"src_login", "u"}, {"src_password", "p"}}),
     {"src_password: crosses the network in plain text"}},
    {"https",
     remote("src", "http", "https://server/x"),
     {"src_path: \"https://\" is not spoken here, only \"http://\""}},
    {"too long a server",
     remote("src", "http", std::string(64, 's') + "/x"),
     {"src_path: the server's name is longer than 63 characters and is cut"}},
    {"an rsync URL",
     remote("src", "rsync", "rsync://server/module"),
     {"src_path: \"rsync://server/module\" is no address of this kind: write SERVER::MODULE/FOLDER"}},
    {"rsync without a colon",
     remote("src", "rsync", "server"),
     {"src_path: \"server\" has not the form SERVER::MODULE/FOLDER"}},
    {"rsync with one colon",
     remote("src", "rsync", "server:/x"),
     {"src_path: one colon means rsync over ssh, so that no daemon is asked"}},
    {"ssh with two colons",
     remote("dst", "rsync+ssh", "server::x"),
     {"dst_path: two colons address an rsync daemon, so that ssh is not used"}},
    {"ssh with a password",
     remote("dst", "rsync+ssh", "server:/x", {{"dst_login", "u"}, {"dst_password", "p"}}),
     {"dst_password: is not used over ssh, where a key is needed"}},
    {"a user like an option",
     remote("dst", "rsync+ssh", "server:/x", {{"dst_login", "-oProxyCommand=x"}}),
     {"dst_login: begins with -, so that programs take it for an option"}},
    {"a remote path that leads away",
     remote("src", "cifs", "\\\\s\\x\\..\\y"),
     {"src_path: \"\\\\s\\x\\..\\y\" leads out of its place by \"..\""}},
    {"a remote path for the shell",
     remote("src", "nfs", "server:/`id`"),
     {"src_path: \"server:/`id`\" holds `, on which a shell acts"}},
    {"a user for the shell",
     remote("src", "cifs", "//s/x", {{"src_login", "u;id"}}),
     {"src_login: \"u;id\" holds ;, on which a shell acts"}},

    // The two together.
    {"remote to remote",
     {{"src_type", "remote"},
      {"src_share_proto", "nfs"},
      {"src_path", "a:/x"},
      {"src_share_vol", std::nullopt},
      {"dst_type", "remote"},
      {"dst_share_proto", "nfs"},
      {"dst_path", "b:/x"}},
     {"dst_type: a remote source cannot be backed up to a remote destination"}},
    {"onto itself",
     {{"dst_type", "share"}, {"dst_share_vol", "data"}, {"dst_share_proto", "Pictures"}, {"dst_path", "/./"}},
     {"dst_path: the destination is the source"}},
    {"into itself",
     {{"dst_type", "share"}, {"dst_share_vol", "data"}, {"dst_share_proto", "Pictures"}, {"dst_path", "a"}},
     {kCopies}},
    {"a volume into one of its shares",
     {{"src_type", "volume"},
      {"src_share_proto", "data"},
      {"src_share_vol", ""},
      {"dst_type", "share"},
      {"dst_share_vol", "data"},
      {"dst_share_proto", "Backup"}},
     {kCopies}},
    {"a USB disk into itself",
     {{"src_type", "usb"}, {"src_share_proto", "usb_port_1"}, {"src_share_vol", ""}},
     {kCopies}},
    {"a home into itself",
     {{"src_type", "home"}, {"src_share_proto", "*"}, {"dst_type", "home"}, {"dst_share_proto", "alice"}},
     {kCopies}},
    {"a destination to be emptied that holds the source",
     {{"src_path", "a/b"},
      {"dst_type", "share"},
      {"dst_share_vol", "data"},
      {"dst_share_proto", "Pictures"},
      {"dst_path", "a"},
      {"opt_remove_previous_backup", "1"}},
     {"dst_path: the source lies in the destination, which a full backup would empty"}},
};

TEST(RejectedJobs, AreReportedInPlainWords) {
    for (const RejectedCase &c : kRejectedJobs) {
        SCOPED_TRACE(c.name);
        const CheckResult result = job_text_check(job_text(c.changes));
        EXPECT_THAT(texts_of(result), ElementsAreArray(c.findings));
        for (const Finding &finding : result.findings) {
            EXPECT_TRUE(finding.of_job);
            EXPECT_GT(finding.line, 0);
        }
    }
}

struct FormCase {
    const char *name;
    const char *in_job;
    const char *behind_job;
    std::vector<std::string> findings;
};

const std::string kPieces = "is in several pieces (a comment, an element, a CDATA section); the program uses the first "
                            "one alone";

const FormCase kForms[] = {
    {"comments", "<!-- a -->", "<!-- b --><?pi x?>", {}},
    {"a CDATA section", "<opt_misc_option><![CDATA[a]]></opt_misc_option>", "", {}},
    {"an unknown element", "<foo/>", "", {"unknown element <foo>, which is ignored"}},
    {"an element in capitals",
     "<SRC_PATH>x</SRC_PATH>",
     "",
     {"unknown element <SRC_PATH>, which is ignored; did you mean <src_path>?"}},
    {"a setting twice", "<name>B</name>", "", {"name: given before in line 12; this later one counts"}},
    {"text between settings", "stray", "", {"text between the elements, which is ignored"}},
    {"text between jobs", "", "stray", {"text between the jobs, which is ignored"}},
    {"a comment within a value",
     "<opt_misc_option>a<!-- b -->c</opt_misc_option>",
     "",
     {"opt_misc_option: " + kPieces}},
    {"a comment as a value",
     "<opt_misc_option><!-- b --></opt_misc_option>",
     "",
     {"opt_misc_option: begins with a comment, which the program takes as the value"}},
    {"an element as a value",
     "<opt_misc_option><b/></opt_misc_option>",
     "",
     {"opt_misc_option: holds another element; the program takes the value as empty"}},
    {"the same number twice",
     "",
     "<j><job_id>7</job_id><name>x</name><src_type>volume</src_type><src_share_proto>v</src_share_proto>"
     "<dst_type>usb</dst_type><dst_share_proto>usb_port_1</dst_share_proto>"
     "<opt_full_backup_freq>NEVER</opt_full_backup_freq>"
     "<opt_email_this_to_alert_email>0</opt_email_this_to_alert_email></j>",
     {"job_id: the job in line 3 has the same number; this one never runs"}},
    {"button jobs", "", "<backupButtonJobs><backupButtonJob>7</backupButtonJob></backupButtonJobs>", {}},
    {"button jobs that do not exist",
     "",
     "<backupButtonJobs><backupButtonJob>8</backupButtonJob><backupButtonJob/><x/><backupButtonJob>7a</backupButtonJob>"
     "</backupButtonJobs>",
     {"backupButtonJob: there is no job 8", "backupButtonJob: \"\" is no job number",
      "backupButtonJobs: unknown element <x>, which is ignored", "backupButtonJob: \"7a\" is no job number"}},
    {"a button job listed twice",
     "",
     "<backupButtonJobs><backupButtonJob>7</backupButtonJob></backupButtonJobs>"
     "<backupButtonJobs><backupButtonJob>7</backupButtonJob></backupButtonJobs>",
     {"backupButtonJob: job 7 is listed twice"}},
};

TEST(FormOfTheFile, IsReported) {
    for (const FormCase &c : kForms) {
        SCOPED_TRACE(c.name);
        EXPECT_THAT(texts_of(job_text_check(job_text({}, c.in_job, c.behind_job))), ElementsAreArray(c.findings));
    }
}

TEST(FormOfTheFile, EntitiesOfTheDocumentAreReported) {
    std::string text = job_text({}, "<opt_misc_option>&e;</opt_misc_option>&e;");
    text.insert(text.find("<backupJobs>"), "<!DOCTYPE r [<!ENTITY e \"v\">]>\n");
    EXPECT_THAT(texts_of(job_text_check(text)),
                ElementsAre("opt_misc_option: begins with a reference to an entity of the document's own",
                            "a reference to an entity between the elements, which is ignored"));
}

TEST(FormOfTheFile, WhatIsNoXmlIsReportedWithItsLine) {
    const CheckResult result = job_text_check("<a>\n<b>\n</c>\n</a>");
    ASSERT_EQ(result.findings.size(), 1U);
    EXPECT_EQ(result.findings[0].line, 3);
    EXPECT_THAT(result.findings[0].text, testing::StartsWith("not well-formed, so that no job of the file can run: "));
    EXPECT_THAT(texts_of(job_text_check("")), ElementsAre("not well-formed, so that no job of the file can run"));
}

TEST(FormOfTheFile, LinesAreRightInALongFile) {
    std::string text = job_text({{"dst_port", "x"}});
    const auto line = [&text](const char *part) {
        return 1 + std::count(text.begin(), text.begin() + static_cast<long>(text.find(part)), '\n');
    };
    text.insert(text.find("  <backupJob>"), std::string(100000, '\n'));
    const CheckResult result = job_text_check(text);
    ASSERT_EQ(result.findings.size(), 1U);
    EXPECT_EQ(result.findings[0].line, line("<dst_port>"));
}

TEST(FormOfTheFile, AFileWithoutJobsIsInOrder) {
    EXPECT_THAT(texts_of(job_text_check("<backupJobs/>")), ElementsAre());
    EXPECT_THAT(texts_of(job_text_check("<backupJobs>\n\n</backupJobs>")), ElementsAre());
}

TEST(Passwords, AreNoticedAndNeverShown) {
    const std::string secret = "gEhEiM\n;$(x)";
    const CheckResult result =
        job_text_check(job_text(remote("src", "ftp", "server", {{"src_login", "u"}, {"src_password", secret}})));
    EXPECT_TRUE(result.holds_passwords);
    EXPECT_EQ(result.findings.size(), 2U);
    for (const Finding &finding : result.findings)
        EXPECT_EQ(finding.text.find("gEh"), std::string::npos);
    EXPECT_FALSE(job_text_check(job_text({})).holds_passwords);
}

} // namespace
} // namespace tsbackup::test
