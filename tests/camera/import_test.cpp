// The import of a camera's files with the real camera library: what arrives where, what is told, what is left alone.

#include "imports.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <sys/stat.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

const std::string kName = "Zeno_M_1";
const std::string kDestination = "/data/Pictures/cameras";
const std::string kFolder = kDestination + "/" + kName;
const std::string kLine = std::string(52, '-') + "\n";
const std::time_t kMarch = utc(2024, 3, 5, 10, 11, 12);

std::string log_of(const std::string &lines, const std::string &folder = kFolder, const std::string &name = kName,
                   const std::string &result = "Success") {
    return "Source: " + name + "\nDestination: " + folder + "\nStart Time: TIME\n" + kLine + lines + kLine +
           "Finish Time: TIME\nBackup Status: " + result + "\n\n";
}

std::string copied(const std::string &name, const std::string &folder = "/store_00010001/DCIM/100ZENO") {
    return "Copy file " + folder + "/" + name + "\n";
}

class Import : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        reset_appliance();
        make_folder(kDestination);
        enable_import(kDestination);
    }

    /// Runs the import and expects it to tell nothing of a failure.
    static void expect_success(const Camera &camera, const std::string &name = kName,
                               const ProgramOptions &options = camera_options()) {
        const Outcome outcome = run_import(camera, name, options);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(with_placeholders(read_file(import_status_path(name))).substr(0, 29), "MBACKUP_STATUS__COMPLETED!!TI")
            << outcome.err;
    }
};

