// Makes a set of files for the benchmark. The same set has the same names, content, modes, owners and times each time.
//
//   bench_generate SET FOLDER [--quick]

#include "tsbackup/owners.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <numbers>
#include <string>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tsbackup {

namespace {

constexpr std::int64_t kKiB = 1024;
constexpr std::int64_t kMiB = 1024 * kKiB;
constexpr std::int64_t kGiB = 1024 * kMiB;

/// Sizes of a set's files: evenly spread over a range, or log-normal with a given total.
enum class Sizes { even, log_normal };

struct SetShape {
    const char *name;
    int files;
    int folders;
    std::int64_t smallest; ///< log-normal: not used
    std::int64_t largest;  ///< log-normal: the sum of all sizes
    Sizes sizes;
    bool access_lists;
};

constexpr SetShape kSets[] = {
    {"small", 20'000, 400, 1 * kKiB, 16 * kKiB, Sizes::even, false},
    {"small-acl", 20'000, 400, 1 * kKiB, 16 * kKiB, Sizes::even, true},
    {"tiny", 200'000, 4'000, 16, 512, Sizes::even, false},
    {"mixed", 10'000, 200, 0, 2 * kGiB, Sizes::log_normal, false},
    {"large", 3, 1, 1 * kGiB, 1 * kGiB, Sizes::even, false},
};

SetShape quick(SetShape shape) {
    if (shape.files < 100) {
        shape.smallest /= 4;
        shape.largest /= 4;
        return shape;
    }
    shape.files /= 5;
    shape.folders /= 5;
    if (shape.sizes == Sizes::log_normal) shape.largest /= 5;
    return shape;
}

/// A generator of its own (xorshift64*): the same numbers with every compiler and library.
class Dice {
  public:
    explicit Dice(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        return state_ * 0x2545F4914F6CDD1DULL;
    }
    std::int64_t between(std::int64_t low, std::int64_t high) {
        return low + static_cast<std::int64_t>((next() >> 11) % static_cast<std::uint64_t>(high - low + 1));
    }
    /// Above 0, at most 1.
    double fraction() { return (static_cast<double>(next() >> 11) + 1.0) * 0x1.0p-53; }
    double normal() { return std::sqrt(-2.0 * std::log(fraction())) * std::cos(2.0 * std::numbers::pi * fraction()); }
    template <typename T, std::size_t count> const T &one_of(const T (&choices)[count]) {
        return choices[next() % count];
    }

  private:
    std::uint64_t state_;
};

bool fail(const std::string &path) {
    std::fprintf(stderr, "bench_generate: %s: %s\n", path.c_str(),
                 std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
    return false;
}

std::vector<std::int64_t> draw_sizes(const SetShape &shape, Dice &dice) {
    std::vector<std::int64_t> sizes(static_cast<std::size_t>(shape.files));
    if (shape.sizes == Sizes::even) {
        std::generate(sizes.begin(), sizes.end(), [&] { return dice.between(shape.smallest, shape.largest); });
        return sizes;
    }
    // A spread as in a home folder: half of the files hold a few percent of the bytes.
    constexpr double kSigma = 2.0;
    std::vector<double> weights(sizes.size());
    std::generate(weights.begin(), weights.end(), [&] { return std::exp(kSigma * dice.normal()); });
    double sum = 0;
    for (const double weight : weights)
        sum += weight;
    std::transform(weights.begin(), weights.end(), sizes.begin(), [&](double weight) {
        return static_cast<std::int64_t>(weight / sum * static_cast<double>(shape.largest));
    });
    return sizes;
}

timespec draw_time(Dice &dice) {
    return {dice.between(1'420'070'400, 1'735'689'600), dice.between(0, 999'999'999)}; // the years 2015 to 2024
}

uid_t draw_owner(Dice &dice) { return static_cast<uid_t>(dice.between(1000, 1009)); }
gid_t draw_group(Dice &dice) { return static_cast<gid_t>(dice.between(100, 104)); }

bool write_content(int fd, std::int64_t size, const std::vector<char> &noise, Dice &dice) {
    const auto length = static_cast<std::int64_t>(noise.size());
    while (size > 0) {
        const std::int64_t offset = dice.between(0, length / 2);
        const ssize_t put = write(fd, noise.data() + offset, static_cast<std::size_t>(std::min(size, length - offset)));
        if (put <= 0) return false;
        size -= put;
    }
    return true;
}

bool set_access_list(int fd, Dice &dice) {
    char text[128];
    std::snprintf(text, sizeof text, "u::rw-,u:%d:rw-,g::r--,g:%d:r-x,m::rwx,o::---",
                  static_cast<int>(dice.between(2000, 2009)), static_cast<int>(dice.between(3000, 3009)));
    acl_t list = acl_from_text(text);
    const bool done = list != nullptr && acl_set_fd(fd, list) == 0;
    acl_free(list);
    return done;
}

bool make_file(const std::string &path, std::int64_t size, const SetShape &shape, const std::vector<char> &noise,
               Dice &dice) {
    static constexpr mode_t kModes[] = {0644, 0644, 0600, 0640, 0664, 0755, 0444};
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd || !write_content(fd.get(), size, noise, dice)) return fail(path);
    if (fchown(fd.get(), draw_owner(dice), draw_group(dice)) != 0) return fail(path);
    if (fchmod(fd.get(), dice.one_of(kModes)) != 0) return fail(path);
    if (shape.access_lists && !set_access_list(fd.get(), dice)) return fail(path);
    const timespec time = draw_time(dice);
    const timespec times[] = {time, time};
    return futimens(fd.get(), times) == 0 || fail(path);
}

/// Every folder holds up to eight others, as in a share that has grown: 4000 folders are four levels deep.
std::vector<std::string> make_folders(const SetShape &shape, const std::string &root) {
    constexpr int kBranches = 8;
    std::vector<std::string> folders;
    for (int number = 0; number < shape.folders; ++number) {
        const std::string &parent =
            number < kBranches ? root : folders[static_cast<std::size_t>(number / kBranches - 1)];
        folders.push_back(parent + "/folder " + std::to_string(number));
        if (mkdir(folders.back().c_str(), 0700) != 0) {
            fail(folders.back());
            return {};
        }
    }
    return folders;
}

/// The times of a folder last as long as nothing is made in it: children first.
bool dress_folders(const std::vector<std::string> &folders, Dice &dice) {
    static constexpr mode_t kModes[] = {0755, 0750, 0775, 0700};
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
        if (chown(folder->c_str(), draw_owner(dice), draw_group(dice)) != 0) return fail(*folder);
        if (chmod(folder->c_str(), dice.one_of(kModes)) != 0) return fail(*folder);
        const timespec time = draw_time(dice);
        const timespec times[] = {time, time};
        if (utimensat(AT_FDCWD, folder->c_str(), times, 0) != 0) return fail(*folder);
    }
    return true;
}

bool generate(const SetShape &shape, const std::string &root) {
    static constexpr const char *kWords[] = {"invoice", "IMG", "letter to the bank", "notes", "main_window_controller",
                                             "a"};
    static constexpr const char *kEndings[] = {".txt", ".JPG", ".odt", ".cpp", ".tar.gz", ""};

    Dice dice(20'261'121);
    std::vector<char> noise(static_cast<std::size_t>(kMiB));
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(dice.next() >> 56); });

    const std::vector<std::int64_t> sizes = draw_sizes(shape, dice);
    const std::vector<std::string> folders = make_folders(shape, root);
    if (folders.empty()) return false;
    for (std::size_t number = 0; number < sizes.size(); ++number) {
        const std::string name =
            std::string(dice.one_of(kWords)) + " " + std::to_string(number) + dice.one_of(kEndings);
        if (!make_file(folders[number % folders.size()] + "/" + name, sizes[number], shape, noise, dice)) return false;
    }
    return dress_folders(folders, dice);
}

} // namespace

} // namespace tsbackup

int main(int argc, char *argv[]) {
    using namespace tsbackup;
    if (argc != 3 && !(argc == 4 && std::strcmp(argv[3], "--quick") == 0)) {
        std::fprintf(stderr, "usage: bench_generate SET FOLDER [--quick]\n");
        return 2;
    }
    for (const SetShape &shape : kSets) {
        if (std::strcmp(shape.name, argv[1]) == 0) return generate(argc == 4 ? quick(shape) : shape, argv[2]) ? 0 : 2;
    }
    std::fprintf(stderr, "bench_generate: no set is called %s\n", argv[1]);
    return 2;
}
