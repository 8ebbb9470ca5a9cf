// What every test program shares: files, captured diagnostics, a stand-in for the management daemon's socket.

#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup::test {

/// Whether this process runs inside an appliance root, where the system's absolute paths may be written.
bool in_appliance();

/// Skips the test with its reason where no appliance root could be made.
#define REQUIRE_APPLIANCE()                                                                                            \
    do {                                                                                                               \
        if (!::tsbackup::test::in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";         \
    } while (false)

/// Skips the test where the process is not root in a namespace that maps every user.
#define REQUIRE_ROOT()                                                                                                 \
    do {                                                                                                               \
        if (!::tsbackup::test::is_real_root()) GTEST_SKIP() << "needs root on the machine";                            \
    } while (false)
bool is_real_root();

/// The whole content of a file; empty when it cannot be read.
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);
/// Writes a file, its missing parent folders included.
void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
/// Creates a folder with its missing parents.
void make_folder(const std::string &path);
/// Removes a file or a whole tree, if it is there.
void remove_tree(const std::string &path);
/// The names in a folder, sorted, without "." and "..".
std::vector<std::string> list_folder(const std::string &path);

/// Standard output and standard error of a shell command, together.
std::string shell_output(const std::string &command);

/// A folder that lives as long as the object.
class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/// Collects the diagnostics of this process at a threshold, and restores silence at the end.
class Diagnostics {
  public:
    explicit Diagnostics(int threshold = 7);
    ~Diagnostics();
    Diagnostics(const Diagnostics &) = delete;
    Diagnostics &operator=(const Diagnostics &) = delete;
    /// Everything written so far.
    std::string text() const;
    /// The same without the "UNIT:LINE " in front of each line: "(error) message".
    std::string without_places() const;

  private:
    char *buffer_ = nullptr;
    std::size_t size_ = 0;
    std::FILE *stream_ = nullptr;
};

/// Binds the management daemon's event socket and collects what is sent to it. Needs an appliance root.
class EventReceiver {
  public:
    EventReceiver();
    ~EventReceiver();
    EventReceiver(const EventReceiver &) = delete;
    EventReceiver &operator=(const EventReceiver &) = delete;
    /// The datagrams that have arrived since the last call, whole.
    std::vector<std::string> received();

  private:
    int socket_ = -1;
};

} // namespace tsbackup::test