void put_pictures(Camera &camera) {
    camera.put("DCIM/100ZENO/IMG_0001.JPG", "first picture", kMarch);
    camera.put("DCIM/100ZENO/IMG_0002.JPG", std::string(100'000, 'x'), utc(2024, 3, 31, 23, 59, 59));
    camera.put("DCIM/100ZENO/MVI_0003.MOV", std::string(3'000'000, 'm'), utc(2023, 12, 24, 18));
}

// --- A whole import ---

TEST_F(Import, FilesArriveInFoldersOfTheirMonth) {
    Camera camera;
    put_pictures(camera);
    EventReceiver events;
    StatusWatcher status(import_status_path(kName));
    const Outcome outcome = run_import(camera, kName);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");

    EXPECT_THAT(files_below(kDestination),
                ElementsAre(kName + "/2023/12-Dec/MVI_0003.MOV", kName + "/2024/03-Mar/IMG_0001.JPG",
                            kName + "/2024/03-Mar/IMG_0002.JPG"));
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0001.JPG"), "first picture");
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0002.JPG"), std::string(100'000, 'x'));
    EXPECT_EQ(read_file(kFolder + "/2023/12-Dec/MVI_0003.MOV"), std::string(3'000'000, 'm'));

    EXPECT_EQ(import_log(kName), log_of(copied("IMG_0001.JPG") + copied("IMG_0002.JPG") + copied("MVI_0003.MOV")));
    std::vector<std::string> states;
    for (const std::string &content : status.seen())
        states.push_back(with_placeholders(content));
    EXPECT_THAT(states, ElementsAre(import_status("ACTIVE_COPYING", "OK", 3) + "\n",
                                    import_status("COMPLETED", "OK", 3) + "\n"));
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
    EXPECT_THAT(list_folder(kLogFolder),
                UnorderedElementsAre("mtpbackup_" + kName + ".log", "status_mtpbackup_" + kName));
    EXPECT_THAT(waits(), IsEmpty());
}

TEST_F(Import, TellsItsTimes) {
    Camera camera;
    put_pictures(camera);
    const std::time_t before = time(nullptr);
    expect_success(camera);
    const std::time_t after = time(nullptr);
    static const std::regex log_times("\nStart Time: ([0-9]+)\n[^]*\nFinish Time: ([0-9]+)\n");
    static const std::regex status_time("^MBACKUP_STATUS__COMPLETED!!([0-9]+)!!OK!!");
    const std::string log = read_file(import_log_path(kName));
    const std::string status = read_file(import_status_path(kName));
    std::smatch times;
    ASSERT_TRUE(std::regex_search(log, times, log_times)) << log;
    EXPECT_LE(before, std::stoll(times[1]));
    EXPECT_LE(std::stoll(times[1]), std::stoll(times[2]));
    EXPECT_LE(std::stoll(times[2]), after);
    ASSERT_TRUE(std::regex_search(status, times, status_time)) << status;
    EXPECT_LE(before, std::stoll(times[1]));
    EXPECT_LE(std::stoll(times[1]), after);
}

TEST_F(Import, SaysOnlyWhichFoldersHoldNoFiles) {
    Camera camera;
    put_pictures(camera);
    camera.put_folder("MISC");
    const Outcome outcome = run_import(camera, kName);
    std::string walk;
    for (const char *folder : {"/", "/store_00010001", "/store_00010001/DCIM", "/store_00010001/MISC"})
        walk += std::string("tsbackup_mtp (warning) No files under ") + folder + "\n";
    // Once for the count, once for the copies.
    EXPECT_TRUE(same_text(walk + walk, told(outcome)));
}

TEST_F(Import, LongPathsAreNoObstacle) {
    Camera camera;
    put_pictures(camera);
    std::string destination = kDestination;
    while (destination.size() < 3900)
        destination += "/" + std::string(99, 'd');
    enable_import(destination);
    const std::string name(63, 'n');
    expect_success(camera, name);
    EXPECT_EQ(shell_output("find " + kDestination + " -type f | grep -c '/" + name + "/202[34]/'"), "3\n");
}

TEST_F(Import, FilesHaveTheirTimesAndOrdinaryPermissions) {
    Camera camera;
    put_pictures(camera);
    const mode_t before = umask(027);
    expect_success(camera);
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat((kFolder + "/2024/03-Mar/IMG_0001.JPG").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0640));
    EXPECT_EQ(status.st_mtim.tv_sec, kMarch);
    EXPECT_EQ(status.st_mtim.tv_nsec, 0);
    EXPECT_EQ(status.st_atim.tv_sec, kMarch);
    for (const std::string &folder : {kFolder, kFolder + "/2024", kFolder + "/2024/03-Mar"}) {
        ASSERT_EQ(stat(folder.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0750)) << folder;
    }
}

TEST_F(Import, ASecondImportCopiesNothing) {
    Camera camera;
    put_pictures(camera);
    expect_success(camera);
    // What was copied is not looked into again.
    write_file(kFolder + "/2024/03-Mar/IMG_0001.JPG", "edited");
    const timespec times[] = {{kMarch, 0}, {kMarch, 0}};
    utimensat(AT_FDCWD, (kFolder + "/2024/03-Mar/IMG_0001.JPG").c_str(), times, 0);
    const auto before = every_path();
    camera.forget_log();

    EventReceiver events;
    expect_success(camera);
    EXPECT_EQ(camera.asked(": GetObject "), 0);
    EXPECT_THAT(new_paths(before), IsEmpty());
    EXPECT_THAT(files_below(kFolder), SizeIs(3));
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0001.JPG"), "edited");
    EXPECT_EQ(import_log(kName), log_of(""));
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
}

TEST_F(Import, OnlyWhatIsNewIsCopied) {
    Camera camera;
    put_pictures(camera);
    expect_success(camera);
    camera.put("DCIM/100ZENO/IMG_0004.JPG", "fourth", kMarch + 60);
    camera.put("DCIM/101ZENO/IMG_0001.JPG", "April", utc(2024, 4, 1));
    expect_success(camera);
    EXPECT_EQ(import_log(kName),
              log_of(copied("IMG_0004.JPG") + copied("IMG_0001.JPG", "/store_00010001/DCIM/101ZENO")));
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/IMG_0001.JPG"), "first picture");
    EXPECT_EQ(read_file(kFolder + "/2024/04-Apr/IMG_0001.JPG"), "April");
}

TEST_F(Import, EveryMonthHasItsFolder) {
    Camera camera;
    const char *const names[] = {"01-Jan", "02-Feb", "03-Mar", "04-Apr", "05-May", "06-Jun",
                                 "07-Jul", "08-Aug", "09-Sep", "10-Oct", "11-Nov", "12-Dec"};
    std::vector<std::string> expected;
    for (int month = 1; month <= 12; ++month) {
        const std::string name = "IMG_" + std::to_string(100 + month) + ".JPG";
        camera.put("DCIM/" + name, name, utc(2020 + month % 3, month, 1));
        expected.push_back(std::to_string(2020 + month % 3) + "/" + names[month - 1] + "/" + name);
    }
    expect_success(camera, kName, camera_options({{"LC_ALL", "de_DE.UTF-8"}}));
    EXPECT_THAT(files_below(kFolder), testing::UnorderedElementsAreArray(expected));
}

TEST_F(Import, TheMonthIsThatOfTheLocalTime) {
    Camera camera;
    const std::time_t late = utc(2024, 3, 31, 20);
    camera.put("DCIM/A.JPG", "a", late);
    expect_success(camera, "east", camera_options({{"TZ", "EAST-9"}}));
    expect_success(camera, "west", camera_options({{"TZ", "WEST+9"}}));
    EXPECT_EQ(file_time(kDestination + "/east/2024/04-Apr/A.JPG"), late);
    EXPECT_EQ(file_time(kDestination + "/west/2024/03-Mar/A.JPG"), late);
}

TEST_F(Import, AFileWithoutATimeGoesToTheFirstMonthAndKeepsTheTimeOfItsImport) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", 0);
    const std::time_t before = time(nullptr);
    expect_success(camera);
    EXPECT_THAT(files_below(kFolder), ElementsAre("1970/01-Jan/A.JPG"));
    EXPECT_GE(file_time(kFolder + "/1970/01-Jan/A.JPG"), before);
}

