#include "command.h"

#include "kernel.h"
#include "rsync_support.h"
#include "tsbackup/paths.h"

#include <array>
#include <cstring>
#include <functional>
#include <linux/magic.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr long kFat = 0x4d44;

std::vector<std::string> options_of(const BackupJob &job, const BackupRun &run, int as_source, int remote_shell,
                                    int attempt) {
    std::vector<std::string> arguments = {"before"};
    EXPECT_EQ(rsync_build_options(job, run, as_source, remote_shell, attempt, arguments), 0);
    EXPECT_EQ(arguments.front(), "before");
    arguments.erase(arguments.begin());
    return arguments;
}

std::string joined(const std::vector<std::string> &arguments) {
    std::string text;
    for (const std::string &argument : arguments)
        text += (text.empty() ? "" : "|") + argument;
    return text;
}

/// Uploads without anything special, to be changed by the tests.
BackupJob upload_of(const char *type, JobText share, JobText path) {
    BackupJob job;
    job.src_type = type;
    job.src_share_proto = std::move(share);
    job.src_path = std::move(path);
    job.dst_type = "remote";
    job.dst_share_proto = "rsync";
    return job;
}

BackupJob download_to(const char *type, JobText share, JobText volume) {
    BackupJob job;
    job.src_type = "remote";
    job.src_share_proto = "rsync";
    job.src_path = "host::module";
    job.dst_type = type;
    job.dst_share_proto = std::move(share);
    job.dst_share_vol = std::move(volume);
    return job;
}

class Command : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        write_file(paths::usb_storage_table, "a!!DISK!!c!!d!!e!!sda1!!g!!h!!2!!j\n");
        ASSERT_EQ(chdir("/"), 0);
    }
    void TearDown() override {
        if (!in_appliance()) return;
        remove_tree(paths::usb_storage_table);
        remove_tree("/vol");
    }
};

// ---- the whole command line ------------------------------------------------------------------------------------

