#include "ftp_servers.h"

#include <sys/stat.h>

namespace tsbackup::test {

namespace {

const std::string kFolder = "/srv/ftp_servers";
const std::string kCertificate = kFolder + "/both.pem";
const std::string kUnpacked = FTP_SERVERS;

/// A user with a password, and what the servers look it up with. No appliance has these.
void make_user() {
    const std::string users = read_file("/etc/passwd");
    if (users.find("\nftpuser:") == std::string::npos) {
        std::string hash = shell_output("openssl passwd -6 '" + std::string(FtpServer::kPassword) + "'");
        hash.pop_back();
        write_file("/etc/passwd", users + "ftpuser:" + hash + ":1003:1003:x:" + FtpServer::kHome + ":/bin/bash\n" +
                                      "ftp:*:110:65534:x:/srv/ftp_servers/empty:/usr/sbin/nologin\n");
        write_file("/etc/group", read_file("/etc/group") + "ftpuser:x:1003:\n");
    }
    write_file("/etc/shells", "/bin/bash\n");
    write_file("/etc/pam.d/other", "auth required pam_unix.so\naccount required pam_permit.so\n"
                                   "session required pam_permit.so\n");
}

void make_certificate() {
    if (file_exists(kCertificate)) return;
    write_file(kFolder + "/openssl.cnf", "[req]\ndistinguished_name = name\n[name]\n");
    shell_output("openssl req -config " + kFolder +
                 "/openssl.cnf -x509 -newkey rsa:2048 -nodes -days 30 -subj /CN=localhost -keyout " + kFolder +
                 "/key.pem -out " + kFolder + "/cert.pem && cat " + kFolder + "/key.pem " + kFolder + "/cert.pem >" +
                 kCertificate);
}

std::string yes_or_no(bool value) { return value ? "YES" : "NO"; }
std::string on_or_off(bool value) { return value ? "on" : "off"; }

std::vector<std::string> vsftpd(const FtpServerOptions &options) {
    write_file(kFolder + "/vsftpd.conf",
               "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(FtpServer::kPort) +
                   "\nbackground=NO\nanonymous_enable=NO\nlocal_enable=YES\nwrite_enable=YES\nlocal_umask=022\n"
                   "chroot_local_user=YES\nallow_writeable_chroot=YES\npam_service_name=other\n"
                   "secure_chroot_dir=" +
                   kFolder + "/empty\nseccomp_sandbox=NO\nxferlog_enable=YES\nvsftpd_log_file=" + kFolder +
                   "/log\nisolate=NO\nisolate_network=NO\nmax_per_ip=0\npasv_address=127.0.0.1\nforce_dot_files="
                   "YES\nrequire_ssl_reuse=NO\n"
                   "force_local_data_ssl=NO\nforce_local_logins_ssl=NO\nssl_enable=" +
                   yes_or_no(options.tls) + "\nlocal_max_rate=" + std::to_string(options.kibibytes_per_second * 1024) +
                   "\nrsa_cert_file=" + kFolder + "/cert.pem\nrsa_private_key_file=" + kFolder + "/key.pem\n");
    return {kUnpacked + "/vsftpd/usr/sbin/vsftpd", kFolder + "/vsftpd.conf"};
}

std::vector<std::string> proftpd(const FtpServerOptions &options) {
    const std::string rate = options.kibibytes_per_second > 0
                                 ? "TransferRate APPE,RETR,STOR " + std::to_string(options.kibibytes_per_second) + "\n"
                                 : "";
    write_file(kFolder + "/proftpd.conf",
               "ServerName x\nServerType standalone\nDefaultServer on\nSocketBindTight on\n"
               "DefaultAddress 127.0.0.1\nPort " +
                   std::to_string(FtpServer::kPort) +
                   "\nUseIPv6 off\nUseReverseDNS off\nUser nobody\nGroup ftpuser\nPidFile " + kFolder +
                   "/proftpd.pid\nScoreboardFile " + kFolder + "/scoreboard\nDelayTable none\nSystemLog " + kFolder +
                   "/log\nTransferLog none\nWtmpLog off\nModulePath " + kUnpacked +
                   "/proftpd-core/usr/lib/proftpd\nLoadModule mod_site_misc.c\nLoadModule mod_tls.c\n"
                   "DefaultRoot ~\nRequireValidShell off\nAuthPAM off\nAuthOrder mod_auth_unix.c\n"
                   "PassivePorts 30000 30100\nAllowOverwrite on\nUmask 022\nListOptions -a\n"
                   "<Directory />\n  AllowOverwrite on\n</Directory>\nTLSEngine " +
                   on_or_off(options.tls) + "\nTLSLog " + kFolder + "/log\nTLSRSACertificateFile " + kFolder +
                   "/cert.pem\nTLSRSACertificateKeyFile " + kFolder +
                   "/key.pem\nTLSRequired off\nTLSOptions NoSessionReuseRequired\n" +
                   (options.newest_tls ? "TLSProtocol TLSv1.3\n" : "") + rate);
    return {kUnpacked + "/proftpd-core/usr/sbin/proftpd", "-n", "-q", "-c", kFolder + "/proftpd.conf"};
}

std::vector<std::string> pureftpd(const FtpServerOptions &options) {
    std::vector<std::string> words = {kUnpacked + "/pure-ftpd/usr/sbin/pure-ftpd",
                                      "-S",
                                      "127.0.0.1," + std::to_string(FtpServer::kPort),
                                      "-l",
                                      "unix",
                                      "-A",
                                      "-E",
                                      "-H",
                                      "-j",
                                      "-D",
                                      "-L",
                                      "100000:100",
                                      "-p",
                                      "31000:31100",
                                      "-g",
                                      kFolder + "/pureftpd.pid",
                                      "-f",
                                      "none",
                                      "-U",
                                      "133:022",
                                      "-Y",
                                      options.tls ? "1" : "0",
                                      "-2",
                                      kCertificate};
    if (options.kibibytes_per_second > 0) {
        const std::string rate = std::to_string(options.kibibytes_per_second);
        words.insert(words.end(), {"-T", rate + ":" + rate});
    }
    return words;
}

std::vector<std::string> command(const FtpServerOptions &options) {
    make_folder(kFolder + "/empty");
    chmod((kFolder + "/empty").c_str(), 0555);
    make_user();
    make_certificate();
    make_folder(FtpServer::kHome);
    FtpServer::give_home_to_user();

    std::vector<std::string> words = {"/usr/bin/env", "LD_LIBRARY_PATH=" + kUnpacked +
                                                          "/libraries/usr/lib/x86_64-linux-gnu:" + kUnpacked +
                                                          "/libraries/lib/x86_64-linux-gnu"};
    std::vector<std::string> server;
    switch (options.kind) {
    case FtpKind::vsftpd:
        server = vsftpd(options);
        break;
    case FtpKind::proftpd:
        server = proftpd(options);
        break;
    case FtpKind::pureftpd:
        server = pureftpd(options);
        break;
    }
    // The first process of the server's namespace inherits children that are none of its own, at which vsftpd stops.
    words.insert(words.end(), {"/bin/sh", "-c", "\"$@\"; exit", "server"});
    words.insert(words.end(), server.begin(), server.end());
    return words;
}

} // namespace

std::ostream &operator<<(std::ostream &stream, const FtpServerOptions &options) {
    const char *names[] = {"vsftpd", "proftpd", "pureftpd"};
    return stream << names[static_cast<int>(options.kind)] << (options.tls ? "_tls" : "");
}

bool ftp_servers_are_there() { return file_exists(kUnpacked + "/complete"); }

FtpServer::FtpServer(const FtpServerOptions &options) : Server(command(options), kPort) {}

void FtpServer::give_home_to_user() { shell_output("chown -R 1003:1003 " + std::string(kHome)); }

} // namespace tsbackup::test
