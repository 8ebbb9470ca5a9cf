// One tree with every kind of entry, copied between the file systems that the appliance has.

#include "aftermath.h"
#include "appliance_support.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

constexpr int kJob = 7;

void must(bool done, const std::string &what) {
    if (!done) throw std::runtime_error("cannot make " + what + ": " + std::strerror(errno));
}

void set_times(const std::string &path, timespec modified) {
    const std::array<timespec, 2> times{timespec{1'600'000'000, 7}, modified};
    must(utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0, "the times of " + path);
}

std::string random_bytes(std::size_t size) {
    std::mt19937_64 engine(size);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&engine] { return static_cast<char>(engine()); });
    return bytes;
}

void make_sizes(const std::string &root) {
    for (const std::size_t size : {0UL, 1UL, 4095UL, 4096UL, 65535UL, 65536UL, 65537UL, 16777216UL, 16777217UL}) {
        const std::string path = root + "/sizes/" + std::to_string(size);
        write_file(path, random_bytes(size));
        set_times(path, {1'234'567'890, 1});
    }
    const std::string sparse = root + "/sizes/sparse";
    write_file(sparse, "beginning");
    must(truncate(sparse.c_str(), 5'000'000) == 0, sparse);
    const int fd = open(sparse.c_str(), O_WRONLY | O_CLOEXEC);
    must(pwrite(fd, "end", 3, 4'999'997) == 3, sparse);
    close(fd);
    set_times(sparse, {1'234'567'891, 999'999'999});
}

void make_times(const std::string &root) {
    struct Case {
        const char *name;
        timespec time;
    };
    for (const Case &at : {Case{"epoch", {0, 0}}, Case{"before the epoch", {-1, 999'999'999}},
                           Case{"1930", {-1'262'304'000, 123'456'789}}, Case{"2038", {2'147'483'648, 5}},
                           Case{"2100", {4'102'444'800, 987'654'321}}, Case{"last nanosecond", {1, 999'999'999}}}) {
        const std::string path = root + "/times/" + at.name;
        write_file(path, at.name);
        set_times(path, at.time);
    }
}

void make_modes(const std::string &root) {
    for (const mode_t mode : {0000U, 0400U, 0777U, 04755U, 02755U, 06711U, 01644U, 07777U}) {
        const std::string path = root + "/modes/" + std::to_string(mode);
        write_file(path, "mode");
        if (is_real_root()) must(chown(path.c_str(), 1001, 1002) == 0, path);
        must(chmod(path.c_str(), mode) == 0, path);
        set_times(path, {1'300'000'000, 300});
    }
}

void make_lists(const std::string &root) {
    make_folder(root + "/lists/inherits/below");
    shell_output("setfacl -m u:1001:rwx,g:1002:r-x,d:u:1002:rw-,d:g:100:r-- " + root + "/lists/inherits");
    for (const char *name : {"/lists/inherits/plain", "/lists/inherits/below/plain", "/lists/listed"}) {
        write_file(root + name, "list");
        set_times(root + name, {1'300'000'001, 301});
    }
    // Below a folder whose default list it would inherit stands a file without a list of its own.
    shell_output("setfacl -b " + root + "/lists/inherits/plain; setfacl -m u:98:r--,m::rwx " + root + "/lists/listed");
    set_times(root + "/lists/inherits/plain", {1'300'000'002, 302});
}

/// Everything that is neither file nor folder: never copied.
std::set<std::string> make_specials(const std::string &root) {
    make_folder(root + "/special");
    std::set<std::string> names{"link to file", "link to folder", "dangling", "pipe", "socket"};
    must(symlink("../sizes/1", (root + "/special/link to file").c_str()) == 0, "a link");
    must(symlink("../sizes", (root + "/special/link to folder").c_str()) == 0, "a link");
    must(symlink("/nowhere", (root + "/special/dangling").c_str()) == 0, "a link");
    must(mkfifo((root + "/special/pipe").c_str(), 0644) == 0, "a pipe");
    if (mknod((root + "/special/block").c_str(), S_IFBLK | 0600, makedev(7, 250)) == 0) names.insert("block");
    if (mknod((root + "/special/char").c_str(), S_IFCHR | 0666, makedev(1, 5)) == 0) names.insert("char");

    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s/special/socket", root.c_str());
    must(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "a socket");
    close(listener);
    std::set<std::string> paths;
    for (const std::string &name : names)
        paths.insert("special/" + name);
    return paths;
}

/// Returns the entries that no copy has.
std::set<std::string> make_everything(const std::string &root) {
    make_sizes(root);
    make_times(root);
    make_modes(root);
    make_lists(root);
    write_file(root + "/hard/one", "linked");
    must(link((root + "/hard/one").c_str(), (root + "/hard/two").c_str()) == 0, "a hard link");
    set_times(root + "/hard/one", {1'400'000'000, 400});
    make_folder(root + "/empty/also empty");
    write_file(root + "/read-only/file", "kept");
    set_times(root + "/read-only/file", {1'400'000'001, 401});
    std::set<std::string> never_copied = make_specials(root);
    must(chmod((root + "/read-only").c_str(), 0555) == 0, "a read-only folder");
    must(chmod((root + "/empty").c_str(), 03777) == 0, "a folder");
    return never_copied;
}

/// The names behind "is missing", when nothing else differs; otherwise all differences.
std::set<std::string> missing(const std::string &source, const std::string &copy) {
    std::set<std::string> names;
    for (const std::string &line : tree_differences(source, copy)) {
        constexpr char kMissing[] = ": is missing";
        names.insert(line.ends_with(kMissing) ? line.substr(0, line.size() - std::strlen(kMissing)) : line);
    }
    return names;
}

struct Pair {
    const char *name;
    const char *source;
    const char *destination;
    Settings settings;

    friend void PrintTo(const Pair &pair, std::ostream *stream) {
        *stream << pair.source << " to " << pair.destination;
    }
};

const Pair kPairs[] = {
    {"BtrfsToBtrfs", "/data/Pictures", "/vault/Backup/copy",
     source_share("data", "Pictures") + destination_share("vault", "Backup", "copy")},
    {"BtrfsToExt4", "/data/Pictures", "/media/USB/copy",
     source_share("data", "Pictures") + destination_usb("1", "copy")},
    {"Ext4ToBtrfs", "/media/USB/tree", "/vault/Backup/copy",
     source_usb("1", "tree") + destination_share("vault", "Backup", "copy")},
    {"Ext4FolderToExt4Folder", "/media/USB/tree", "/media/USB/copy",
     source_usb("1", "tree") + destination_usb("1", "copy")},
};

class Trees : public testing::TestWithParam<Pair> {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
    }
    void TearDown() override {
        if (volumes()) reset_appliance();
    }
};

} // namespace

TEST_P(Trees, EveryKindOfEntryArrivesAsItIs) {
    const Pair &pair = GetParam();
    const std::set<std::string> never_copied = make_everything(pair.source);
    JobFile().job(kJob, Settings{{"opt_full_backup_freq", "NEVER"}} + pair.settings).write();
    const Baseline baseline;

    const Outcome first = run_program({"-e", "7"});
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.err, "");
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(read_file(error_log_path(kJob)), "");
    EXPECT_EQ(missing(pair.source, pair.destination), never_copied);
    EXPECT_EQ(count_of(read_file(kept_copy_log_path(kJob)), "Copy Folder  "), 11U);

    const Outcome second = run_program({"-e", "7"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.err, "");
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_TRUE(file_exists(kept_copy_log_path(kJob)));
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "");
    EXPECT_EQ(missing(pair.source, pair.destination), never_copied);
    EXPECT_TRUE(baseline.restored());
}

INSTANTIATE_TEST_SUITE_P(Pairs, Trees, testing::ValuesIn(kPairs),
                         [](const auto &instance) { return std::string(instance.param.name); });

} // namespace tsbackup::test