// --- What is taken ---

TEST_F(Import, OnlyPicturesFilmsAndSoundsAreCopiedAndAllFilesAreCounted) {
    Camera camera;
    for (const char *name : {"a.JPG", "b.mov", "c.mp4", "d.wav", "e.txt", "f.xyz", "g", "h.tif", "i.png"})
        camera.put(std::string("DCIM/") + name, name, kMarch);
    StatusWatcher status(import_status_path(kName));
    expect_success(camera);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"),
                ElementsAre("a.JPG", "b.mov", "c.mp4", "d.wav", "h.tif", "i.png"));
    EXPECT_EQ(with_placeholders(status.seen().back()), import_status("COMPLETED", "OK", 9) + "\n");
}

TEST_F(Import, HiddenFoldersAreNotEntered) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    camera.put(".Trashes/B.JPG", "b", kMarch);
    camera.put("DCIM/.thumbs/C.JPG", "c", kMarch);
    camera.put("DCIM/.hidden.JPG", "d", kMarch);
    StatusWatcher status(import_status_path(kName));
    expect_success(camera);
    EXPECT_THAT(files_below(kFolder), ElementsAre("2024/03-Mar/.hidden.JPG", "2024/03-Mar/A.JPG"));
    EXPECT_EQ(with_placeholders(status.seen().back()), import_status("COMPLETED", "OK", 2) + "\n");
}

TEST_F(Import, EveryStorageAndEveryDepthIsWalked) {
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    camera.put("TOP.JPG", "top", kMarch);
    camera.put("one/two/three/four/five/DEEP.JPG", "deep", kMarch);
    camera.put("DCIM/B.JPG", "b", kMarch, Camera::kSecondCard);
    expect_success(camera);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), ElementsAre("A.JPG", "B.JPG", "DEEP.JPG", "TOP.JPG"));
    EXPECT_EQ(import_log(kName), log_of(copied("TOP.JPG", "/store_00010001") + copied("A.JPG", "/store_00010001/DCIM") +
                                        copied("DEEP.JPG", "/store_00010001/one/two/three/four/five") +
                                        copied("B.JPG", "/store_00020001/DCIM")));
}

TEST_F(Import, EmptyFilesAndFilesOfWholePacketsArriveWhole) {
    Camera camera;
    // 12 bytes precede the data, and a packet has 512.
    const std::size_t sizes[] = {0, 1, 499, 500, 501, 512, 1012, 1524, 65524, 65536, 199988, 200000, 1048564};
    for (const std::size_t size : sizes)
        camera.put("DCIM/" + std::to_string(size) + ".JPG", std::string(size, 'x'), kMarch);
    expect_success(camera);
    for (const std::size_t size : sizes)
        EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/" + std::to_string(size) + ".JPG").size(), size);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), SizeIs(std::size(sizes)));
}

// --- Files of the same name ---

TEST_F(Import, AnotherFileOfTheSameNameMovesTheOlderCopyAside) {
    Camera camera;
    camera.put("DCIM/A.JPG", "old", kMarch);
    expect_success(camera);
    camera.put("DCIM/A.JPG", "new", kMarch + 100);
    expect_success(camera);
    // The suffix is the time of the new file.
    const std::string aside = "A.JPG." + std::to_string(kMarch + 100);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), ElementsAre("A.JPG", aside));
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG"), "new");
    EXPECT_EQ(file_time(kFolder + "/2024/03-Mar/A.JPG"), kMarch + 100);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/" + aside), "old");
    EXPECT_EQ(file_time(kFolder + "/2024/03-Mar/" + aside), kMarch);
    EXPECT_EQ(import_log(kName),
              log_of("Rename exist file[A.JPG] to A.JPG.TIME\n" + copied("A.JPG", "/store_00010001/DCIM")));
}

