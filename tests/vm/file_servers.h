// File servers for tests with a mounted remote end, on the loopback of the appliance in a guest.

#pragma once

#include "guest.h"
#include "server.h"

#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

/// A share of a Samba server: its name and the lines of its section.
using SambaShare = std::pair<std::string, std::vector<std::string>>;

/// A Samba server that speaks every dialect from NT1 to SMB3, with the user "alice" (and guests where a share allows
/// them), who does everything as root.
class SambaServer : public Server {
  public:
    static constexpr int kPort = 445; ///< where the kernel looks for it
    static constexpr const char *kPassword = "p,a'ss \"$w`d";
    explicit SambaServer(const std::vector<SambaShare> &shares, const std::vector<std::string> &global_lines = {},
                         int port = kPort);
};

/// A share for everybody, and one for "alice" alone.
SambaShare guest_share(const std::string &name, const std::string &path);
SambaShare alice_share(const std::string &name, const std::string &path);

/// A folder that an NFS server exports to this machine.
struct NfsExport {
    std::string path;
    std::string options = "rw,no_root_squash";
};

/// The kernel's NFS server. The services beside it, which are started with the first one, stay.
class NfsServer {
  public:
    /// `versions`: options of rpc.nfsd that take protocol versions away ("-N 3").
    explicit NfsServer(const std::vector<NfsExport> &exports, const std::string &versions = "");
    ~NfsServer();
    NfsServer(const NfsServer &) = delete;
    NfsServer &operator=(const NfsServer &) = delete;
    /// Takes the server away while its clients have mounts.
    void stop();
};

/// A folder on a btrfs volume that takes no more than a few megabytes.
struct LimitedFolder {
    static constexpr std::size_t kBytes = 8 << 20;
    std::string path;
    explicit LimitedFolder(std::string where);
    ~LimitedFolder();
    LimitedFolder(const LimitedFolder &) = delete;
    LimitedFolder &operator=(const LimitedFolder &) = delete;
    void lift() const;
};

/// What lies between the program and its mount commands: a "timeout" that gives a guest, which is about twelve times
/// slower than a machine, twelve times as long. To be passed as the program's environment.
ProgramOptions patient_options();

/// Paths of everything that is mounted on a mount point of a job, in any process.
std::vector<std::string> job_mounts();

} // namespace tsbackup::test
