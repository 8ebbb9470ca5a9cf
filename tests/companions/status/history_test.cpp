#include "history.h"

#include "support.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

constexpr char kRun[] = "name: Job\nfull: yes\nproto: local\nsrc: [share:P]/a\ndst: [usb:usb_port_1]/b\n"
                        "start: 10\nfinish: 20\nstatus: 6\nlog:\n";

struct HistoryCase {
    const char *name;
    std::string text;
    std::vector<std::string> names; ///< of the entries that are found
};

const HistoryCase kHistories[] = {
    {"nothing", "", {}},
    {"one run", kRun, {"Job"}},
    {"two runs", std::string(kRun) + kRun, {"Job", "Job"}},
    {"half an entry at the end", std::string(kRun) + std::string(kRun).substr(0, 40), {"Job"}},
    {"the end of the last line is missing", std::string(kRun).substr(0, std::string(kRun).size() - 1), {}},
    {"an entry without its start",
     "name: A\nproto: local\nsrc: a\ndst: b\nfinish: 1\nstatus: 0\nlog:\n" + std::string(kRun),
     {"Job"}},
    {"a number that is none", "name: A\nproto: local\nsrc: a\ndst: b\nstart: 1x\nfinish: 1\nstatus: 0\nlog:\n", {}},
    {"a number beyond 32 bits",
     "name: A\nproto: local\nsrc: a\ndst: b\nstart: 99999999999\nfinish: 1\nstatus: 0\nlog:\n",
     {}},
    {"lines in front of an entry", "rubbish\n" + std::string(kRun), {"Job"}},
    {"no text, only ends", "log:\nlog:\n\nlog:\n", {}},
    {"an empty name", "name: \nproto: local\nsrc: a\ndst: b\nstart: 1\nfinish: 1\nstatus: 0\nlog:\n", {""}},
    {"a name of two lines",
     "name: A\nB\nproto: local\nsrc: a\ndst: b\nstart: 1\nfinish: 1\nstatus: 0\nlog:\n",
     {"A\nB"}},
    {"a name that plays a status",
     "name: A\nstart: 5\nfinish: 5\nstatus: 0\nproto: local\nsrc: a\ndst: b\nstart: 1\nfinish: 2\nstatus: 6\nlog:\n",
     {"A\nstart: 5\nfinish: 5\nstatus: 0"}},
};

TEST(History, GivesWholeEntriesAlone) {
    for (const HistoryCase &c : kHistories) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> names;
        for (const HistoryEntry &entry : history_parse(c.text, 100))
            names.push_back(entry.name);
        EXPECT_EQ(names, c.names);
    }
}

TEST(History, StopsAfterAsManyEntriesAsAsked) {
    const std::string text = std::string(kRun) + kRun + kRun;
    EXPECT_EQ(history_parse(text, 0).size(), 0U);
    EXPECT_EQ(history_parse(text, 2).size(), 2U);
}

TEST(History, ReadsWhatIsWrittenAtTheEndOfARun) {
    REQUIRE_APPLIANCE();
    remove_tree(paths::log_folder);
    make_folder(paths::log_folder);
    BackupJob job;
    job.job_id = 7;
    job.name = "Pictures";
    job.src_type = "share";
    job.src_share_proto = "P";
    job.src_path = "a\nb";
    job.dst_type = "remote";
    job.dst_share_proto = "nfs";
    job.dst_path = "host:/x";
    BackupRun run;
    run.job_id = 7;
    for (const std::int32_t full : {1, 0, -1}) {
        run.full = full;
        run.start_time = 1000 + full;
        run.error_code = 5 + full;
        backup_log_finish(job, run);
    }

    const std::vector<HistoryEntry> entries = history_parse(read_file(paths::history(7)), 10);
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].full, std::nullopt);
    EXPECT_EQ(entries[1].full, false);
    EXPECT_EQ(entries[2].full, true);
    EXPECT_EQ(entries[0].start, 999);
    EXPECT_EQ(entries[0].status, 4);
    EXPECT_GT(entries[0].finish, 1'000'000'000);
    EXPECT_EQ(entries[0].name, "Pictures");
    EXPECT_EQ(entries[0].protocol, "nfs");
    EXPECT_EQ(entries[0].source, "[share:P]/a\nb");
    EXPECT_EQ(entries[0].destination, "[remote:nfs]/host:/x");
}

} // namespace
} // namespace tsbackup::test