TEST_F(Import, AnOlderFileOfTheSameNameDoesTheSame) {
    Camera camera;
    camera.put("DCIM/A.JPG", "new", kMarch + 100);
    expect_success(camera);
    camera.put("DCIM/A.JPG", "old", kMarch);
    expect_success(camera);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG"), "old");
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG." + std::to_string(kMarch)), "new");
}

TEST_F(Import, FilesOfOneNameFromTwoFoldersBothArrive) {
    Camera camera;
    camera.put("DCIM/100ZENO/A.JPG", "from 100", kMarch);
    camera.put("DCIM/101ZENO/A.JPG", "from 101", kMarch + 1);
    expect_success(camera);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG"), "from 101");
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG." + std::to_string(kMarch + 1)), "from 100");
}

TEST_F(Import, AnotherDeviceHasAFolderAndALogOfItsOwn) {
    Camera first;
    Camera second({}, "002", "007");
    first.put("DCIM/A.JPG", "first", kMarch);
    second.put("DCIM/A.JPG", "second", kMarch + 1);
    expect_success(first, "one");
    expect_success(second, "two");
    EXPECT_EQ(read_file(kDestination + "/one/2024/03-Mar/A.JPG"), "first");
    EXPECT_EQ(read_file(kDestination + "/two/2024/03-Mar/A.JPG"), "second");
    EXPECT_THAT(list_folder(kLogFolder), UnorderedElementsAre("mtpbackup_one.log", "mtpbackup_two.log",
                                                              "status_mtpbackup_one", "status_mtpbackup_two"));
}

// --- Names ---

TEST_F(Import, NamesBeyondAsciiStayApart) {
    const std::vector<std::string> names = {"Stra\xC3\x9F"
                                            "e \xC3\xA4.JPG",
                                            "Stra\xC3\x9F"
                                            "e \xC3\xB6.JPG",
                                            "\xE5\xAF\xAB\xE7\x9C\x9F.JPG"};
    for (const char *locale : {"C", "C.UTF-8", "en_US.ISO-8859-1", ""}) {
        Camera camera;
        for (const std::string &name : names)
            camera.put("DCIM/" + name, name, kMarch);
        remove_tree(kFolder);
        expect_success(camera, kName, camera_options({{"LC_ALL", locale}, {"LANG", locale}}));
        for (const std::string &name : names)
            EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/" + name), name) << "in the locale \"" << locale << "\"";
        EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), SizeIs(names.size()));
    }
}

TEST_F(Import, AwkwardNamesArriveAsTheyAre) {
    Camera camera;
    const std::vector<std::string> names = {" .JPG",         "-rf.JPG",         "%s%n.JPG",          "$(touch x).JPG",
                                            "a;b.JPG",       "back\\slash.JPG", "quo'te\".JPG",      "tmpABCDEF.JPG",
                                            "line\nend.JPG", "tab\t.JPG",       "bell\a\x1b[2J.JPG", "del\x7f.JPG"};
    for (const std::string &name : names)
        camera.put("DCIM/" + name, name, kMarch);
    expect_success(camera);
    for (const std::string &name : names)
        EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/" + name), name);
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), SizeIs(names.size()));
}

TEST_F(Import, NoNameLeadsOutOfTheFolderOfTheDevice) {
    const std::string names[] = {"../../../evil.JPG",
                                 "../evil.JPG",
                                 "/evil.JPG",
                                 "/data/Pictures/evil.JPG",
                                 "..",
                                 ".",
                                 "",
                                 "a/b.JPG",
                                 "a/../../b.JPG",
                                 "dir/",
                                 "/",
                                 "..\\evil.JPG",
                                 std::string(254, 'n'),
                                 "../../../../../../../../etc/passwd"};
    for (const std::string &name : names) {
        reset_appliance();
        make_folder(kDestination);
        enable_import(kDestination);
        write_file("/data/Pictures/kept.JPG", "kept");
        Camera camera;
        camera.put("DCIM/0.JPG", "hostile", kMarch);
        camera.put("DCIM/1.JPG", "good", kMarch);
        camera.report_as("DCIM/0.JPG", name);
        const auto before = every_path();
        const Outcome outcome = run_import(camera, kName);
        EXPECT_EQ(outcome.status, 0);
        for (const std::string &path : new_paths(before))
            EXPECT_TRUE(path.starts_with(kFolder)) << "\"" << name << "\" led to " << path;
        EXPECT_EQ(read_file("/data/Pictures/kept.JPG"), "kept");
        EXPECT_THAT(read_file("/etc/passwd"), HasSubstr("root:x:0:0"));
    }
}

