// The three FTP servers of the tests, plain or with TLS. All serve one user's home, which is the root to that user.

#pragma once

#include "server.h"

#include <ostream>
#include <string>

namespace tsbackup::test {

enum class FtpKind { vsftpd, proftpd, pureftpd };

struct FtpServerOptions {
    FtpKind kind = FtpKind::vsftpd;
    bool tls = false;
    bool newest_tls = false;      ///< no TLS but 1.3 (ProFTPD)
    int kibibytes_per_second = 0; ///< of each transfer; 0: as fast as it goes
};
std::ostream &operator<<(std::ostream &stream, const FtpServerOptions &options);

/// Whether the servers were unpacked for this build.
bool ftp_servers_are_there();

class FtpServer : public Server {
  public:
    static constexpr int kPort = 2121;
    static constexpr const char *kUser = "ftpuser";
    static constexpr const char *kPassword = "Right word!";
    static constexpr const char *kHome = "/media/USB/ftp"; ///< the user's own when the server starts

    explicit FtpServer(const FtpServerOptions &options);
    /// Gives the user everything that lies in the home.
    static void give_home_to_user();
};

} // namespace tsbackup::test
