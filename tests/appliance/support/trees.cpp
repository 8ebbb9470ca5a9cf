#include "appliance_support.h"

#include <acl/libacl.h>
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kEarliest = 1'400'000'000; ///< oldest modification time of a made file
constexpr std::uint64_t kTimeSpan = 300'000'000;
constexpr std::array<mode_t, 6> kFileModes{0644, 0600, 0755, 0664, 0440, 0640};
constexpr std::array<mode_t, 4> kFolderModes{0755, 0700, 0775, 02775};
constexpr std::array<uid_t, 4> kOwners{0, 98, 1001, 1002};
constexpr std::array<const char *, 6> kAwkward{" two words", "it's", "\"quoted\"", "größe", "a;b $c", "-dash"};

/// The standard's distributions differ between libraries; plain arithmetic on its generator does not.
class Dice {
  public:
    explicit Dice(std::uint64_t seed) : engine_(seed) {}
    std::uint64_t below(std::uint64_t bound) { return engine_() % bound; }
    bool one_in(std::uint64_t chance) { return below(chance) == 0; }
    template <std::size_t count, typename Value> const Value &of(const std::array<Value, count> &values) {
        return values[below(count)];
    }
    std::string bytes(std::size_t count) {
        std::string text(count, '\0');
        std::size_t at = 0;
        for (; at + sizeof(std::uint64_t) <= count; at += sizeof(std::uint64_t)) {
            const std::uint64_t word = engine_();
            std::memcpy(&text[at], &word, sizeof word);
        }
        for (; at < count; ++at)
            text[at] = static_cast<char>(engine_());
        return text;
    }

  private:
    std::mt19937_64 engine_;
};

void must(bool done, const std::string &what) {
    if (!done) throw std::runtime_error("cannot " + what + ": " + std::strerror(errno));
}

void set_list(const std::string &path, acl_type_t type, const char *text) {
    acl_t list = acl_from_text(text);
    must(list != nullptr && acl_set_file(path.c_str(), type, list) == 0, "set the access list of " + path);
    acl_free(list);
}

std::string list_of(const std::string &path, acl_type_t type) {
    acl_t list = acl_get_file(path.c_str(), type);
    if (list == nullptr) return {};
    char *text = acl_to_any_text(list, nullptr, ',', TEXT_NUMERIC_IDS);
    std::string result = text == nullptr ? "" : text;
    acl_free(text);
    acl_free(list);
    return result;
}