TEST_F(Import, AFileWithARefusedNameDoesNotKeepTheOthersFromArriving) {
    for (const std::string name : {"../../../evil.JPG", "a/b.JPG", "..", "."}) {
        remove_tree(kFolder);
        Camera camera;
        camera.put("DCIM/0.JPG", "hostile", kMarch);
        camera.put("DCIM/1.JPG", "good", kMarch);
        camera.report_as("DCIM/0.JPG", name);
        const Outcome outcome = run_import(camera, kName);
        EXPECT_THAT(files_below(kFolder), ElementsAre("2024/03-Mar/1.JPG")) << name << "\n" << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr("tsbackup_mtp:")) << name;
        EXPECT_EQ(with_placeholders(read_file(import_status_path(kName))), import_status("COMPLETED", "OK", 2) + "\n");
    }
}

TEST_F(Import, FoldersOfTheCameraDoNotLeadElsewhere) {
    for (const std::string name : {"..", "../..", "/etc", "", "a/b"}) {
        remove_tree(kFolder);
        Camera camera;
        camera.put("DCIM/sub/0.JPG", "in a strange folder", kMarch);
        camera.put("DCIM/1.JPG", "good", kMarch);
        camera.report_as("DCIM/sub", name);
        const auto before = every_path();
        const Outcome outcome = run_import(camera, kName);
        EXPECT_EQ(outcome.status, 0) << name;
        for (const std::string &path : new_paths(before))
            EXPECT_TRUE(path.starts_with(kFolder)) << "\"" << name << "\" led to " << path;
    }
}

// --- Deleting ---

TEST_F(Import, FilesAreDeletedFromTheCameraWhenAsked) {
    enable_import(kDestination, true);
    Camera camera;
    put_pictures(camera);
    camera.put("DCIM/100ZENO/notes.txt", "text", kMarch);
    camera.put("DCIM/.hidden/B.JPG", "hidden", kMarch);
    EventReceiver events;
    StatusWatcher status(import_status_path(kName));
    EXPECT_EQ(run_import(camera, kName).status, 0);

    EXPECT_FALSE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/IMG_0002.JPG"));
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/MVI_0003.MOV"));
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/notes.txt"));
    EXPECT_TRUE(camera.holds("DCIM/.hidden/B.JPG"));
    EXPECT_THAT(files_below(kFolder), SizeIs(3));
    EXPECT_EQ(import_log(kName), log_of(copied("IMG_0001.JPG") + copied("IMG_0002.JPG") + copied("MVI_0003.MOV") +
                                        "Remove file /store_00010001/DCIM/100ZENO/IMG_0001.JPG\n"
                                        "Remove file /store_00010001/DCIM/100ZENO/IMG_0002.JPG\n"
                                        "Remove file /store_00010001/DCIM/100ZENO/MVI_0003.MOV\n"));
    std::vector<std::string> states;
    for (const std::string &content : status.seen())
        states.push_back(with_placeholders(content));
    EXPECT_THAT(states, ElementsAre(import_status("ACTIVE_COPYING", "OK", 4) + "\n",
                                    import_status("ACTIVE_REMOVING", "OK", 4) + "\n",
                                    import_status("COMPLETED", "OK", 4) + "\n"));
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
}

TEST_F(Import, FilesOfAnEarlierImportAreDeletedToo) {
    Camera camera;
    put_pictures(camera);
    expect_success(camera);
    enable_import(kDestination, true);
    expect_success(camera);
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
    EXPECT_EQ(camera.asked(": GetObject "), 3);
}

