// The walk over a camera's folders, and what is done with one file, with a camera that answers what the test says.

#include "walk.h"

#include "camera_double.h"
#include "support.h"

#include <climits>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::time_t kMarch = 1709633472; // 2024-03-05 10:11:12 UTC
const std::string kMonth = "2024/03-Mar";

void set_text(UniqueText &owner, const char *text) { owner.reset(strdup(text)); }

std::vector<std::string> visited;
int visit_result = 0;
std::string visit_ends_at;

int visit(CameraSet *, const char *folder, const char *file, ImportCounters *, std::FILE *) {
    visited.push_back(file_on_camera(folder, file));
    return visited.back() == visit_ends_at ? visit_result : 0;
}

class Walk : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        set_text(set_.folder, "/");
        visited.clear();
        visit_ends_at.clear();
        previous_ = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(chdir(folder_.path().c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(fchdir(previous_), 0);
        close(previous_);
    }

    int walk(FileAction action) { return iterate_get_files(&set_, action, &counters_, nullptr); }

    int download(const char *folder, const char *name) {
        char *text = nullptr;
        std::size_t size = 0;
        std::FILE *log = open_memstream(&text, &size);
        const int result = download_file(&set_, folder, name, &counters_, log);
        std::fclose(log);
        log_ = text;
        std::free(text);
        return result;
    }

    std::string here(const std::string &name) const { return folder_ / name; }
    std::string in_month(const std::string &name) const { return folder_ / (kMonth + "/" + name); }
    std::vector<std::string> month() const { return list_folder(here(kMonth)); }
    std::string working_folder() const {
        std::array<char, PATH_MAX> path{};
        return getcwd(path.data(), path.size()) != nullptr ? path.data() : "";
    }

    CameraDouble camera_;
    CameraSet set_;
    ImportCounters counters_;
    std::string log_;
    TempFolder folder_;
    int previous_ = -1;
};

// --- The walk ---

TEST_F(Walk, AMissingSetIsRefused) {
    const Diagnostics diagnostics;
    EXPECT_EQ(iterate_get_files(nullptr, visit, &counters_, nullptr), -1);
    EXPECT_EQ(diagnostics.without_places(), "(error) camset is NULL!\n");
}

