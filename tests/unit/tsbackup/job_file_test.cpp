#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Field {
    const char *element;
    JobText BackupJob::*text;
};

const Field kFields[] = {
    {"name", &BackupJob::name},
    {"enabled", &BackupJob::enabled},
    {"sch_every", &BackupJob::sch_every},
    {"sch_start", &BackupJob::sch_start},
    {"sch_end", &BackupJob::sch_end},
    {"sch_dow", &BackupJob::sch_dow},
    {"src_type", &BackupJob::src_type},
    {"src_share_proto", &BackupJob::src_share_proto},
    {"src_share_vol", &BackupJob::src_share_vol},
    {"src_path", &BackupJob::src_path},
    {"src_login", &BackupJob::src_login},
    {"src_password", &BackupJob::src_password},
    {"src_port", &BackupJob::src_port},
    {"src_eject", &BackupJob::src_eject},
    {"dst_type", &BackupJob::dst_type},
    {"dst_share_proto", &BackupJob::dst_share_proto},
    {"dst_share_vol", &BackupJob::dst_share_vol},
    {"dst_path", &BackupJob::dst_path},
    {"dst_login", &BackupJob::dst_login},
    {"dst_password", &BackupJob::dst_password},
    {"dst_port", &BackupJob::dst_port},
    {"dst_eject", &BackupJob::dst_eject},
    {"opt_full_backup_freq", &BackupJob::opt_full_backup_freq},
    {"opt_remove_previous_backup", &BackupJob::opt_remove_previous_backup},
    {"opt_chown_to_share_owner", &BackupJob::opt_chown_to_share_owner},
    {"opt_rsync_options", &BackupJob::opt_rsync_options},
    {"opt_email_this_to_alert_email", &BackupJob::opt_email_this_to_alert_email},
    {"opt_rsync_exclude", &BackupJob::opt_rsync_exclude},
    {"opt_misc_option", &BackupJob::opt_misc_option},
    {"opt_max_log_lines", &BackupJob::opt_max_log_lines},
    {"wol_addr", &BackupJob::wol_addr},
    {"time_to_wait", &BackupJob::time_to_wait},
};

class JobFile : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        remove_tree(paths::job_file);
    }
    void TearDown() override { remove_tree(paths::job_file); }
};

std::string element(const std::string &name, const std::string &text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

/// The whole document is `text`.
void write_raw(const std::string &text) { write_file(paths::job_file, text); }

TEST_F(JobFile, each_setting_is_loaded_into_its_own_field) {
    std::string settings;
    for (const Field &field : kFields)
        settings += element(field.element, "5 " + std::string(field.element) + " ");
    write_job_file(job_element(7, settings));

    const Diagnostics diagnostics;
    const std::unique_ptr<BackupJob> job = backup_job_load(7);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->job_id, 7);
    for (const Field &field : kFields)
        EXPECT_EQ(job.get()->*field.text, "5 " + std::string(field.element) + " ") << field.element;
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(JobFile, absent_empty_and_present_settings_differ) {
    for (const Field &field : kFields) {
        if (field.text == &BackupJob::opt_max_log_lines) continue;
        SCOPED_TRACE(field.element);
        const std::string self_closing = std::string("<").append(field.element).append("/>");
        write_job_file(job_element(1, "") + job_element(2, element(field.element, "")) + job_element(3, self_closing) +
                       job_element(4, element(field.element, "x")));
        EXPECT_EQ(backup_job_load(1).get()->*field.text, std::nullopt);
        EXPECT_EQ(backup_job_load(2).get()->*field.text, "");
        EXPECT_EQ(backup_job_load(3).get()->*field.text, "");
        EXPECT_EQ(backup_job_load(4).get()->*field.text, "x");
    }
}

TEST_F(JobFile, the_line_cap_is_at_least_one) {
    struct Case {
        const char *setting;
        const char *loaded;
    };
    const Case cases[] = {
        {"", "1000"},
        {"<opt_max_log_lines/>", "1000"},
        {"<opt_max_log_lines>0</opt_max_log_lines>", "1000"},
        {"<opt_max_log_lines>-5</opt_max_log_lines>", "1000"},
        {"<opt_max_log_lines>abc</opt_max_log_lines>", "1000"},
        {"<opt_max_log_lines>4294967296</opt_max_log_lines>", "1000"},
        {"<opt_max_log_lines>1</opt_max_log_lines>", "1"},
        {"<opt_max_log_lines> 12x</opt_max_log_lines>", " 12x"},
        {"<opt_max_log_lines>2147483647</opt_max_log_lines>", "2147483647"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.setting);
        write_job_file(job_element(1, test.setting));
        EXPECT_EQ(backup_job_load(1)->opt_max_log_lines, test.loaded);
    }
}

TEST_F(JobFile, the_number_is_read_as_decimal_text) {
    struct Case {
        const char *job;
        std::int32_t found_as; ///< -1: by nothing
    };
    const Case cases[] = {
        {"<job_id> 12abc</job_id>", 12},
        {"<job_id>+12</job_id>", 12},
        {"<job_id>0012</job_id>", 12},
        {"<job_id>0x12</job_id>", 0},
        {"<job_id>abc</job_id>", 0},
        {"<job_id>4294967308</job_id>", 12},
        {"<job_id>1</job_id><job_id>12</job_id>", 12},
        {"<job_id>12</job_id><job_id/>", -1},
        {"<job_id><b>12</b></job_id>", -1},
        {"<job_id/>", -1},
        {"<Job_id>12</Job_id>", -1},
        {"<job_id>-12</job_id>", -1},
        {"", -1},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.job);
        write_raw("<r><j>" + std::string(test.job) + "<name>n</name></j></r>");
        for (const std::int32_t asked : {-12, -1, 0, 1, 12}) {
            const std::unique_ptr<BackupJob> job = backup_job_load(asked);
            EXPECT_EQ(job != nullptr, asked == test.found_as && test.found_as >= 0) << asked;
        }
    }
}

