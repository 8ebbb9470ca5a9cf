// Whatever the files hold, the view stays a table and the JSON stays JSON.

#include "collect.h"
#include "damage.h"
#include "json.h"
#include "status_files.h"
#include "support.h"
#include "table.h"
#include "tsbackup/paths.h"

#include <clocale>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

constexpr std::uint32_t kRounds = 150;

bool is_safe(const std::string &line) {
    for (const char letter : line)
        if (static_cast<unsigned char>(letter) < ' ' || letter == 0x7f) return false;
    return line.find("\u009b") == std::string::npos && line.find("\u202e") == std::string::npos;
}

void expect_safe(const std::vector<TableLine> &lines) {
    for (const TableLine &line : lines) {
        EXPECT_TRUE(is_safe(line.text)) << testing::PrintToString(line.text);
        EXPECT_LE(line.colour_at + line.colour_length, line.text.size());
        for (const std::size_t columns : {1U, 7U, 40U, 80U})
            EXPECT_TRUE(is_safe(table_line_text(line, columns, false)));
    }
}

void expect_shown() {
    Overview overview = collect_all(2);
    expect_safe(overview_table(overview));
    EXPECT_TRUE(nlohmann::json::accept(overview_json(overview)));
    for (const JobStatus &job : overview.jobs) {
        expect_safe(job_table(job, kNow));
        EXPECT_TRUE(nlohmann::json::accept(job_json(job, kNow)));
    }
}

class DamagedFiles : public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        ASSERT_NE(std::setlocale(LC_CTYPE, GetParam()), nullptr);
    }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

TEST_P(DamagedFiles, AreShownAllTheSame) {
    for (std::uint32_t round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        Damage damage(round);
        std::vector<StatusFile> files = sample_files();
        for (StatusFile &file : files)
            file.content = damage.damaged(std::move(file.content));
        write_files(files);
        expect_shown();
        if (HasFailure()) return;
    }
}

TEST_P(DamagedFiles, AnythingInPlaceOfAFile) {
    using Spoil = void (*)(const char *path);
    const Spoil spoils[] = {
        [](const char *path) { mkfifo(path, 0600); },
        [](const char *path) { mkdir(path, 0700); },
        [](const char *path) { static_cast<void>(symlink(path, path)); },
        [](const char *path) { static_cast<void>(symlink("/dev/zero", path)); },
        [](const char *path) { write_file(path, ""); },
        [](const char *path) { write_file(path, std::string(1 << 20, '\n')); },
        [](const char *path) { write_file(path, std::string(1 << 20, '\xff')); },
        [](const char *path) {
            write_file(path, "BACKUP_STATUS__FAILED!!1!!warn\n");
            static_cast<void>(truncate(path, 1L << 40));
        },
    };
    for (const Spoil spoil : spoils) {
        for (const StatusFile &file : sample_files()) {
            if (file.path == paths::job_file) continue;
            remove_tree(file.path);
            spoil(file.path.c_str());
        }
        expect_shown();
    }
    remove_tree(paths::log_folder);
    write_file(paths::log_folder, "no folder");
    expect_shown();
    remove_tree(paths::log_folder);
}

INSTANTIATE_TEST_SUITE_P(CharacterSets, DamagedFiles, testing::Values("C.UTF-8", "C"));

} // namespace
} // namespace tsbackup::test
