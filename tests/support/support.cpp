#include "support.h"

#include "tsbackup/log.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {
constexpr char kEventSocket[] = "/var/run/zelkovad/event";
}

bool in_appliance() { return fs::exists("/.appliance"); }

bool is_real_root() {
    if (geteuid() != 0) return false;
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 1;
    unsigned long outside = 1;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    return inside == 0 && outside == 0 && count > 1000;
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool file_exists(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
    chmod(path.c_str(), mode);
}

void make_folder(const std::string &path) { fs::create_directories(path); }

void remove_tree(const std::string &path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

std::vector<std::string> list_folder(const std::string &path) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(path))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string shell_output(const std::string &command) {
    std::string output;
    std::FILE *pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "re");
    if (pipe == nullptr) return output;
    std::array<char, 4096> block{};
    std::size_t got = 0;
    while ((got = std::fread(block.data(), 1, block.size(), pipe)) > 0)
        output.append(block.data(), got);
    pclose(pipe);
    return output;
}

TempFolder::TempFolder() {
    std::string name = (fs::temp_directory_path() / "tsbackup-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    path_ = name;
}

TempFolder::~TempFolder() { remove_tree(path_); }

Diagnostics::Diagnostics(int threshold) : stream_(open_memstream(&buffer_, &size_)) {
    diagnostic_stream_set(stream_);
    diagnostic_threshold_set(threshold);
}

Diagnostics::~Diagnostics() {
    diagnostic_stream_set(nullptr);
    diagnostic_threshold_set(level::notice);
    std::fclose(stream_);
    std::free(buffer_);
}

std::string Diagnostics::text() const {
    std::fflush(stream_);
    return {buffer_, size_};
}

std::string Diagnostics::without_places() const {
    static const std::regex place("(^|\n)[A-Za-z_]+:[0-9]+ (?=\\()");
    return std::regex_replace(text(), place, "$1");
}

EventReceiver::EventReceiver() {
    make_folder(fs::path(kEventSocket).parent_path());
    unlink(kEventSocket);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kEventSocket);
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot bind the event socket");
}

EventReceiver::~EventReceiver() {
    close(socket_);
    unlink(kEventSocket);
}

std::vector<std::string> EventReceiver::received() {
    std::vector<std::string> events;
    std::array<char, 65536> datagram{};
    ssize_t got = 0;
    while ((got = recv(socket_, datagram.data(), datagram.size(), 0)) >= 0)
        events.emplace_back(datagram.data(), static_cast<std::size_t>(got));
    return events;
}

} // namespace tsbackup::test
