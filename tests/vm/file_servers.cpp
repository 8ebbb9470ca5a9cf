#include "file_servers.h"

#include <array>
#include <cstdio>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

using namespace std::chrono_literals;

constexpr char kSambaFolder[] = "/srv/samba";
constexpr int kPortMapper = 111;
constexpr char kSlowFolder[] = "/srv/slow";

std::vector<std::string> samba_command(const std::vector<SambaShare> &shares, const std::vector<std::string> &lines,
                                       int port) {
    const std::string folder = kSambaFolder;
    const std::string configuration = folder + "/smb.conf";
    for (const char *name : {"private", "lock", "state", "cache", "pid", "ncalrpc", "log"})
        make_folder(folder + "/" + name);
    std::string text = "[global]\nworkgroup = WORKGROUP\nnetbios name = SERVER\nsecurity = user\n"
                       "map to guest = Bad User\nguest account = nobody\ninterfaces = lo\nbind interfaces only = yes\n"
                       "smb ports = " +
                       std::to_string(port) +
                       "\ndisable netbios = yes\nload printers = no\nprinting = bsd\nprintcap name = /dev/null\n"
                       "server min protocol = NT1\nntlm auth = yes\nunix charset = UTF-8\n"
                       "passdb backend = smbpasswd:" +
                       folder + "/users\nprivate dir = " + folder + "/private\nlock directory = " + folder +
                       "/lock\nstate directory = " + folder + "/state\ncache directory = " + folder +
                       "/cache\npid directory = " + folder + "/pid\nncalrpc dir = " + folder +
                       "/ncalrpc\nlog file = " + folder + "/log/%m\n";
    for (const std::string &line : lines)
        text += line + "\n";
    for (const auto &[name, share_lines] : shares) {
        text += "[" + name + "]\nread only = no\nforce user = root\ncreate mask = 0777\ndirectory mask = 0777\n";
        for (const std::string &line : share_lines)
            text += line + "\n";
    }
    write_file(configuration, text);
    if (!file_exists(folder + "/users")) {
        const std::string password = SambaServer::kPassword;
        write_file(folder + "/password", password + "\n" + password + "\n");
        const std::string said =
            shell_output("smbpasswd -c " + configuration + " -a -s alice <" + folder + "/password");
        if (read_file(folder + "/users").find("alice:") == std::string::npos)
            throw std::runtime_error("smbpasswd: " + said);
    }
    return {"smbd", "--foreground", "--no-process-group", "--configfile=" + configuration};
}

/// A user that a service drops its rights to.
void add_user(const std::string &name, int id) {
    const std::string users = read_file("/etc/passwd");
    if (users.find("\n" + name + ":") == std::string::npos)
        write_file("/etc/passwd", users + name + ":x:" + std::to_string(id) + ":65534::/run:/usr/sbin/nologin\n");
}

/// A path as the table of exports takes it whatever it holds.
std::string octal(const std::string &path) {
    std::string text;
    for (const char letter : path) {
        std::array<char, 5> code{};
        std::snprintf(code.data(), code.size(), "\\%03o", static_cast<unsigned char>(letter));
        text += letter == '/' ? "/" : code.data();
    }
    return text;
}

} // namespace

SambaServer::SambaServer(const std::vector<SambaShare> &shares, const std::vector<std::string> &global_lines, int port)
    : Server(samba_command(shares, global_lines, port), port) {}

SambaShare guest_share(const std::string &name, const std::string &path) {
    return {name, {"path = " + path, "guest ok = yes"}};
}

SambaShare alice_share(const std::string &name, const std::string &path) {
    return {name, {"path = " + path, "valid users = alice"}};
}

NfsServer::NfsServer(const std::vector<NfsExport> &exports, const std::string &versions) {
    add_user("_rpc", 111);
    add_user("statd", 112);
    for (const char *folder : {"/var/lib/nfs/sm", "/var/lib/nfs/sm.bak", "/run/rpcbind", "/run/sendsigs.omit.d"})
        make_folder(folder);
    std::string table;
    for (const NfsExport &one : exports)
        table += octal(one.path) + " 127.0.0.1(" + one.options + ",no_subtree_check,insecure)\n";
    write_file("/etc/exports", table);
    for (const char *name : {"/var/lib/nfs/etab", "/var/lib/nfs/rmtab", "/var/lib/nfs/state"})
        write_file(name, "");
    write_file("/etc/netconfig", "udp tpi_clts v inet udp - -\ntcp tpi_cots_ord v inet tcp - -\n"
                                 "local tpi_cots_ord - loopback - - -\n");
    if (!port_answers(kPortMapper))
        must_succeed("mount -t nfsd nfsd /proc/fs/nfsd && rpcbind -w && rpc.statd --no-notify && rpc.mountd");
    // Version 4 waits for the clients of an earlier server, ten seconds at least.
    must_succeed("exportfs -ra && rpc.nfsd --grace-time 10 --lease-time 10 " + versions + " 2");
}

NfsServer::~NfsServer() {
    stop();
    shell_output("exportfs -ua; exportfs -f");
}

void NfsServer::stop() { shell_output("rpc.nfsd 0"); }

LimitedFolder::LimitedFolder(std::string where) : path(std::move(where)) {
    const std::string volume = path.substr(0, path.rfind('/'));
    must_succeed("btrfs subvolume create " + path + " && btrfs quota enable " + volume +
                 " && { btrfs quota rescan -w " + volume + " || :; } && btrfs qgroup limit " + std::to_string(kBytes) +
                 " " + path);
}

LimitedFolder::~LimitedFolder() {
    shell_output("btrfs subvolume delete " + path + "; btrfs quota disable " + path.substr(0, path.rfind('/')));
}

void LimitedFolder::lift() const { must_succeed("btrfs qgroup limit none " + path); }

ProgramOptions patient_options() {
    const std::string path = std::string(kSlowFolder) + "/timeout";
    if (!file_exists(path))
        write_file(path,
                   "#!/bin/busybox sh\nkill=${1#-k} limit=$2\nshift 2\n"
                   "exec /usr/bin/timeout -k$((kill * 12)) $((limit * 12)) \"$@\"\n",
                   0755);
    ProgramOptions options;
    options.environment = {{"PATH", std::string(kSlowFolder) + ":/usr/sbin:/usr/bin:/sbin:/bin"}};
    return options;
}

std::vector<std::string> job_mounts() {
    static const std::regex mounted_job(" (/job_[0-9]+) ");
    std::vector<std::string> found;
    for (const std::string &process : list_folder("/proc")) {
        if (process.find_first_not_of("0123456789") != std::string::npos) continue;
        std::istringstream mounts(read_file("/proc/" + process + "/mounts"));
        std::string line;
        std::smatch match;
        while (std::getline(mounts, line))
            if (std::regex_search(line, match, mounted_job)) found.push_back(process + ": " + line);
    }
    return found;
}

} // namespace tsbackup::test
