#include "usb_storage.h"

#include "local_ends.h"
#include "tsbackup_local.h"

namespace tsbackup::test {

namespace {

// ---- one line --------------------------------------------------------------------------------------------------

struct AcceptedLine {
    const char *name;
    const char *line;
    const char *mount_name;
    const char *device;
    const char *port;
};

const AcceptedLine kAcceptedLines[] = {
    {"ten fields", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10", "2", "6", "9"},
    {"newline at the end", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10\n", "2", "6", "9"},
    {"blanks, tabs and a carriage return at the end", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10 \t \r\n", "2", "6", "9"},
    {"empty last field", "1!!2!!3!!4!!5!!6!!7!!8!!9!!", "2", "6", "9"},
    {"blank last field", "1!!2!!3!!4!!5!!6!!7!!8!!9!!  \n", "2", "6", "9"},
    {"all fields empty", "!!!!!!!!!!!!!!!!!!", "", "", ""},
    {"blanks in fields stay", "1!! My Disk !!3!!4!!5!! sd b!!7!!8!! 9 !!10", " My Disk ", " sd b", " 9 "},
    {"blank before the line", "  1!!2!!3!!4!!5!!6!!7!!8!!9!!10", "2", "6", "9"},
    {"single exclamation marks", "1!!wow! disk!!3!!4!!5!!s!d!!7!!8!!9!!10", "wow! disk", "s!d", "9"},
    {"three marks: separator first, the third begins the next field", "1!!!2!!3!!4!!5!!!6!!7!!8!!!9!!10", "!2", "!6",
     "!9"},
    {"three marks at the end: the last field is one mark", "1!!2!!3!!4!!5!!6!!7!!8!!9!!!", "2", "6", "9"},
    {"four marks: an empty field", "1!!!!3!!4!!5!!!!7!!8!!!!10", "", "", ""},
    {"bytes beyond ASCII", "1!!\xc3\xa9t\xc3\xa9!!3!!4!!5!!6!!7!!8!!9!!10", "\xc3\xa9t\xc3\xa9", "6", "9"},
};

TEST(StorageLine, HasExactlyTenFields) {
    for (const AcceptedLine &accepted : kAcceptedLines) {
        SCOPED_TRACE(accepted.name);
        const auto disk = usb_storage_parse(accepted.line);
        ASSERT_TRUE(disk);
        EXPECT_EQ(disk->mount_name, accepted.mount_name);
        EXPECT_EQ(disk->device, accepted.device);
        EXPECT_EQ(disk->port, accepted.port);
    }
}

struct RejectedLine {
    const char *name;
    const char *line;
};

const RejectedLine kRejectedLines[] = {
    {"empty", ""},
    {"newline alone", "\n"},
    {"blanks alone", "   \n"},
    {"one field", "1"},
    {"nine fields", "1!!2!!3!!4!!5!!6!!7!!8!!9"},
    {"eleven fields", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10!!11"},
    {"eleven fields, the last empty", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10!!\n"},
    {"twenty fields", "1!!2!!3!!4!!5!!6!!7!!8!!9!!10!!11!!12!!13!!14!!15!!16!!17!!18!!19!!20"},
    {"another separator", "1!2!3!4!5!6!7!8!9!10"},
    {"blank inside the separators", "1! !2! !3! !4! !5! !6! !7! !8! !9! !10"},
    {"comment", "# 1!!2!!3"},
};

TEST(StorageLine, WithAnyOtherNumberOfFieldsIsSkipped) {
    for (const RejectedLine &rejected : kRejectedLines) {
        SCOPED_TRACE(rejected.name);
        EXPECT_FALSE(usb_storage_parse(rejected.line));
    }
}

// ---- the table -------------------------------------------------------------------------------------------------

class StorageTable : public LocalEnds {};

TEST_F(StorageTable, NamesTheFolderOfTheDiskAtAPort) {
    struct {
        const char *port;
        const char *sub_path;
        JobText expected;
    } const cases[] = {
        {"1", nullptr, "/media/DISK"},
        {"1", "", "/media/DISK/"},
        {"1", "photos/2024", "/media/DISK/photos/2024"},
        {"1", "/photos", "/media/DISK//photos"},
        {"2", nullptr, "/media/USB"},
        {"3", nullptr, std::nullopt},
        {"", nullptr, std::nullopt},
        {"01", nullptr, std::nullopt},
        {"1 ", nullptr, std::nullopt},
        {"11", nullptr, std::nullopt},
    };
    for (const auto &lookup : cases) {
        SCOPED_TRACE(lookup.port);
        EXPECT_EQ(usb_storage_lookup(lookup.port, lookup.sub_path), lookup.expected);
    }
}

TEST_F(StorageTable, FirstLineOfAPortWins) {
    write_storage_table(storage_line("FIRST", "sda1", "4") + storage_line("SECOND", "sdb1", "4"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/FIRST");
}

TEST_F(StorageTable, LinesWithoutTenFieldsStandForNoDisk) {
    write_storage_table("\n"
                        "-!!NINE!!-!!-!!-!!sda1!!-!!-!!4\n"
                        "-!!ELEVEN!!-!!-!!-!!sda1!!-!!-!!4!!-!!-\n" +
                        storage_line("TEN", "sdb1", "4"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/TEN");
}

TEST_F(StorageTable, NeedsNoNewlineAtItsEnd) {
    std::string line = storage_line("LAST", "sda1", "4");
    line.pop_back();
    write_storage_table(storage_line("OTHER", "sdb1", "5") + line);
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/LAST");
}

TEST_F(StorageTable, MayBeMissingOrEmpty) {
    write_storage_table("");
    EXPECT_EQ(usb_storage_lookup("1", nullptr), std::nullopt);
    remove_tree("/etc/tessera/usb/storage.conf");
    EXPECT_EQ(usb_storage_lookup("1", nullptr), std::nullopt);
    remove_tree("/etc/tessera");
    EXPECT_EQ(usb_storage_lookup("1", nullptr), std::nullopt);
}

/// A line of ten fields, the last one empty: it holds one separator less when its last byte is missing.
std::string line_of_length(std::size_t length, const std::string &mount_name) {
    const std::string rest = "!!" + mount_name + "!!-!!-!!-!!sda1!!-!!-!!4!!";
    return std::string(length - rest.size(), 'x') + rest;
}

TEST_F(StorageTable, LinesOfUpTo1023BytesAreWhole) {
    write_storage_table(line_of_length(1022, "NEWLINE") + "\n" + storage_line("NEXT", "sdb1", "5"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/NEWLINE");
    EXPECT_EQ(usb_storage_lookup("5", nullptr), "/media/NEXT");
    write_storage_table(line_of_length(1023, "FULL") + "\n" + storage_line("NEXT", "sdb1", "5"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/FULL");
    EXPECT_EQ(usb_storage_lookup("5", nullptr), "/media/NEXT");
    write_storage_table(line_of_length(1024, "LONGER"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), std::nullopt);
}

TEST_F(StorageTable, LongerLinesAreReadInPiecesOf1023Bytes) {
    // Ten fields in the whole, but in no piece.
    write_storage_table(line_of_length(1040, "CUT") + "\n" + storage_line("NEXT", "sdb1", "5"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), std::nullopt);
    EXPECT_EQ(usb_storage_lookup("5", nullptr), "/media/NEXT");

    // Ten fields in the first piece: a long last field is cut, and what is cut off is no disk.
    std::string line = storage_line("LONG", "sda1", "4");
    line.pop_back();
    write_storage_table(line + std::string(3000, 'x') + "\n" + storage_line("NEXT", "sdb1", "5"));
    EXPECT_EQ(usb_storage_lookup("4", nullptr), "/media/LONG");
    EXPECT_EQ(usb_storage_lookup("5", nullptr), "/media/NEXT");
}

TEST_F(StorageTable, SurvivesZeroBytes) {
    write_storage_table(std::string("\0\n", 2) + std::string("a\0b\n", 4) + storage_line("DISK", "sdb1", "5"));
    EXPECT_EQ(usb_storage_lookup("5", nullptr), "/media/DISK");
}

} // namespace

} // namespace tsbackup::test