void set_time(const std::string &path, Dice &dice) {
    const timespec time{kEarliest + static_cast<std::int64_t>(dice.below(kTimeSpan)),
                        static_cast<std::int64_t>(dice.below(1'000'000'000))};
    const std::array<timespec, 2> times{time, time};
    must(utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0, "set the times of " + path);
}

void dress(const std::string &path, bool folder, Dice &dice, const TreeOptions &options) {
    const bool many_users = is_real_root();
    if (options.owners && many_users) {
        const uid_t owner = dice.of(kOwners);
        must(lchown(path.c_str(), owner, owner) == 0, "give away " + path);
    }
    must(chmod(path.c_str(), folder ? dice.of(kFolderModes) : dice.of(kFileModes)) == 0, "set the mode of " + path);
    if (options.access_lists && dice.one_in(4)) {
        set_list(path, ACL_TYPE_ACCESS,
                 many_users ? "u::rwx,u:1001:r-x,g::r-x,g:100:r--,m::rwx,o::---"
                            : "u::rwx,u:0:r-x,g::r-x,m::rwx,o::---");
        if (folder)
            set_list(path, ACL_TYPE_DEFAULT,
                     many_users ? "u::rwx,u:1002:rw-,g::r-x,m::rwx,o::r--" : "u::rwx,u:0:rw-,g::r-x,m::rwx,o::r--");
    }
    set_time(path, dice);
}

/// Sizes spread evenly over their logarithm, with some empty files.
std::size_t file_size(Dice &dice, std::size_t largest) {
    if (largest == 0 || dice.one_in(12)) return 0;
    const double exponent = std::log2(static_cast<double>(largest)) * static_cast<double>(dice.below(1001)) / 1000.0;
    return std::min(largest, static_cast<std::size_t>(std::exp2(exponent)));
}

std::string file_name(Dice &dice, int number, const TreeOptions &options) {
    std::string name = "file" + std::to_string(number);
    if (options.awkward_names && dice.one_in(5)) {
        const std::string awkward = dice.of(kAwkward);
        name = awkward.starts_with('-') ? awkward + name : name + awkward;
    }
    return name;
}

struct Entry {
    struct stat status {};
    std::string path;
};

/// Everything below a folder, by its path relative to it, in byte order.
std::map<std::string, Entry> entries_of(const std::string &folder) {
    std::map<std::string, Entry> entries;
    for (const auto &found : fs::recursive_directory_iterator(folder)) {
        Entry entry{{}, found.path()};
        must(lstat(entry.path.c_str(), &entry.status) == 0, "look at " + entry.path);
        entries.emplace(entry.path.substr(folder.size() + 1), entry);
    }
    return entries;
}

std::string printed(const char *format, auto... values) {
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

std::string time_of(const struct stat &status) {
    return printed("%" PRId64 ".%09" PRId64, static_cast<std::int64_t>(status.st_mtim.tv_sec),
                   static_cast<std::int64_t>(status.st_mtim.tv_nsec));
}

/// First byte at which two files differ; negative when they are equal.
std::int64_t first_difference(const std::string &a, const std::string &b) {
    const std::string left = read_file(a);
    const std::string right = read_file(b);
    if (left == right) return -1;
    const auto end = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    return end.first - left.begin();
}

void compare_entry(const std::string &name, const Entry &a, const Entry &b, const CompareOptions &options,
                   std::vector<std::string> &differences) {
    const auto differ = [&](const std::string &what, const std::string &expected, const std::string &actual) {
        if (expected != actual) differences.push_back(name + ": " + what + " is " + actual + ", not " + expected);
    };
    differ("type", printed("%o", a.status.st_mode & S_IFMT), printed("%o", b.status.st_mode & S_IFMT));
    if ((a.status.st_mode & S_IFMT) != (b.status.st_mode & S_IFMT)) return;
    if (options.owners)
        differ("owner", printed("%u:%u", a.status.st_uid, a.status.st_gid),
               printed("%u:%u", b.status.st_uid, b.status.st_gid));
    if (S_ISLNK(a.status.st_mode)) return differ("target", fs::read_symlink(a.path), fs::read_symlink(b.path));
    if (options.modes)
        differ("mode", printed("%04o", a.status.st_mode & 07777), printed("%04o", b.status.st_mode & 07777));
    if (options.access_lists) {
        differ("access list", list_of(a.path, ACL_TYPE_ACCESS), list_of(b.path, ACL_TYPE_ACCESS));
        if (S_ISDIR(a.status.st_mode))
            differ("default list", list_of(a.path, ACL_TYPE_DEFAULT), list_of(b.path, ACL_TYPE_DEFAULT));
    }
    if (!S_ISREG(a.status.st_mode)) return;
    differ("size", std::to_string(a.status.st_size), std::to_string(b.status.st_size));
    const std::int64_t byte = first_difference(a.path, b.path);
    if (byte >= 0) differences.push_back(name + ": the bytes differ from offset " + std::to_string(byte) + " on");
    if (options.file_times) differ("time", time_of(a.status), time_of(b.status));
}

} // namespace

void make_tree(const std::string &folder, const TreeOptions &options) {
    Dice dice(options.seed);
    make_folder(folder);
    std::vector<std::string> folders{folder};
    std::vector<int> levels{0};
    for (int number = 0; number < options.folders; ++number) {
        std::size_t parent = dice.below(folders.size());
        if (levels[parent] >= 4) parent = 0;
        const std::string path = folders[parent] + "/folder" + std::to_string(number);
        make_folder(path);
        folders.push_back(path);
        levels.push_back(levels[parent] + 1);
    }
    for (int number = 0; number < options.files; ++number) {
        const std::string path = folders[dice.below(folders.size())] + "/" + file_name(dice, number, options);
        write_file(path, dice.bytes(file_size(dice, options.largest_file)));
        dress(path, false, dice, options);
    }
    for (std::size_t number = folders.size(); --number > 0;)
        dress(folders[number], true, dice, options);
}

void change_tree(const std::string &folder, std::uint64_t seed) {
    Dice dice(seed);
    for (const auto &[name, entry] : entries_of(folder)) {
        if (!S_ISREG(entry.status.st_mode) || !dice.one_in(4)) continue;
        write_file(entry.path, dice.bytes(1 + dice.below(5000)), entry.status.st_mode & 07777);
    }
    for (int number = 0; number < 3; ++number) {
        const std::string path = folder + "/added" + std::to_string(seed) + "_" + std::to_string(number);
        write_file(path, dice.bytes(1 + dice.below(5000)));
        dress(path, false, dice, {});
    }
}

std::vector<std::string> tree_differences(const std::string &expected, const std::string &actual,
                                          const CompareOptions &options) {
    const auto wanted = entries_of(expected);
    const auto found = entries_of(actual);
    std::vector<std::string> differences;
    for (const auto &[name, entry] : wanted) {
        const auto other = found.find(name);
        if (other == found.end())
            differences.push_back(name + ": is missing");
        else
            compare_entry(name, entry, other->second, options, differences);
    }
    for (const auto &[name, entry] : found)
        if (!wanted.contains(name)) differences.push_back(name + ": is too many");
    return differences;
}

testing::AssertionResult same_trees(const std::string &expected, const std::string &actual,
                                    const CompareOptions &options) {
    constexpr std::size_t kShown = 20;
    const std::vector<std::string> differences = tree_differences(expected, actual, options);
    if (differences.empty()) return testing::AssertionSuccess();
    testing::AssertionResult result = testing::AssertionFailure();
    result << differences.size() << " differences between " << expected << " and " << actual << ":\n";
    for (std::size_t number = 0; number < std::min(differences.size(), kShown); ++number)
        result << "  " << differences[number] << '\n';
    return result;
}

} // namespace tsbackup::test