TEST_F(Import, AFileThatDidNotArriveStaysOnTheCamera) {
    REQUIRE_VOLUMES();
    enable_import(kDestination, true);
    Camera camera;
    put_pictures(camera);
    const std::string month = kFolder + "/2024/03-Mar";
    make_folder(month);
    // No temporary file can be made there.
    shell_output("chattr +i " + month);
    run_import(camera, kName);
    shell_output("chattr -i " + month);
    EXPECT_THAT(files_below(kFolder), ElementsAre("2023/12-Dec/MVI_0003.MOV", "2024/03-Mar/"));
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
    EXPECT_TRUE(camera.holds("DCIM/100ZENO/IMG_0002.JPG"));
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/MVI_0003.MOV"));
}

TEST_F(Import, AFileThatOnlyLooksLikeItsNamesakeStaysOnTheCamera) {
    enable_import(kDestination, true);
    Camera camera;
    camera.put("DCIM/100ZENO/A.JPG", "one", kMarch);
    camera.put("DCIM/101ZENO/A.JPG", "another", kMarch);
    expect_success(camera);
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG"), "one");
    EXPECT_FALSE(camera.holds("DCIM/100ZENO/A.JPG"));
    EXPECT_TRUE(camera.holds("DCIM/101ZENO/A.JPG"));
}

TEST_F(Import, AFileWithARefusedNameStaysOnTheCamera) {
    enable_import(kDestination, true);
    Camera camera;
    camera.put("DCIM/0.JPG", "hostile", kMarch);
    camera.put("DCIM/1.JPG", "good", kMarch);
    camera.report_as("DCIM/0.JPG", "../0.JPG");
    expect_success(camera);
    EXPECT_TRUE(camera.holds("DCIM/0.JPG"));
    EXPECT_FALSE(camera.holds("DCIM/1.JPG"));
}

TEST_F(Import, LinksInTheDestinationLeadNowhere) {
    make_folder("/data/Documents/private");
    write_file("/data/Documents/private/notes.JPG", "private");
    for (const std::string link : {"/2024", "/2024/03-Mar"}) {
        remove_tree(kFolder);
        make_folder(std::filesystem::path(kFolder + link).parent_path());
        std::filesystem::create_directory_symlink("/data/Documents/private", kFolder + link);
        Camera camera;
        camera.put("DCIM/A.JPG", "a", kMarch);
        run_import(camera, kName);
        EXPECT_THAT(files_below("/data/Documents"), ElementsAre("private/notes.JPG"));
    }
    remove_tree(kFolder);
    make_folder(kFolder + "/2024/03-Mar");
    std::filesystem::create_symlink("/data/Documents/private/notes.JPG", kFolder + "/2024/03-Mar/A.JPG");
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    expect_success(camera);
    EXPECT_EQ(read_file("/data/Documents/private/notes.JPG"), "private");
    EXPECT_EQ(read_file(kFolder + "/2024/03-Mar/A.JPG"), "a");
}

TEST_F(Import, OnlyTheNumberOneAsksForDeleting) {
    for (const char *value : {"0", "2", "yes", "", "-1", "11", "123456789"}) {
        Camera camera;
        camera.put("DCIM/A.JPG", "a", kMarch);
        set_services({{"MTPBACKUP", "1"}, {"MTPBACKUP_DIR", kDestination}, {"MTPBACKUP_DELETE", value}});
        expect_success(camera);
        EXPECT_TRUE(camera.holds("DCIM/A.JPG")) << value;
    }
    Camera camera;
    camera.put("DCIM/A.JPG", "a", kMarch);
    set_services({{"MTPBACKUP", "1"}, {"MTPBACKUP_DIR", kDestination}});
    expect_success(camera);
    EXPECT_TRUE(camera.holds("DCIM/A.JPG"));
}

TEST_F(Import, ADeletionThatFailsLeavesASuccessfulLog) {
    enable_import(kDestination, true);
    CameraDescription keeps_all;
    std::erase(keeps_all.operations, delete_object);
    const struct {
        const char *name;
        CameraDescription camera;
        std::vector<CameraFault> faults;
    } cases[] = {
        {"the camera cannot delete", keeps_all, {}},
        {"the line breaks", {}, {{port_interrupt, FaultKind::port_error, -7}}},
    };
    for (const auto &[name, description, faults] : cases) {
        SCOPED_TRACE(name);
        remove_tree(kFolder);
        Camera camera(description);
        put_pictures(camera);
        for (const CameraFault &fault : faults)
            camera.fail(fault);
        EventReceiver events;
        StatusWatcher status(import_status_path(kName));
        EXPECT_EQ(run_import(camera, kName).status, 0);
        EXPECT_TRUE(camera.holds("DCIM/100ZENO/IMG_0001.JPG"));
        EXPECT_THAT(files_below(kFolder), SizeIs(3));
        EXPECT_EQ(import_log(kName), log_of(copied("IMG_0001.JPG") + copied("IMG_0002.JPG") + copied("MVI_0003.MOV")));
        EXPECT_EQ(with_placeholders(status.seen().back()), import_status("PARTLY_COMPLETED", "notice", 3) + "\n");
        EXPECT_THAT(events.received(),
                    ElementsAre(import_event(kName, kFolder, 0), failure_event(kName, kFolder, 3, 102)));
    }
}