TEST_F(Walk, FilesComeBeforeFoldersInTheOrderOfTheCamera) {
    for (const char *name : {"b", "a", "c"})
        camera_.put("/", name, {});
    camera_.put_folder("/", "Z");
    camera_.put_folder("/", "A");
    camera_.put_folder("/Z", "inner");
    camera_.put("/Z", "z", {});
    camera_.put("/Z/inner", "i", {});
    camera_.put("/A", "a", {});
    const Diagnostics diagnostics;
    EXPECT_EQ(walk(visit), 0);
    EXPECT_THAT(visited, ElementsAre("//b", "//a", "//c", "/Z/z", "/Z/inner/i", "/A/a"));
    EXPECT_STREQ(set_.folder.get(), "/");
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(Walk, WithoutAnActionEveryFileIsCounted) {
    camera_.put("/", "a.jpg", {});
    camera_.put("/", "text", {"", 0, "text/plain"});
    camera_.put_folder("/", "A");
    camera_.put_folder("/", ".hidden");
    camera_.put("/A", "../strange", {});
    camera_.put("/.hidden", "not counted", {});
    camera_.info_result = GP_ERROR;
    EXPECT_EQ(walk(nullptr), 0);
    EXPECT_EQ(counters_.statistics.total_files, 3U);
    EXPECT_EQ(walk(nullptr), 0);
    EXPECT_EQ(counters_.statistics.total_files, 6U);
}

TEST_F(Walk, OnlyMediaFilesAreGivenToTheAction) {
    const struct {
        const char *type;
        int result;
    } cases[] = {
        {"image/jpeg", 0},
        {"image/", 0},
        {"image", 0},
        {"imagery", 0},
        {"video/mp4", 0},
        {"audio/x-wav", 0},
        {"imag", 1},
        {"Image/jpeg", 1},
        {"x-image/jpeg", 1},
        {"text/plain", 1},
        {"", 1},
        {"audi/x-wav", 1},
        {"application/x-unknown", 1},
    };
    for (const auto &[type, result] : cases) {
        camera_.files["/A/file"] = {"", 0, type};
        EXPECT_EQ(is_media_file(&set_, "/A", "file"), result) << type;
    }
    EXPECT_EQ(is_media_file(&set_, "/A", "missing"), -1);
    EXPECT_EQ(is_media_file(nullptr, "/A", "file"), -1);
    EXPECT_EQ(is_media_file(&set_, nullptr, "file"), -1);
    EXPECT_EQ(is_media_file(&set_, "/A", nullptr), -1);

    camera_.put("/", "text", {"", 0, "text/plain"});
    camera_.put("/", "sound", {"", 0, "audio/mp3"});
    EXPECT_EQ(walk(visit), 0);
    EXPECT_THAT(visited, ElementsAre("//sound"));
    camera_.info_result = GP_ERROR;
    EXPECT_EQ(walk(visit), 0);
    EXPECT_THAT(visited, ElementsAre("//sound"));
}

TEST_F(Walk, TellsWhichFoldersHoldNoFilesAndWhichAreHidden) {
    camera_.put_folder("/", "A");
    camera_.put_folder("/", ".trash");
    camera_.put_folder("/", "..");
    camera_.put("/.trash", "x", {});
    camera_.put_folder("/A", "B");
    camera_.put("/A/B", "b", {});
    for (const FileAction action : {static_cast<FileAction>(nullptr), static_cast<FileAction>(visit)}) {
        const Diagnostics diagnostics;
        EXPECT_EQ(walk(action), 0);
        EXPECT_EQ(diagnostics.without_places(), "(warning) No files under /\n(warning) No files under /A\n"
                                                "(info) Skip hidden folder: .trash\n(info) Skip hidden folder: ..\n");
    }
    EXPECT_THAT(visited, ElementsAre("/A/B/b"));
}

TEST_F(Walk, ANonzeroResultOfTheActionEndsIt) {
    for (const char *folder : {"A", "B"})
        camera_.put_folder("/", folder);
    camera_.put_folder("/A", "deep");
    for (const char *name : {"1", "2"})
        camera_.put("/A/deep", name, {});
    camera_.put("/B", "3", {});
    camera_.put("/", "0", {});
    camera_.put("/A", "4", {});
    visit_ends_at = "/A/deep/1";
    for (const int result : {-7, -2, 5}) {
        visit_result = result;
        visited.clear();
        const Diagnostics diagnostics;
        EXPECT_EQ(walk(visit), result);
        EXPECT_THAT(visited, ElementsAre("//0", "/A/4", "/A/deep/1"));
        EXPECT_EQ(diagnostics.without_places(),
                  "(error) download_file!\n(error) iterate_get_files!\n(error) iterate_get_files!\n");
        EXPECT_STREQ(set_.folder.get(), "/");
    }
}

TEST_F(Walk, AListingThatFailsEndsItWithItsResult) {
    camera_.put_folder("/", "A");
    camera_.put("/", "a", {});
    camera_.put("/A", "b", {});
    for (const int result : {-2, -1, -110}) {
        camera_.failing_listings = {{"/A", result}};
        const Diagnostics diagnostics;
        EXPECT_EQ(walk(visit), result);
        EXPECT_EQ(diagnostics.without_places(), "(error) iterate_get_files!\n");
        EXPECT_EQ(walk(nullptr), result);
        camera_.failing_listings = {{"/", result}};
        EXPECT_EQ(walk(visit), result);
        camera_.failing_listings.clear();
        camera_.failing_folder_listings = {{"/", result}};
        EXPECT_EQ(walk(visit), result);
        camera_.failing_folder_listings.clear();
    }
}

TEST_F(Walk, NamesThatCannotBeReadAreFailures) {
    camera_.put("/", "a", {});
    camera_.name_result = GP_ERROR_BAD_PARAMETERS;
    {
        const Diagnostics diagnostics;
        EXPECT_EQ(walk(visit), -2);
        EXPECT_EQ(diagnostics.without_places(), "(error) gp_list_count!\n");
    }
    camera_.put_folder("/", "A");
    const Diagnostics diagnostics;
    EXPECT_EQ(walk(nullptr), -2);
    EXPECT_EQ(diagnostics.without_places(), "(error) gp_list_get_name!\n");
}

TEST_F(Walk, FoldersWithoutANameAreSkipped) {
    camera_.put("/", "a", {});
    camera_.put_folder("/", "A");
    camera_.null_names = true;
    const Diagnostics diagnostics;
    EXPECT_EQ(walk(nullptr), 0);
    EXPECT_EQ(diagnostics.without_places(), "(error) folder name is null!\n");
    EXPECT_EQ(walk(visit), 0);
    EXPECT_THAT(visited, IsEmpty());
}

TEST_F(Walk, NamesThatLeadElsewhereAreSkipped) {
    for (const char *name : {"", ".", "..", "/", "a/b", "../x", "/etc/passwd", "x/"}) {
        EXPECT_FALSE(is_plain_name(name)) << name;
        camera_.put("/", name, {});
        if (*name != '.') camera_.put_folder("/", name);
    }
    EXPECT_FALSE(is_plain_name(nullptr));
    for (const char *name : {"a", "...", "..a", ".a", "a..", "\\", " ", "\n"})
        EXPECT_TRUE(is_plain_name(name)) << name;
    camera_.put("/", "good", {});
    const Diagnostics diagnostics;
    EXPECT_EQ(walk(visit), 0);
    EXPECT_THAT(visited, ElementsAre("//good"));
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(warning) Skip strange name: ../x\n"));
}

TEST_F(Walk, FoldersWithoutEndAreLeft) {
    const std::string name(255, 'd');
    std::string parent;
    for (int depth = 0; depth < 40; ++depth) {
        camera_.put_folder(depth == 0 ? "/" : parent, name);
        parent += "/" + name;
        camera_.put(parent, "a", {});
    }
    const Diagnostics diagnostics;
    EXPECT_EQ(walk(nullptr), 0);
    EXPECT_EQ(counters_.statistics.total_files, 15U);
    EXPECT_THAT(diagnostics.without_places(), HasSubstr("(warning) Skip folder that is too deep: /ddd"));
}

TEST(CameraPath, JoinsWithOneSlash) {
    EXPECT_STREQ(camera_path("/", "DCIM").get(), "/DCIM");
    EXPECT_STREQ(camera_path("/DCIM", "100").get(), "/DCIM/100");
    EXPECT_STREQ(camera_path("/DCIM/", "100").get(), "/DCIM/100");
    EXPECT_STREQ(camera_path("", "a").get(), "/a");
}

// --- Folders and names ---

TEST(MonthFolder, IsTheYearAndTheMonthInLocalTime) {
    const struct {
        const char *zone;
        std::time_t time;
        const char *folder;
    } cases[] = {
        {"UTC", kMarch, "2024/03-Mar"},        {"UTC", 0, "1970/01-Jan"},
        {"UTC", 1704067199, "2023/12-Dec"},    {"UTC", 1704067200, "2024/01-Jan"},
        {"EAST-9", 1711893600, "2024/03-Mar"}, {"EAST-9", 1711897200, "2024/04-Apr"},
        {"WEST+9", 1711929600, "2024/03-Mar"}, {"UTC", -1, "1969/12-Dec"},
        {"UTC", 4102444800, "2100/01-Jan"},
    };
    for (const auto &[zone, time, folder] : cases) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(month_folder(time).value_or("none"), folder) << zone << " " << time;
    }
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(MonthFolder, ATimeWithoutOneIsTold) {
    setenv("TZ", "UTC", 1);
    tzset();
    {
        const Diagnostics diagnostics;
        EXPECT_FALSE(month_folder(std::numeric_limits<std::time_t>::max()));
        EXPECT_EQ(diagnostics.without_places(), "(error) localtime_r err.\n");
    }
    const Diagnostics diagnostics;
    // A year of ten digits: the name would be longer than 15 characters.
    EXPECT_FALSE(month_folder(60'000'000'000'000'000));
    EXPECT_EQ(diagnostics.without_places(), "(error) strftime err.\n");
}

TEST(NameAside, HasTheTimeAsItsSuffix) {
    EXPECT_EQ(name_aside("A.JPG", kMarch), "A.JPG.1709633472");
    EXPECT_EQ(name_aside("A.JPG", 0), "A.JPG.0");
    EXPECT_EQ(name_aside("A.JPG", -5), "A.JPG.-5");
    const std::string longest(NAME_MAX, 'n');
    EXPECT_EQ(name_aside(longest, kMarch), std::string(NAME_MAX - 11, 'n') + ".1709633472");
    EXPECT_EQ(name_aside(longest.substr(11), kMarch), longest.substr(11) + ".1709633472");
}

// --- One file ---

TEST_F(Walk, MissingArgumentsAreRefused) {
    const Diagnostics diagnostics;
    for (const auto action : {download_file, delete_file}) {
        EXPECT_EQ(action(nullptr, "/", "a", &counters_, nullptr), -1);
        EXPECT_EQ(action(&set_, nullptr, "a", &counters_, nullptr), -1);
        EXPECT_EQ(action(&set_, "/", nullptr, &counters_, nullptr), -1);
        EXPECT_EQ(action(&set_, "/", "a", nullptr, nullptr), -1);
    }
    EXPECT_THAT(diagnostics.text(), HasSubstr("(error) param is NULL!"));
    EXPECT_THAT(list_folder(folder_.path()), IsEmpty());
}

TEST_F(Walk, AFileTheCameraDoesNotKnowIsMinusTwo) {
    camera_.info_result = GP_ERROR_IO;
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/", "a"), -2);
    EXPECT_EQ(diagnostics.without_places(), "(error) gp_camera_file_get_info.\n");
    EXPECT_THAT(list_folder(folder_.path()), IsEmpty());
}

TEST_F(Walk, AFileArrivesInTheFolderOfItsMonth) {
    camera_.put("/D", "A.JPG", {"picture", kMarch});
    const std::string before = working_folder();
    const mode_t mask = umask(022);
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(umask(mask), static_cast<mode_t>(022));
    EXPECT_EQ(log_, "Copy file /D/A.JPG\n");
    EXPECT_THAT(month(), ElementsAre("A.JPG"));
    struct stat status {};
    ASSERT_EQ(stat(in_month("A.JPG").c_str(), &status), 0);
    EXPECT_EQ(read_file(in_month("A.JPG")), "picture");
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
    EXPECT_EQ(status.st_mtim.tv_sec, kMarch);
    EXPECT_EQ(status.st_atim.tv_sec, kMarch);
    ASSERT_EQ(stat(here("2024").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
    EXPECT_EQ(working_folder(), before);
    // Nothing is counted or published.
    EXPECT_EQ(counters_.statistics.copied_files, 0U);
    EXPECT_EQ(counters_.statistics.copied_bytes, 0U);
    EXPECT_EQ(counters_.statistics.rate, 0);
}

TEST_F(Walk, AFileOfTheSameTimeIsSkipped) {
    camera_.put("/D", "A.JPG", {"picture", kMarch});
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(diagnostics.without_places(), "(debug) File A.JPG exist, skip it.\n");
    EXPECT_EQ(log_, "");
    EXPECT_THAT(camera_.fetched, ElementsAre("/D/A.JPG"));
    EXPECT_THAT(counters_.kept, IsEmpty());
}

TEST_F(Walk, AnotherFileOfTheNameIsMovedAside) {
    camera_.put("/D", "A.JPG", {"old", kMarch});
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    camera_.files["/D/A.JPG"] = {"new", kMarch + 60};
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(log_, "Rename exist file[A.JPG] to A.JPG.1709633532\nCopy file /D/A.JPG\n");
    EXPECT_THAT(month(), ElementsAre("A.JPG", "A.JPG.1709633532"));
    EXPECT_EQ(read_file(in_month("A.JPG")), "new");
    EXPECT_EQ(read_file(in_month("A.JPG.1709633532")), "old");
}

TEST_F(Walk, AFileThatWasMovedAsideIsReplacedByItsEqualOnly) {
    camera_.put("/D", "A.JPG", {"new", kMarch});
    write_file(in_month("A.JPG"), "edited");
    write_file(in_month("A.JPG.1709633472"), "oldest");
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(log_, "Rename exist file[A.JPG] to A.JPG.1709633472.1\nCopy file /D/A.JPG\n");
    EXPECT_EQ(read_file(in_month("A.JPG.1709633472")), "oldest");
    EXPECT_EQ(read_file(in_month("A.JPG.1709633472.1")), "edited");
    EXPECT_EQ(read_file(in_month("A.JPG")), "new");

    write_file(in_month("A.JPG"), "oldest");
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(log_, "Rename exist file[A.JPG] to A.JPG.1709633472\nCopy file /D/A.JPG\n");
    EXPECT_THAT(month(), ElementsAre("A.JPG", "A.JPG.1709633472", "A.JPG.1709633472.1"));
}

TEST_F(Walk, TheLongestNameCanBeMovedAside) {
    const std::string name = std::string(NAME_MAX - 4, 'n') + ".JPG";
    camera_.put("/D", name, {"new", kMarch});
    write_file(in_month(name), "old");
    EXPECT_EQ(download("/D", name.c_str()), 0);
    EXPECT_EQ(read_file(in_month(name)), "new");
    EXPECT_EQ(read_file(in_month(name_aside(name, kMarch))), "old");
    // Also when that name is taken.
    write_file(in_month(name), "older");
    EXPECT_EQ(download("/D", name.c_str()), 0);
    EXPECT_EQ(month().size(), 3U);
}

TEST_F(Walk, FoldersAndLinksOfTheNameAreMovedAsideToo) {
    camera_.put("/D", "A.JPG", {"new", kMarch});
    camera_.put("/D", "B.JPG", {"new", kMarch});
    write_file(in_month("A.JPG/inside"), "kept");
    write_file(here("outside"), "outside");
    ASSERT_EQ(symlink(here("outside").c_str(), in_month("B.JPG").c_str()), 0);
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(download("/D", "B.JPG"), 0);
    EXPECT_EQ(read_file(in_month("A.JPG")), "new");
    EXPECT_EQ(read_file(in_month("A.JPG.1709633472/inside")), "kept");
    EXPECT_EQ(read_file(in_month("B.JPG")), "new");
    EXPECT_EQ(read_file(here("outside")), "outside");
}

TEST_F(Walk, ALinkInPlaceOfAMonthIsNotFollowed) {
    camera_.put("/D", "A.JPG", {"new", kMarch});
    make_folder(here("elsewhere"));
    make_folder(here("2024"));
    ASSERT_EQ(symlink(here("elsewhere").c_str(), here(kMonth).c_str()), 0);
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", "A.JPG"), -1);
    EXPECT_EQ(diagnostics.without_places(), "(error) make_dir err.\n");
    EXPECT_THAT(list_folder(here("elsewhere")), IsEmpty());
}

TEST_F(Walk, AFileInPlaceOfAMonthIsAFailure) {
    camera_.put("/D", "A.JPG", {"new", kMarch});
    write_file(here("2024"), "a file");
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", "A.JPG"), -1);
    EXPECT_EQ(diagnostics.without_places(), "(error) make_dir err.\n");
}

TEST_F(Walk, AFileWithoutATimeKeepsTheTimeOfItsArrival) {
    camera_.put("/D", "A.JPG", {"picture", 0});
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    struct stat status {};
    ASSERT_EQ(stat(here("1970/01-Jan/A.JPG").c_str(), &status), 0);
    EXPECT_GE(status.st_mtim.tv_sec, before);
}

TEST_F(Walk, ADownloadThatFailsLeavesNothing) {
    camera_.put("/D", "A.JPG", {"picture", kMarch});
    for (const int result : {-1, -2, -7, -110, -114}) {
        camera_.get_result = result;
        const Diagnostics diagnostics;
        EXPECT_EQ(download("/D", "A.JPG"), result);
        EXPECT_EQ(diagnostics.without_places(), "(error) gp_camera_file_get /D-A.JPG err!\n");
        EXPECT_EQ(log_, "");
        EXPECT_THAT(month(), IsEmpty());
    }
}

TEST_F(Walk, AnEarlierCopySurvivesAFailedDownload) {
    camera_.put("/D", "A.JPG", {"new", kMarch});
    write_file(in_month("A.JPG"), "old");
    camera_.get_result = GP_ERROR_IO;
    EXPECT_EQ(download("/D", "A.JPG"), GP_ERROR_IO);
    EXPECT_EQ(read_file(in_month("A.JPG.1709633472")), "old");
    EXPECT_THAT(month(), ElementsAre("A.JPG.1709633472"));
}

TEST_F(Walk, AFileObjectThatCannotBeMadeSkipsTheFileAndKeepsItOnTheCamera) {
    camera_.put("/D", "A.JPG", {"picture", kMarch});
    camera_.new_file_result = GP_ERROR_NO_MEMORY;
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(diagnostics.without_places(), "(error) gp_file_new_from_fd err!\n");
    EXPECT_EQ(log_, "");
    EXPECT_THAT(month(), IsEmpty());
    EXPECT_THAT(counters_.kept, ElementsAre("/D/A.JPG"));
}

TEST_F(Walk, ANameThatCannotBeGivenIsAFailure) {
    const std::string name(NAME_MAX + 1, 'n');
    camera_.put("/D", name, {"picture", kMarch});
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", name.c_str()), -1);
    EXPECT_EQ(diagnostics.without_places(), "(error) rename " + name + " err!\n");
    EXPECT_EQ(log_, "");
    EXPECT_THAT(month(), IsEmpty());
}

TEST_F(Walk, NoDescriptorStaysOpen) {
    camera_.put("/D", "A.JPG", {"picture", kMarch});
    const auto open_now = [] { return list_folder("/proc/self/fd").size(); };
    const std::size_t before = open_now();
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    camera_.get_result = GP_ERROR_IO;
    camera_.files["/D/A.JPG"].mtime = kMarch + 1;
    EXPECT_EQ(download("/D", "A.JPG"), GP_ERROR_IO);
    camera_.new_file_result = GP_ERROR;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(open_now(), before);
}

// --- Counting ---

TEST_F(Walk, ACountingPassSumsUpAndCopiesNothing) {
    counters_.accounting = 1;
    counters_.counting_pass = 1;
    camera_.put("/D", "A.JPG", {"12345", kMarch});
    camera_.put("/D", "B.JPG", {"123", kMarch + 1});
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(download("/D", "B.JPG"), 0);
    EXPECT_EQ(counters_.statistics.total_bytes, 8U);
    EXPECT_EQ(counters_.statistics.total_files, 2U);
    EXPECT_EQ(counters_.statistics.copied_files, 0U);
    EXPECT_THAT(camera_.fetched, IsEmpty());
    EXPECT_THAT(month(), IsEmpty());
    EXPECT_EQ(log_, "");

    // What is there already need not be copied.
    counters_.counting_pass = 0;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    counters_.counting_pass = 1;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(counters_.statistics.total_files, 2U);
}

TEST_F(Walk, WithoutAccountingACountingPassCopies) {
    counters_.counting_pass = 1;
    camera_.put("/D", "A.JPG", {"12345", kMarch});
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(counters_.statistics.total_files, 0U);
    EXPECT_THAT(month(), ElementsAre("A.JPG"));
}

class Accounting : public Walk {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        Walk::SetUp();
        counters_.accounting = 1;
        counters_.device = "Zeno";
        camera_.put("/D", "A.JPG", {std::string(1000, 'x'), kMarch});
    }
    void TearDown() override {
        remove_tree(kStatus);
        if (in_appliance()) Walk::TearDown();
    }
    static constexpr char kStatus[] = "/var/log/tessera/backup/status_mtpbackup_Zeno";
};

TEST_F(Accounting, AFileIsCountedAndPublished) {
    counters_.statistics.total_bytes = 5000;
    counters_.statistics.total_files = 7;
    gettimeofday(&counters_.last_time, nullptr);
    counters_.last_time.tv_sec -= 100;
    const timeval before = counters_.last_time;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(counters_.statistics.copied_bytes, 1000U);
    EXPECT_EQ(counters_.statistics.copied_files, 1U);
    EXPECT_GE(counters_.last_time.tv_sec, before.tv_sec + 100);
    // 1000 bytes in a little more than 100 seconds.
    EXPECT_LE(counters_.statistics.rate, 10);
    EXPECT_GT(counters_.statistics.rate, 5);

    const std::string line = read_file(kStatus);
    const auto status = mtpbackup_status_parse(line.substr(0, line.find('\n')));
    ASSERT_TRUE(status) << line;
    EXPECT_EQ(status->code, MtpBackupStatusCode::active_copying);
    EXPECT_EQ(status->timestamp, counters_.last_time.tv_sec);
    EXPECT_EQ(status->statistics.total_bytes, 5000U);
    EXPECT_EQ(status->statistics.copied_bytes, 1000U);
    EXPECT_EQ(status->statistics.total_files, 7U);
    EXPECT_EQ(status->statistics.copied_files, 1U);
}

TEST_F(Accounting, AClockThatWasSetBackIsTold) {
    counters_.statistics.rate = 3;
    gettimeofday(&counters_.last_time, nullptr);
    counters_.last_time.tv_sec += 1000;
    const timeval before = counters_.last_time;
    const Diagnostics diagnostics;
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_THAT(
        diagnostics.without_places(),
        testing::MatchesRegex("\\(error\\) Time is not right\\? started usec \\[[0-9]+\\] copied usec\\[[0-9]+\\]\n"));
    EXPECT_EQ(counters_.statistics.rate, 3);
    EXPECT_EQ(counters_.last_time.tv_sec, before.tv_sec);
    EXPECT_EQ(counters_.statistics.copied_files, 1U);
    EXPECT_TRUE(file_exists(kStatus));
}

TEST_F(Accounting, AFileThatIsSkippedOrFailsIsNotCounted) {
    camera_.get_result = GP_ERROR_IO;
    EXPECT_EQ(download("/D", "A.JPG"), GP_ERROR_IO);
    camera_.get_result = GP_OK;
    write_file(in_month("A.JPG"), "x");
    const timespec times[] = {{kMarch, 0}, {kMarch, 0}};
    utimensat(AT_FDCWD, in_month("A.JPG").c_str(), times, 0);
    EXPECT_EQ(download("/D", "A.JPG"), 0);
    EXPECT_EQ(counters_.statistics.copied_files, 0U);
    EXPECT_FALSE(file_exists(kStatus));
}

// --- Deleting ---

TEST_F(Walk, DeletesFromTheCamera) {
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *log = open_memstream(&text, &size);
    EXPECT_EQ(delete_file(&set_, "/D", "A.JPG", &counters_, log), 0);
    EXPECT_EQ(delete_file(&set_, "/D", "B.JPG", &counters_, nullptr), 0);
    camera_.delete_result = -6;
    EXPECT_EQ(delete_file(&set_, "/D", "C.JPG", &counters_, log), -6);
    std::fclose(log);
    EXPECT_STREQ(text, "Remove file /D/A.JPG\n");
    std::free(text);
    EXPECT_THAT(camera_.deleted, ElementsAre("/D/A.JPG", "/D/B.JPG"));
}

TEST_F(Walk, ACountingPassDeletesNothing) {
    counters_.counting_pass = 1;
    EXPECT_EQ(delete_file(&set_, "/D", "A.JPG", &counters_, nullptr), 0);
    EXPECT_THAT(camera_.deleted, IsEmpty());
}

TEST_F(Walk, WhatDidNotArriveIsNotDeleted) {
    camera_.put("/D", "A.JPG", {"first", kMarch});
    camera_.put("/E", "A.JPG", {"another one", kMarch});
    camera_.put("/F", "A.JPG", {"first", kMarch});
    camera_.put("/G", "A.JPG", {"of unknown size", kMarch, "image/jpeg", false});
    for (const char *folder : {"/D", "/E", "/F", "/G"})
        EXPECT_EQ(download(folder, "A.JPG"), 0);
    camera_.put("/H", "B.JPG", {"picture", kMarch});
    camera_.new_file_result = GP_ERROR;
    EXPECT_EQ(download("/H", "B.JPG"), 0);
    EXPECT_THAT(counters_.kept, ElementsAre("/E/A.JPG", "/H/B.JPG"));

    const Diagnostics diagnostics;
    for (const char *folder : {"/D", "/E", "/F", "/G"})
        EXPECT_EQ(delete_file(&set_, folder, "A.JPG", &counters_, nullptr), 0);
    EXPECT_EQ(delete_file(&set_, "/H", "B.JPG", &counters_, nullptr), 0);
    EXPECT_THAT(camera_.deleted, ElementsAre("/D/A.JPG", "/F/A.JPG", "/G/A.JPG"));
    EXPECT_EQ(diagnostics.without_places(),
              "(warning) Keep /E/A.JPG on the camera.\n(warning) Keep /H/B.JPG on the camera.\n");
}

} // namespace
} // namespace tsbackup::test