TEST_F(JobFile, the_first_job_with_a_number_wins_and_no_later_one_is_looked_at) {
    write_job_file(job_element(1, "<name>other</name>") + job_element(7, "<name>first</name>") +
                   job_element(7, "<name>second</name><odd/>"));
    const Diagnostics diagnostics;
    EXPECT_EQ(backup_job_load(7)->name, "first");
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(JobFile, settings_of_a_job_that_does_not_match_do_not_reach_the_next) {
    write_job_file(job_element(1, "<name>one</name><src_path>p</src_path>") + job_element(2, ""));
    const std::unique_ptr<BackupJob> job = backup_job_load(2);
    EXPECT_EQ(job->name, std::nullopt);
    EXPECT_EQ(job->src_path, std::nullopt);
}

TEST_F(JobFile, a_setting_given_twice_keeps_its_last_text) {
    write_job_file(job_element(1, "<name>a</name><name>b</name><src_path>p</src_path><src_path/>"));
    const std::unique_ptr<BackupJob> job = backup_job_load(1);
    EXPECT_EQ(job->name, "b");
    EXPECT_EQ(job->src_path, "");
}

TEST_F(JobFile, names_of_the_root_and_of_jobs_do_not_matter) {
    write_raw("<x:anything xmlns:x='u'><whatever><job_id>3</job_id><name>n</name></whatever></x:anything>");
    EXPECT_EQ(backup_job_load(3)->name, "n");
}

TEST_F(JobFile, unknown_elements_are_logged_in_every_job_up_to_the_match) {
    write_job_file("<backupButtonJobs><backupButtonJob>1</backupButtonJob><backupButtonJob>2</backupButtonJob>"
                   "</backupButtonJobs>" +
                   job_element(1, "<Name>n</Name><na/>") + job_element(2, "<name2/><!-- note --><name>n</name>") +
                   job_element(3, "<never_reached/>"));
    const Diagnostics diagnostics;
    EXPECT_EQ(backup_job_load(2)->name, "n");
    EXPECT_EQ(diagnostics.without_places(), "(error) Unknown element <backupButtonJob> found\n"
                                            "(error) Unknown element <backupButtonJob> found\n"
                                            "(error) Unknown element <Name> found\n"
                                            "(error) Unknown element <na> found\n"
                                            "(error) Unknown element <name2> found\n"
                                            "(error) Unknown element <comment> found\n");
}

TEST_F(JobFile, nodes_that_are_no_elements_count_as_settings_with_their_names) {
    write_raw("<!DOCTYPE r [<!ENTITY e 'text'>]>"
              "<r>stray<!-- c --><?pi x?><j><job_id>1</job_id>loose<?target x?><![CDATA[data]]>&e;</j></r>");
    const Diagnostics diagnostics;
    EXPECT_TRUE(backup_job_load(1));
    EXPECT_EQ(diagnostics.without_places(), "(error) Unknown element <text> found\n"
                                            "(error) Unknown element <target> found\n"
                                            "(error) Unknown element <> found\n"
                                            "(error) Unknown element <e> found\n");
}

TEST_F(JobFile, a_value_is_the_content_of_the_first_child) {
    struct Case {
        const char *element;
        const char *value;
    };
    const Case cases[] = {
        {"<name>a &amp; b &lt;c&gt; &#65;&#x2013;</name>", "a & b <c> A\u2013"},
        {"<name><![CDATA[<raw> &amp;]]></name>", "<raw> &amp;"},
        {"<name>\n  two\n  lines\n</name>", "\n  two\n  lines\n"},
        {"<name>text<b>bold</b></name>", "text"},
        {"<name><b>bold</b>text</name>", ""},
        {"<name><!-- note -->text</name>", " note "},
        {"<name kind='x'>text</name>", "text"},
        {"<name>J\u00f6b \u2713</name>", "J\u00f6b \u2713"},
        {"<x:name xmlns:x='u'>spaced</x:name>", "spaced"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.element);
        write_job_file(job_element(1, test.element));
        const std::unique_ptr<BackupJob> job = backup_job_load(1);
        ASSERT_TRUE(job);
        EXPECT_EQ(job->name, test.value);
    }
}

TEST_F(JobFile, an_unusable_file_is_no_job_and_no_message) {
    struct Case {
        const char *name;
        std::string content;
    };
    const Case cases[] = {
        {"empty", ""},
        {"blank", " \n\t"},
        {"not XML", "job_id=1\nname=n\n"},
        {"binary", std::string("\0\1\2\377\376<r>", 8)},
        {"declaration alone", "<?xml version='1.0'?>"},
        {"root without children", "<r/>"},
        {"root with blanks", "<r>\n  \n</r>"},
        {"truncated", "<r><j><job_id>1</job_id><name>n</na"},
        {"two roots", "<r><j><job_id>1</job_id></j></r><r/>"},
        {"wrong nesting", "<r><j><job_id>1</j></job_id></r>"},
        {"not UTF-8", "<r><j><job_id>1</job_id><name>\xff\xfe</name></j></r>"},
        {"undeclared entity", "<r><j><job_id>1</job_id><name>&none;</name></j></r>"},
        {"another number", "<r><j><job_id>2</job_id></j></r>"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        write_raw(test.content);
        const Diagnostics diagnostics;
        testing::internal::CaptureStderr();
        EXPECT_FALSE(backup_job_load(1));
        EXPECT_THAT(button_jobs_load(), IsEmpty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(diagnostics.text(), "");
    }
    remove_tree(paths::job_file);
    const Diagnostics diagnostics;
    EXPECT_FALSE(backup_job_load(1));
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(JobFile, a_bomb_of_entities_ends_quickly_and_quietly) {
    std::string bomb = "<!DOCTYPE r [<!ENTITY e0 'ha ha ha ha '>";
    for (int depth = 1; depth < 30; ++depth) {
        const std::string below = "&e" + std::to_string(depth - 1) + ";";
        bomb += "<!ENTITY e" + std::to_string(depth) + " '";
        for (int times = 0; times < 10; ++times)
            bomb += below;
        bomb += "'>";
    }
    write_raw(bomb + "]><r><j><job_id>1</job_id><name>&e29;</name></j></r>");

    const auto begin = std::chrono::steady_clock::now();
    const Diagnostics diagnostics;
    testing::internal::CaptureStderr();
    const std::unique_ptr<BackupJob> job = backup_job_load(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(diagnostics.text(), "");
    EXPECT_LT(job ? job->name.value_or("").size() : 0U, 1000U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(JobFile, an_entity_that_contains_itself_is_no_job) {
    write_raw("<!DOCTYPE r [<!ENTITY a '&b;'><!ENTITY b '&a;'>]><r><j><job_id>1</job_id><name>&a;</name></j></r>");
    const Diagnostics diagnostics;
    testing::internal::CaptureStderr();
    backup_job_load(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(diagnostics.text(), "");
}

// A named pipe in the place of what the document refers to would hold up whoever opens it.
TEST_F(JobFile, nothing_that_the_document_refers_to_is_opened) {
    const TempFolder folder;
    const std::string secret = folder / "secret";
    write_file(secret, "do not read");
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string documents[] = {
        "<!DOCTYPE r SYSTEM '" + pipe + "'><r><j><job_id>1</job_id></j></r>",
        "<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/x.dtd'><r><j><job_id>1</job_id></j></r>",
        "<!DOCTYPE r [<!ENTITY x SYSTEM '" + secret + "'>]><r><j><job_id>1</job_id><name>&x;</name></j></r>",
        "<!DOCTYPE r [<!ENTITY x SYSTEM 'file://" + pipe + "'>]><r><j><job_id>1</job_id><name>&x;</name></j></r>",
        "<!DOCTYPE r [<!ENTITY % x SYSTEM '" + pipe + "'> %x;]><r><j><job_id>1</job_id></j></r>",
        "<!DOCTYPE r [<!ENTITY % x SYSTEM '" + secret + "'> %x;]><r><j><job_id>1</job_id></j></r>",
    };
    for (const std::string &document : documents) {
        SCOPED_TRACE(document);
        write_raw(document);
        const Diagnostics diagnostics;
        testing::internal::CaptureStderr();
        const std::unique_ptr<BackupJob> job = backup_job_load(1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(diagnostics.text(), "");
        EXPECT_EQ((job ? job->name.value_or("") : "").find("do not read"), std::string::npos);
    }
}

TEST_F(JobFile, a_huge_file_is_refused_with_one_line) {
    write_job_file(job_element(1, ""));
    ASSERT_EQ(truncate(paths::job_file, 100 << 20), 0);
    const Diagnostics diagnostics;
    EXPECT_FALSE(backup_job_load(1));
    EXPECT_EQ(diagnostics.without_places(),
              "(error) /etc/tessera/backup_jobs.conf is larger than 16 MiB and is not read.\n");
}

TEST_F(JobFile, a_file_below_the_limit_is_read) {
    std::string jobs;
    for (int job_id = 1; jobs.size() < (8U << 20U); ++job_id)
        jobs += job_element(job_id, "<name>" + std::string(200, 'n') + "</name>");
    write_job_file(jobs + job_element(9'999'999, "<name>last</name>"));
    EXPECT_EQ(backup_job_load(9'999'999)->name, "last");
}

TEST_F(JobFile, a_pipe_or_a_folder_in_its_place_is_refused_with_one_line) {
    const std::string line = "(error) /etc/tessera/backup_jobs.conf is no regular file and is not read.\n";
    ASSERT_EQ(mkfifo(paths::job_file, 0600), 0);
    {
        const Diagnostics diagnostics;
        EXPECT_FALSE(backup_job_load(1));
        EXPECT_EQ(diagnostics.without_places(), line);
    }
    remove_tree(paths::job_file);
    make_folder(paths::job_file);
    const Diagnostics diagnostics;
    EXPECT_FALSE(backup_job_load(1));
    EXPECT_EQ(diagnostics.without_places(), line);
}

TEST_F(JobFile, the_button_list_joins_all_its_elements_in_order) {
    write_raw("<r><backupButtonJobs><backupButtonJob>3</backupButtonJob><other>9</other>"
              "<backupButtonJob/><backupButtonJob> 12x</backupButtonJob></backupButtonJobs>"
              "<job><backupButtonJob>8</backupButtonJob></job>"
              "<BackupButtonJobs><backupButtonJob>7</backupButtonJob></BackupButtonJobs>"
              "<backupButtonJobs/>"
              "<backupButtonJobs><backupButtonJob>1</backupButtonJob><backupButtonJob>abc</backupButtonJob>"
              "</backupButtonJobs></r>");
    const Diagnostics diagnostics;
    EXPECT_THAT(button_jobs_load(), ElementsAre(3, 0, 12, 1, 0));
    EXPECT_EQ(diagnostics.text(), "");
}

} // namespace
} // namespace tsbackup::test