// --- The log ---

TEST_F(Import, ALogThatCannotBeOpenedDoesNotStopTheImport) {
    Camera camera;
    put_pictures(camera);
    make_folder(import_log_path(kName));
    EventReceiver events;
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_mtp (error) Can't open " + import_log_path(kName) + ".\n"));
    EXPECT_THAT(files_below(kFolder), SizeIs(3));
    EXPECT_EQ(with_placeholders(read_file(import_status_path(kName))), import_status("COMPLETED", "OK", 3) + "\n");
    EXPECT_THAT(events.received(), ElementsAre(import_event(kName, kFolder, 0), import_event(kName, kFolder, 4)));
}

TEST_F(Import, AStatusThatCannotBeWrittenDoesNotStopTheImport) {
    Camera camera;
    put_pictures(camera);
    make_folder(import_status_path(kName));
    const Outcome outcome = run_import(camera, kName);
    EXPECT_THAT(told(outcome), HasSubstr("Can't open " + import_status_path(kName) + " ?\n"));
    EXPECT_THAT(files_below(kFolder), SizeIs(3));
    EXPECT_EQ(import_log(kName), log_of(copied("IMG_0001.JPG") + copied("IMG_0002.JPG") + copied("MVI_0003.MOV")));
}

TEST_F(Import, ALogOfAnImportReplacesTheOneBefore) {
    Camera camera;
    put_pictures(camera);
    write_file(import_log_path(kName), std::string(100'000, 'o'));
    expect_success(camera);
    EXPECT_EQ(import_log(kName), log_of(copied("IMG_0001.JPG") + copied("IMG_0002.JPG") + copied("MVI_0003.MOV")));
}

TEST_F(Import, ALongLogKeepsItsHeadAndItsLastTenLines) {
    constexpr int kFiles = 10'050;
    constexpr int kFirst = 100'000;
    Camera camera;
    for (int index = 0; index < kFiles; ++index)
        camera.put("DCIM/" + std::to_string(kFirst + index) + ".JPG", "", kMarch);
    expect_success(camera);
    // Four lines stand before the copies and four behind: 9996 and 6 copies are kept, 48 are not.
    const auto copies = [](int from, int to) {
        std::string lines;
        for (int index = from; index < to; ++index)
            lines += copied(std::to_string(kFirst + index) + ".JPG", "/store_00010001/DCIM");
        return lines;
    };
    EXPECT_TRUE(same_text(log_of(copies(0, 9996) + "BACKUP_INFO_LOG_TRUNCATED:48\n" + copies(kFiles - 6, kFiles)),
                          import_log(kName)));
    EXPECT_FALSE(file_exists(import_log_path(kName) + ".1"));
    EXPECT_THAT(list_folder(kFolder + "/2024/03-Mar"), SizeIs(kFiles));
}

// --- From the hook to the files ---

TEST_F(Import, TheRecordOfTheHookStartsTheImport) {
    Camera camera({"Apple Inc.", "Phone 4", "77"});
    put_pictures(camera);
    RequestQueue queue(kCameraQueue);
    run_arrival(camera);
    const std::string record = queue.received();
    EXPECT_EQ(record, request_record("enqueue:1:001:005:Phone_4_77\n"));
    std::vector<std::string> words{"-m"};
    std::string rest = record.substr(record.find(':') + 1, record.find('\n') - record.find(':') - 1);
    for (int field = 0; field < 3; ++field) {
        words.push_back(rest.substr(0, rest.find(':')));
        rest.erase(0, rest.find(':') + 1);
    }
    words.push_back(rest);
    EXPECT_EQ(run_program(words, camera_options()).status, 0);
    EXPECT_THAT(files_below(kDestination + "/Phone_4_77"), SizeIs(3));
}

} // namespace
} // namespace tsbackup::test