TEST_F(Command, whole_option_lists) {
    struct Case {
        const char *name;
        int as_source;
        int remote_shell;
        int attempt;
        int full;
        std::function<void(BackupJob &job)> change;
        const char *options;
    };
    const Case cases[] = {
        {"plain download from a daemon", 1, 0, 0, 0, [](BackupJob &) {},
         "-vP|-8|--timeout=1800|--recursive|--links|--times|--omit-dir-times|--devices|--specials|--one-file-system|"
         "--modify-window=1|--owner|--group|--acls|--exclude=.snapshot"},
        {"everything, full, over ssh", 1, 1, 0, 1,
         [](BackupJob &job) {
             job.opt_rsync_options = "15";
             job.opt_rsync_exclude = "*.tmp,/cache";
             job.src_share_proto = "rsync+ssh";
             job.src_port = "2222";
         },
         "-vP|-8|--timeout=1800|--recursive|--links|--times|--omit-dir-times|--devices|--specials|--one-file-system|"
         "--ignore-times|--delete|--compress|--no-owner|--no-group|--no-acls|--no-perms|--hard-links|--exclude=*.tmp|"
         "--exclude=/cache|--exclude=.snapshot|--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no "
         "-p2222"},
        {"second attempt at a daemon on another port", 1, 0, 1, 0,
         [](BackupJob &job) {
             job.opt_rsync_options = "11";
             job.src_port = "8730";
         },
         "-vP|-8|--timeout=1800|--recursive|--links|--times|--omit-dir-times|--devices|--specials|--one-file-system|"
         "--modify-window=1|--delete|--compress|--owner|--group|--no-acls|--no-perms|--hard-links|"
         "--exclude=.snapshot|--port=8730"},
        {"upload of all homes over ssh", 0, 1, 0, 0,
         [](BackupJob &job) {
             job.src_type = "home";
             job.src_share_proto = "*";
         },
         "-vP|-8|--timeout=1800|--recursive|--links|--times|--omit-dir-times|--devices|--specials|--modify-window=1|"
         "--owner|--group|--acls|--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p22"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        BackupJob job = download_to("share", "Backup", "data");
        test.change(job);
        BackupRun run;
        run.full = test.full;
        EXPECT_EQ(joined(options_of(job, run, test.as_source, test.remote_shell, test.attempt)), test.options);
    }
}

/// One point in the space of everything that an option can depend on.
struct Point {
    int as_source = 0;
    int remote_shell = 0;
    int attempt = 0;
    int mask = 0;
    int full = 0;
    bool snapshot = false;
    const char *port = nullptr;
    BackupJob job;
    bool keeps_ownership = true; ///< the local destination's file system, where it is looked at

    bool has(int bit) const { return (mask & bit) != 0; }
    bool source_is(const char *type) const { return job.src_type == type; }
    bool ownership() const { return !has(4) && (as_source == 0 || keeps_ownership); }
    bool spans() const {
        return as_source == 0 && (source_is("volume") || source_is("timemachine") ||
                                  (source_is("home") && job.src_share_proto == "*all"));
    }
};

/// Every option with the condition under which it is given, in their order.
struct Rule {
    const char *option;
    bool (*given)(const Point &point);
};
constexpr bool always(const Point &) { return true; }
const Rule kRules[] = {
    {"-vP", always},
    {"-8", always},
    {"--timeout=1800", always},
    {"--recursive", always},
    {"--links", always},
    {"--times", always},
    {"--omit-dir-times", always},
    {"--devices", always},
    {"--specials", always},
    {"--one-file-system", [](const Point &at) { return !at.spans(); }},
    {"--ignore-times", [](const Point &at) { return at.full == 1; }},
    {"--modify-window=1", [](const Point &at) { return at.full == 0; }},
    {"--delete", [](const Point &at) { return at.has(1); }},
    {"--compress", [](const Point &at) { return at.has(2); }},
    {"--no-owner", [](const Point &at) { return !at.ownership(); }},
    {"--no-group", [](const Point &at) { return !at.ownership(); }},
    {"--owner", [](const Point &at) { return at.ownership(); }},
    {"--group", [](const Point &at) { return at.ownership(); }},
    {"--acls", [](const Point &at) { return at.ownership() && at.attempt == 0; }},
    {"--no-acls", [](const Point &at) { return !at.ownership() || at.attempt == 1; }},
    {"--no-perms", [](const Point &at) { return !at.ownership() || at.attempt == 1; }},
    {"--hard-links", [](const Point &at) { return at.has(8); }},
    {"--exclude=snapshot",
     [](const Point &at) { return at.snapshot && (!at.job.src_path || at.job.src_path->empty()); }},
    {"--exclude=.snapshot", [](const Point &at) { return at.as_source == 1 || at.source_is("volume"); }},
    {"--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p22",
     [](const Point &at) { return at.remote_shell == 1 && (at.port == nullptr || std::strcmp(at.port, "0") == 0); }},
    {"--rsh=ssh -oStrictHostKeyChecking=no -oPasswordAuthentication=no -p8730",
     [](const Point &at) { return at.remote_shell == 1 && at.port != nullptr && std::strcmp(at.port, "8730") == 0; }},
    {"--port=8730",
     [](const Point &at) { return at.remote_shell == 0 && at.port != nullptr && std::strcmp(at.port, "8730") == 0; }},
};

std::vector<Point> every_kind_of_end() {
    std::vector<Point> points;
    const auto upload = [&points](const char *type, JobText share, JobText path) {
        Point point;
        point.job = upload_of(type, std::move(share), std::move(path));
        points.push_back(point);
    };
    upload("volume", "vol", std::nullopt);
    upload("share", "Pictures", "");
    upload("share", "Pictures", std::nullopt);
    upload("share", "Pictures", "2024/May");
    upload("home", "alice", "");
    upload("home", "*all", "");
    upload("home", std::nullopt, "");
    upload("timemachine", "tm", "");
    upload("usb", "usb_port_2", "dir");

    const auto download = [&points](const char *type, const char *share, const char *volume, bool keeps_ownership) {
        Point point;
        point.as_source = 1;
        point.job = download_to(type, share, volume);
        point.keeps_ownership = keeps_ownership;
        points.push_back(point);
    };
    // Of the local ends only disks at USB ports and external media are looked at.
    download("share", "Backup", "data", true);
    download("usb", "disk_2", "", true);
    download("home", "alice", "", true);
    for (const bool keeps_ownership : {true, false}) {
        download("usb", "usb_port_2", "", keeps_ownership);
        download("share", "DISK", "media", keeps_ownership);
    }
    return points;
}

TEST_F(Command, every_option_depends_on_its_condition_alone) {
    Kernel kernel;
    bool keeps_ownership = true;
    kernel.file_system = [&keeps_ownership](const std::string &path) -> std::optional<long> {
        EXPECT_EQ(path, "/media/DISK");
        return keeps_ownership ? EXT4_SUPER_MAGIC : kFat;
    };
    for (Point at : every_kind_of_end())
        for (int bits = 0; bits < 512; ++bits)
            for (const char *port : {static_cast<const char *>(nullptr), "0", "8730"}) {
                at.mask = bits & 15;
                at.remote_shell = (bits >> 4) & 1;
                at.attempt = (bits >> 5) & 1;
                at.full = (bits >> 6) & 1;
                at.snapshot = ((bits >> 7) & 1) != 0;
                const bool mask_given = ((bits >> 8) & 1) != 0 || at.mask != 0;
                at.port = port;
                at.job.opt_rsync_options = mask_given ? JobText(std::to_string(at.mask)) : std::nullopt;
                // The other end's port is there to be mistaken for this one's.
                at.job.src_port = at.as_source == 1 ? (port != nullptr ? JobText(port) : std::nullopt) : "1";
                at.job.dst_port = at.as_source == 0 ? (port != nullptr ? JobText(port) : std::nullopt) : "1";
                keeps_ownership = at.keeps_ownership;
                BackupRun run;
                run.full = at.full;
                if (at.snapshot) run.snapshot_path = "/data/._share/Pictures/.snapshot/b_7_1";
                std::vector<std::string> expected;
                for (const Rule &rule : kRules)
                    if (rule.given(at)) expected.emplace_back(rule.option);
                ASSERT_EQ(options_of(at.job, run, at.as_source, at.remote_shell, at.attempt), expected)
                    << "from " << *at.job.src_type << " to " << *at.job.dst_type << ", case " << bits;
            }
}

TEST_F(Command, a_download_never_crosses_file_systems) {
    for (const char *type : {"volume", "timemachine", "home"})
        EXPECT_THAT(options_of(upload_of(type, "*", "a"), BackupRun(), 1, 0, 0),
                    testing::Contains("--one-file-system"));
}

TEST_F(Command, option_masks_are_read_like_numbers) {
    struct Case {
        JobText mask;
        const char *special;
    };
    const Case cases[] = {
        {std::nullopt, ""},
        {"", ""},
        {"none", ""},
        {"0", ""},
        {" 1", "--delete"},
        {"1x", "--delete"},
        {"16", ""},
        {"17", "--delete"},
        {"0x1", ""},
        {"2", "--compress"},
        {"+8", "--hard-links"},
        {"4294967297", "--delete"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.mask.value_or("(absent)"));
        BackupJob job = upload_of("share", "Pictures", "a");
        job.opt_rsync_options = test.mask;
        std::string special;
        for (const std::string &option : options_of(job, BackupRun(), 0, 0, 0))
            if (option == "--delete" || option == "--compress" || option == "--hard-links" || option == "--no-owner")
                special += option;
        EXPECT_EQ(special, test.special);
    }
}

TEST_F(Command, job_excludes) {
    const std::string hundred(99, 'p');
    std::string longest; // cut in the middle of the last but one piece
    for (int i = 0; i < 12; ++i)
        longest += hundred + ",";
    std::vector<std::string> of_longest(10, hundred);
    of_longest.push_back(std::string(23, 'p'));
    std::string many;
    for (int i = 0; i < 2000; ++i)
        many += "a,";
    struct Case {
        const char *name;
        JobText list;
        std::vector<std::string> pieces;
    };
    const Case cases[] = {
        {"absent", std::nullopt, {}},
        {"empty", "", {}},
        {"only commas", ",,,", {}},
        {"one", "a", {"a"}},
        {"empty pieces are skipped", ",,a,,b,", {"a", "b"}},
        {"blanks belong to the pattern", " a b , c", {" a b ", " c"}},
        {"nothing is a shell's or a format's", "*.o,$HOME,`x`,%s,'q'", {"*.o", "$HOME", "`x`", "%s", "'q'"}},
        {"1023 characters", std::string(1023, 'x'), {std::string(1023, 'x')}},
        {"the 1024th character is cut off", std::string(1022, 'x') + "yz", {std::string(1022, 'x') + "y"}},
        {"a comma as the 1023rd character", std::string(1022, 'x') + ",z", {std::string(1022, 'x')}},
        {"longer in many pieces", longest, of_longest},
        {"as many pieces as the characters allow", many, std::vector<std::string>(512, "a")},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        BackupJob job = upload_of("share", "Pictures", "a");
        job.opt_rsync_exclude = test.list;
        std::vector<std::string> pieces;
        for (const std::string &option : options_of(job, BackupRun(), 0, 0, 0))
            if (option.compare(0, 10, "--exclude=") == 0) pieces.push_back(option.substr(10));
        EXPECT_THAT(pieces, ElementsAreArray(test.pieces));
    }
}

TEST_F(Command, the_local_destination_decides_on_ownership) {
    struct Case {
        const char *name;
        const char *type;
        JobText share;
        JobText volume;
        std::optional<long> file_system;
        const char *looked_at;
        bool ownership;
    };
    const Case cases[] = {
        {"disk with ext4", "usb", "usb_port_2", "", EXT4_SUPER_MAGIC, "/media/DISK", true},
        {"disk with btrfs", "usb", "usb_port_2", "", BTRFS_SUPER_MAGIC, "/media/DISK", true},
        {"disk with FAT", "usb", "usb_port_2", "", kFat, "/media/DISK", false},
        {"disk with exFAT", "usb", "usb_port_2", "", 0x2011bab0, "/media/DISK", false},
        {"disk with NTFS", "usb", "usb_port_2", "", 0x7366746e, "/media/DISK", false},
        {"disk with xfs", "usb", "usb_port_2", "", 0x58465342, "/media/DISK", false},
        {"disk that is not mounted", "usb", "usb_port_2", "", std::nullopt, "/media/DISK", false},
        {"a disk's own volume is not looked at", "usb", "usb_port_2", "media", kFat, "/media/DISK", false},
        {"external media with ext4", "share", "My Disk", "media", EXT4_SUPER_MAGIC, "/media/My Disk", true},
        {"external media with FAT", "share", "My Disk", "media", kFat, "/media/My Disk", false},
        {"external media without a name", "share", std::nullopt, "media", kFat, "/media/", false},
        {"another disk name on external media", "usb", "disk_2", "media", kFat, "/media/disk_2", false},
        {"a share", "share", "Backup", "data", kFat, "", true},
        {"a disk by another name", "usb", "disk_2", "data", kFat, "", true},
        {"a port without a disk's type", "share", "usb_port_2", "data", kFat, "", true},
        {"a volume that begins alike", "share", "Backup", "media2", kFat, "", true},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Kernel kernel;
        std::string looked_at;
        kernel.file_system = [&](const std::string &path) {
            looked_at += path;
            return test.file_system;
        };
        const BackupJob job = download_to(test.type, test.share, test.volume);
        const std::string options = joined(options_of(job, BackupRun(), 1, 0, 0));
        EXPECT_EQ(looked_at, test.looked_at);
        EXPECT_EQ(options.find("|--owner|--group|--acls|") != std::string::npos, test.ownership) << options;
        EXPECT_EQ(options.find("|--no-owner|--no-group|--no-acls|--no-perms|") != std::string::npos, !test.ownership);
        // The same end is no concern of an upload.
        EXPECT_THAT(options_of(job, BackupRun(), 0, 0, 0), testing::Contains("--acls"));
    }
}

TEST_F(Command, a_disk_that_is_not_there_ends_it) {
    for (const char *port : {"usb_port_3", "usb_port_", "usb_port_22"}) {
        SCOPED_TRACE(port);
        std::vector<std::string> arguments = {"nice", "-n 10", "rsync"};
        EXPECT_EQ(rsync_build_options(download_to("usb", port, ""), BackupRun(), 1, 0, 0, arguments), -1);
        EXPECT_THAT(arguments, ElementsAre("nice", "-n 10", "rsync"));
    }
    remove_tree(paths::usb_storage_table);
    std::vector<std::string> arguments;
    EXPECT_EQ(rsync_build_options(download_to("usb", "usb_port_2", ""), BackupRun(), 1, 0, 0, arguments), -1);
}

TEST_F(Command, the_diagnostic_names_the_source) {
    const Diagnostics diagnostics;
    const BackupJob job = upload_of("share", std::nullopt, "a");
    options_of(job, BackupRun(), 0, 0, 0);
    EXPECT_EQ(diagnostics.text().substr(0, 15), "tsbackup_rsync:");
    EXPECT_EQ(diagnostics.without_places(), "(debug) as_src=0 src.type=share src.share_proto=\n");
}

// ---- volumes ---------------------------------------------------------------------------------------------------

/// Makes a share of "/vol"; `configured` is the line of its snapshot settings.
void make_share(const std::string &name, const std::string &configured) {
    make_folder("/vol/" + name + "/snapshot");
    write_file("/vol/._share/" + name + "/snapdir.conf", configured);
}

TEST_F(Command, shares_of_a_volume_keep_their_snapshots_to_themselves) {
    make_share("Pictures", "/vol/Pictures/snapshot\n");
    make_share("Music", "x=/vol/Music/snapshot\n");
    make_share("with blank", "/vol/with blank/snapshot\n");
    make_share(".hidden", "/vol/.hidden/snapshot\n");
    make_share("Other", "/vol/Elsewhere/snapshot\n");
    make_share("Unconfigured", "");
    make_share("Removed", "/vol/Removed/snapshot\n");
    remove_tree("/vol/Removed/snapshot");
    write_file("/vol/File", "no folder");
    ASSERT_EQ(symlink("Pictures", "/vol/Link"), 0);

    const Diagnostics diagnostics;
    const std::string options = joined(options_of(upload_of("volume", "vol", "a"), BackupRun(), 0, 0, 0));
    const std::string excludes = "|--exclude=.snapshot|--exclude=Music/snapshot|--exclude=Pictures/snapshot|"
                                 "--exclude=with blank/snapshot";
    ASSERT_GE(options.size(), excludes.size());
    EXPECT_EQ(options.substr(options.find("|--exclude")), excludes);
    EXPECT_THAT(diagnostics.text(), testing::HasSubstr("(debug) add exclude path  Music\n"));

    // Only volumes are searched, and only as the source.
    for (const char *type : {"share", "home", "timemachine", "usb"})
        EXPECT_EQ(joined(options_of(upload_of(type, "vol", "a"), BackupRun(), 0, 0, 0)).find("--exclude"),
                  std::string::npos);
}

TEST_F(Command, a_volume_is_searched_as_it_is_named) {
    make_share("Pictures", "/vol/Pictures/snapshot\n");
    const std::string only_hidden = "|--exclude=.snapshot";
    struct Case {
        const char *name;
        const char *folder;
        JobText share;
        const char *excludes;
    };
    const Case cases[] = {
        {"from the root", "/", "vol", "|--exclude=.snapshot|--exclude=Pictures/snapshot"},
        {"from another folder", "/tmp", "vol", "|--exclude=.snapshot"},
        // The settings name "/vol/Pictures/snapshot", and a second slash makes another path of it.
        {"absolute", "/tmp", "/vol", "|--exclude=.snapshot"},
        {"missing", "/", "nowhere", "|--exclude=.snapshot"},
        {"empty", "/", "", "|--exclude=.snapshot"},
        {"absent", "/", std::nullopt, "|--exclude=.snapshot"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        ASSERT_EQ(chdir(test.folder), 0);
        const std::string options = joined(options_of(upload_of("volume", test.share, "a"), BackupRun(), 0, 0, 0));
        EXPECT_EQ(options.substr(options.find("|--exclude")), test.excludes);
    }
}

TEST(CommandParts, only_visible_folders_of_a_volume_count) {
    struct Case {
        const char *name;
        unsigned char type;
        int accepted;
    };
    const Case cases[] = {
        {"Pictures", DT_DIR, 1}, {"a", DT_DIR, 1},           {" .b", DT_DIR, 1},     {"", DT_DIR, 0},
        {".", DT_DIR, 0},        {"..", DT_DIR, 0},          {".hidden", DT_DIR, 0}, {"file", DT_REG, 0},
        {"link", DT_LNK, 0},     {"unknown", DT_UNKNOWN, 0},
    };
    for (const Case &test : cases) {
        dirent entry{};
        std::strcpy(entry.d_name, test.name);
        entry.d_type = test.type;
        EXPECT_EQ(visible_subdir_filter(&entry), test.accepted) << test.name;
    }
}

TEST(CommandParts, file_systems_that_keep_owners) {
    struct Case {
        const char *name;
        std::optional<long> type;
        int keeps;
    };
    const Case cases[] = {
        {"btrfs", 0x9123683E, 1}, {"ext2, ext3, ext4", 0xEF53, 1}, {"tmpfs", 0x01021994, 0},  {"xfs", 0x58465342, 0},
        {"FAT", 0x4d44, 0},       {"NTFS", 0x5346544e, 0},         {"none", std::nullopt, 0},
    };
    for (const Case &test : cases) {
        Kernel kernel;
        kernel.file_system = [&test](const std::string &) { return test.type; };
        EXPECT_EQ(fs_keeps_ownership("/somewhere"), test.keeps) << test.name;
    }
    EXPECT_EQ(fs_keeps_ownership("/proc"), 0);
    EXPECT_EQ(fs_keeps_ownership("/no/such/path"), 0);
}

// ---- the server ------------------------------------------------------------------------------------------------

TEST(CommandParts, remote_paths) {
    struct Case {
        const char *path;
        const char *host;
        int remote_shell;
        const char *rest;
    };
    const Case cases[] = {
        {"host:path", "host", 1, "path"},
        {"host::module/path", "host", 0, "module/path"},
        {"host:::module", "host", 0, "module"},
        {"host:", "host", 1, ""},
        {"host::", "host", 0, ""},
        {":path", "", 1, "path"},
        {"::module", "", 0, "module"},
        {"host:/absolute:with:colons", "host", 1, "/absolute:with:colons"},
        {"host::module::x", "host", 0, "module::x"},
        {"192.168.0.9::a b/c", "192.168.0.9", 0, "a b/c"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.path);
        std::array<char, 64> host{};
        int remote_shell = -1;
        const char *rest = rsync_split_remote_path(test.path, host.data(), host.size(), &remote_shell);
        ASSERT_NE(rest, nullptr);
        EXPECT_STREQ(host.data(), test.host);
        EXPECT_EQ(remote_shell, test.remote_shell);
        EXPECT_STREQ(rest, test.rest);
        EXPECT_GE(rest, test.path);
        EXPECT_LE(rest, test.path + std::strlen(test.path));
    }
}

TEST(CommandParts, a_path_without_a_colon_names_no_server) {
    for (const std::string &path : {std::string(), std::string("host"), std::string("/a/b"), std::string(5000, 'x')}) {
        std::array<char, 65> host{};
        host.back() = '#';
        int remote_shell = -1;
        EXPECT_EQ(rsync_split_remote_path(path.c_str(), host.data(), 64, &remote_shell), nullptr);
        EXPECT_EQ(host.back(), '#');
    }
}

TEST(CommandParts, long_hosts_are_cut_to_the_buffer) {
    for (const std::size_t length : {62U, 63U, 64U, 1000U}) {
        const std::string path = std::string(length, 'h') + "::module";
        std::array<char, 65> host{};
        host.fill('#');
        int remote_shell = -1;
        EXPECT_STREQ(rsync_split_remote_path(path.c_str(), host.data(), 64, &remote_shell), "module");
        EXPECT_EQ(std::string(host.data()), std::string(std::min<std::size_t>(length, 63), 'h'));
        EXPECT_EQ(host.back(), '#');
    }
}

TEST(CommandParts, log_in_and_password) {
    struct Case {
        JobText login;
        JobText password;
        int remote_shell;
        const char *prefix;
        const char *entry;
    };
    const Case cases[] = {
        {"bob", "secret", 0, "bob@", "RSYNC_PASSWORD=secret"},
        {"bob", "secret", 1, "bob@", ""},
        {"bob", "", 0, "bob@", ""},
        {"bob", std::nullopt, 0, "bob@", ""},
        {"", "secret", 0, "", ""},
        {std::nullopt, "secret", 0, "", ""},
        {std::nullopt, std::nullopt, 1, "", ""},
        {"b o%b", "p w=%s'\n", 0, "b o%b@", "RSYNC_PASSWORD=p w=%s'\n"},
    };
    for (const Case &test : cases) {
        BackupJob job;
        job.src_login = test.login;
        job.src_password = test.password;
        job.dst_login = "wrong";
        job.dst_password = "wrong";
        std::string prefix = "old";
        std::string entry = "old";
        rsync_login_and_password(rsync_endpoint(job, 1), test.remote_shell, prefix, entry);
        EXPECT_EQ(prefix, test.prefix);
        EXPECT_EQ(entry, test.entry);
    }
}

TEST(CommandParts, the_server_is_the_source_or_the_destination) {
    BackupJob job;
    job.src_path = "s";
    job.src_port = "1";
    job.dst_path = "d";
    job.dst_port = "2";
    EXPECT_EQ(rsync_endpoint(job, 1).path, "s");
    EXPECT_EQ(rsync_endpoint(job, 1).port, "1");
    EXPECT_EQ(rsync_endpoint(job, 0).path, "d");
    EXPECT_EQ(rsync_endpoint(job, 0).port, "2");
}

} // namespace
} // namespace tsbackup::test
