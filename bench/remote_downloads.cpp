// FTP and HTTP jobs beside the usual command-line programs; started by bench/remote_downloads inside an appliance.

#include "report.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <random>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tsbackup::bench {

namespace {

namespace fs = std::filesystem;

constexpr std::uint16_t kFtpPort = 2121;
constexpr std::uint16_t kHttpPort = 8080;
constexpr char kFtpAddress[] = "ftp://127.0.0.1:2121";
constexpr char kUser[] = "ftpuser";
constexpr char kPassword[] = "secret";
constexpr char kPasswordHash[] =
    "$6$benchmark$BnKR4D1GzYgVNTXJAUDcQM1aBiC1qN7GwH5A1o3o9sww9gSqXy9tbJ7Sf3x2DwI5Tjn7LQCCY2qMomXp8qsOj1";
constexpr int kUserId = 1003;

const std::string kHome = "/data/server";            ///< what the FTP server serves
const std::string kTree = kHome + "/tree";           ///< what is downloaded, and what the web server serves
const std::string kRemoteCopy = kHome + "/up";       ///< what is uploaded arrives here
const std::string kPictures = "/data/Pictures";      ///< what is uploaded
const std::string kLocalCopy = "/vault/Backup/copy"; ///< what is downloaded arrives here

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr double kMostGrowth = 2; // MiB

// The jobs, and how they are run.
constexpr char kFtpDownload[] = "1";
constexpr char kHttpDownload[] = "2";
constexpr char kFtpUpload[] = "3";

[[noreturn]] void give_up(const std::string &reason) {
    std::fprintf(stderr, "remote_downloads: %s\n", reason.c_str());
    std::exit(2); // NOLINT(concurrency-mt-unsafe): no second thread
}

// ---- programs --------------------------------------------------------------------------------------------------

pid_t start(std::vector<std::string> words, const std::string &folder) {
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) give_up("cannot start " + words.front());
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(nothing, STDIN_FILENO);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        if (chdir(folder.c_str()) == 0) execvp(argv.front(), argv.data());
        _exit(127);
    }
    return child;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// Runs a program to its end, in the folder that it fills.
Cost measure(const std::vector<std::string> &words, const std::string &destination) {
    Cost cost;
    auto begin = std::chrono::steady_clock::now();
    const pid_t child = start(words, destination);
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child) give_up("cannot wait for " + words.front());
    cost.wall = seconds_since(begin);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        give_up(words.front() + " failed (wait status " + std::to_string(status) + ")");
    cost.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    cost.memory = static_cast<double>(usage.ru_maxrss) * 1024 / static_cast<double>(kMiB);

    begin = std::chrono::steady_clock::now();
    const int folder = open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || syncfs(folder) != 0) give_up("cannot sync " + destination);
    close(folder);
    cost.sync = seconds_since(begin);
    return cost;
}

// ---- files -----------------------------------------------------------------------------------------------------

void write_text(const std::string &path, const std::string &text, std::ios::openmode mode = std::ios::trunc) {
    std::ofstream file(path, mode);
    file << text;
    file.close();
    if (!file) give_up("cannot write " + path);
}

void give_to_user(const std::string &path) {
    if (chown(path.c_str(), kUserId, kUserId) != 0) give_up("cannot give away " + path);
}

/// The folder exists and holds nothing.
void make_empty(const std::string &folder) {
    fs::create_directories(folder);
    for (const auto &entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
    sync();
}

void make_file(const std::string &path, std::size_t size, std::mt19937_64 &random) {
    std::ofstream file(path, std::ios::binary);
    std::vector<std::uint64_t> block(8192);
    for (std::size_t left = size; left > 0;) {
        const std::size_t length = std::min(left, block.size() * sizeof block[0]);
        std::generate_n(block.begin(), (length + sizeof block[0] - 1) / sizeof block[0], std::ref(random));
        file.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(length));
        left -= length;
    }
    if (!file) give_up("cannot write " + path);
}

/// A set of files: the same names, sizes and contents every time.
struct Set {
    int folders = 0; ///< 0: the files lie in the tree's own folder
    int files = 0;   ///< in each
    std::size_t least = 0;
    std::size_t most = 0; ///< bytes
};

void make_set(const std::string &tree, const Set &set) {
    make_empty(tree);
    std::mt19937_64 random(20240131);
    for (int folder = 0; folder < std::max(1, set.folders); ++folder) {
        const std::string path = set.folders == 0 ? tree : tree + "/folder" + std::to_string(folder);
        fs::create_directory(path);
        for (int file = 0; file < set.files; ++file)
            make_file(path + "/file" + std::to_string(file), set.least + random() % (set.most - set.least + 1), random);
    }
    sync();
}

bool same_content(const fs::path &one, const fs::path &other) {
    std::ifstream first(one, std::ios::binary);
    std::ifstream second(other, std::ios::binary);
    std::vector<char> first_block(kMiB);
    std::vector<char> second_block(kMiB);
    while (first && second) {
        first.read(first_block.data(), static_cast<std::streamsize>(first_block.size()));
        second.read(second_block.data(), static_cast<std::streamsize>(second_block.size()));
        if (first.gcount() != second.gcount() ||
            !std::equal(first_block.begin(), first_block.begin() + first.gcount(), second_block.begin()))
            return false;
    }
    return first.eof() && second.eof();
}

enum class Check { sizes, contents };

/// Ends the benchmark when a file of the tree is not in the copy: who does less cannot win.
void check_copy(const std::string &tree, const std::string &copy, Check check) {
    for (const auto &entry : fs::recursive_directory_iterator(tree)) {
        if (!entry.is_regular_file()) continue;
        const fs::path other = copy / entry.path().lexically_relative(tree);
        std::error_code error;
        const bool same = fs::file_size(other, error) == entry.file_size() &&
                          (check == Check::sizes || same_content(entry.path(), other));
        if (!same) give_up("the copy differs from its source: " + other.string());
    }
}

// ---- servers and jobs ------------------------------------------------------------------------------------------

bool port_answers(std::uint16_t port) {
    const int socket_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool answers = connect(socket_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(socket_fd);
    return answers;
}

/// A server in the foreground, ended with the object.
class Server {
  public:
    Server(const std::vector<std::string> &words, std::uint16_t port) : process_(start(words, "/")) {
        for (int tries = 0; tries < 200; ++tries) {
            if (port_answers(port)) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        give_up("no server answers at port " + std::to_string(port));
    }
    ~Server() {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

  private:
    pid_t process_;
};

/// A user with a password, whose home is all that the server shows.
std::vector<std::string> ftp_server(const std::string &unpacked) {
    const std::string id = std::to_string(kUserId);
    write_text("/etc/passwd",
               std::string(kUser) + ":" + kPasswordHash + ":" + id + ":" + id + ":x:" + kHome +
                   ":/bin/bash\nftp:*:110:65534:x:/srv/ftp:/usr/sbin/nologin\n",
               std::ios::app);
    write_text("/etc/group", std::string(kUser) + ":x:" + id + ":\n", std::ios::app);
    write_text("/etc/shells", "/bin/bash\n");
    fs::create_directories("/etc/pam.d");
    write_text("/etc/pam.d/other", "auth required pam_unix.so\naccount required pam_permit.so\n"
                                   "session required pam_permit.so\n");
    fs::create_directories("/srv/ftp");
    fs::permissions("/srv/ftp", fs::perms{0555});
    write_text("/srv/vsftpd.conf",
               "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(kFtpPort) +
                   "\nbackground=NO\nanonymous_enable=NO\nlocal_enable=YES\nwrite_enable=YES\nlocal_umask=022\n"
                   "chroot_local_user=YES\nallow_writeable_chroot=YES\npam_service_name=other\n"
                   "secure_chroot_dir=/srv/ftp\nseccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\nmax_per_ip=0\n"
                   "pasv_address=127.0.0.1\nxferlog_enable=NO\nssl_enable=NO\n");
    const std::string libraries = unpacked + "/libraries";
    return {"/usr/bin/env",
            "LD_LIBRARY_PATH=" + libraries + "/usr/lib/x86_64-linux-gnu:" + libraries + "/lib/x86_64-linux-gnu",
            unpacked + "/vsftpd/usr/sbin/vsftpd", "/srv/vsftpd.conf"};
}

std::vector<std::string> http_server() {
    fs::create_directories("/srv/nginx");
    std::string scratch;
    for (const char *kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        scratch += std::string(kind) + "_temp_path /srv/nginx/" + kind + "; ";
    write_text("/srv/nginx/conf", "user nobody nogroup; worker_processes 1; pid /srv/nginx/pid;\n"
                                  "events { worker_connections 64; }\n"
                                  "http {\n  access_log off; " +
                                      scratch +
                                      "\n  types { text/html html; } default_type application/octet-stream;\n"
                                      "  server { listen 127.0.0.1:" +
                                      std::to_string(kHttpPort) + "; root " + kTree + "; autoindex on; }\n}\n");
    return {"nginx", "-e", "/srv/nginx/errors", "-c", "/srv/nginx/conf", "-g", "daemon off;"};
}

std::string element(const std::string &name, const std::string &text) {
    return "<" + name + ">" + text + "</" + name + ">";
}

/// The end of a job that lies on a server; `side`: "src" or "dst".
std::string remote_end(const std::string &side, const std::string &protocol, const std::string &path,
                       std::uint16_t port) {
    return element(side + "_type", "remote") + element(side + "_share_proto", protocol) +
           element(side + "_path", path) + element(side + "_port", std::to_string(port));
}

std::string login(const std::string &side) {
    return element(side + "_login", kUser) + element(side + "_password", kPassword);
}

std::string share_end(const std::string &side, const std::string &volume, const std::string &share,
                      const std::string &path) {
    return element(side + "_type", "share") + element(side + "_share_vol", volume) +
           element(side + "_share_proto", share) + element(side + "_path", path);
}

void write_jobs() {
    const auto job = [](const char *id, const std::string &ends) {
        return element("backupJob", element("job_id", id) + element("opt_full_backup_freq", "NEVER") +
                                        element("opt_max_log_lines", "1000000") + ends);
    };
    const std::string copy = share_end("dst", "vault", "Backup", "copy");
    write_text("/etc/tessera/backup_jobs.conf",
               element("backupJobs",
                       job(kFtpDownload, remote_end("src", "ftp", "127.0.0.1/tree", kFtpPort) + login("src") + copy) +
                           job(kHttpDownload, remote_end("src", "http", "127.0.0.1", kHttpPort) + copy) +
                           job(kFtpUpload, share_end("src", "data", "Pictures", "") +
                                               remote_end("dst", "ftp", "127.0.0.1/up", kFtpPort) + login("dst"))));
}

// ---- the cases -------------------------------------------------------------------------------------------------

struct Contender {
    std::string name; ///< as the table shows it
    std::vector<std::string> command;
    std::string below; ///< where in the destination the copy lies, with its slash
};

struct Case {
    const char *name;
    Set set;
    std::string source;
    std::string destination;
    std::vector<Contender> contenders; ///< the first one is the job
};

Contender job(const char *id) { return {"", {"tsbackup", "-e", id}, ""}; }

Contender lftp(const char *name, const std::string &mirror) {
    return {name,
            {"lftp", "-c", std::string("open -u ") + kUser + "," + kPassword + " " + kFtpAddress + "; " + mirror},
            ""};
}

std::vector<Contender> ftp_contenders() {
    const std::string address = std::string("ftp://") + kUser + ":" + kPassword + "@127.0.0.1:2121/tree/";
    return {job(kFtpDownload),
            lftp("lftp", "mirror tree " + kLocalCopy),
            {"wget -r", {"wget", "-q", "-r", "-nH", address}, "/tree"}};
}

/// What the job itself runs, by hand.
std::vector<Contender> http_contenders() {
    return {job(kHttpDownload),
            {"wget -r",
             {"nice", "-n", "10", "wget", "--no-verbose", "--tries=3", "--timestamping", "--recursive", "--level=3",
              "--no-host-directories", "--no-parent", "http://127.0.0.1:8080/"},
             ""}};
}

constexpr char kMemoryCase[] = "ftp-memory";

std::vector<Case> cases(bool quick) {
    const Set small{quick ? 10 : 50, 100, 1024, 16384};
    const std::size_t size = quick ? 256 * kMiB : 1024 * kMiB;
    const Set large{0, 1, size, size};
    return {
        {"ftp-small", small, kTree, kLocalCopy, ftp_contenders()},
        {"ftp-large", large, kTree, kLocalCopy, ftp_contenders()},
        {"http-small", small, kTree, kLocalCopy, http_contenders()},
        {"http-large", large, kTree, kLocalCopy, http_contenders()},
        {"ftp-upload",
         small,
         kPictures,
         kRemoteCopy,
         {job(kFtpUpload), lftp("lftp -R", "mirror -R " + kPictures + " up")}},
    };
}

// ---- measuring -------------------------------------------------------------------------------------------------

Cost copy(const Case &what, const Contender &contender, Check check) {
    make_empty(what.destination);
    const Cost cost = measure(contender.command, what.destination);
    check_copy(what.source, what.destination + contender.below, check);
    return cost;
}

/// The rounds of a case against each of the other programs.
void measure_case(const Case &what, int rounds, std::vector<Figure> &figures) {
    std::fprintf(stderr, "%s\n", what.name);
    make_set(what.source, what.set);
    const std::size_t count = what.contenders.size();
    std::vector<std::vector<Round>> against(count);
    // The first round warms everything up and does not count; who begins goes round.
    for (int round = 0; round <= rounds; ++round) {
        std::vector<Cost> costs(count);
        for (std::size_t turn = 0; turn < count; ++turn) {
            const std::size_t number = (turn + static_cast<std::size_t>(round)) % count;
            costs[number] = copy(what, what.contenders[number], round == 0 ? Check::contents : Check::sizes);
        }
        if (round == 0) continue;
        for (std::size_t other = 1; other < count; ++other)
            against[other].push_back({costs[0], costs[other]});
    }
    for (std::size_t other = 1; other < count; ++other)
        for (const Metric metric : {Metric::wall, Metric::cpu})
            figures.push_back(
                ratio_figure(what.name, what.contenders[other].name, Requirement{metric, 0, 0}, against[other]));
    make_empty(what.source);
    make_empty(what.destination);
}

/// How much more memory ten times the files take.
Figure measure_memory(bool quick) {
    const auto memory = [](int folders) {
        std::fprintf(stderr, "%s: %d files\n", kMemoryCase, folders * 100);
        const Case what{kMemoryCase, {folders, 100, 16, 512}, kTree, kLocalCopy, {job(kFtpDownload)}};
        make_set(what.source, what.set);
        const double largest = copy(what, what.contenders.front(), Check::sizes).memory;
        make_empty(what.source);
        make_empty(what.destination);
        return largest;
    };
    Figure figure;
    figure.name = kMemoryCase;
    figure.against = "tenth";
    figure.required = {Metric::memory, kMostGrowth, 0};
    figure.other = memory(quick ? 20 : 100);
    figure.ours = memory(quick ? 200 : 1000);
    figure.ratio = figure.lowest = figure.highest = figure.ours - figure.other;
    return figure;
}

// ---- the whole -------------------------------------------------------------------------------------------------

struct Options {
    bool quick = false;
    int rounds = 0;                  ///< counted ones
    std::string json;                ///< empty: none
    std::string ftp_servers;         ///< where they are unpacked
    std::vector<std::string> wanted; ///< empty: all
};

bool wanted(const Options &options, const char *name) {
    return options.wanted.empty() ||
           std::find(options.wanted.begin(), options.wanted.end(), name) != options.wanted.end();
}

Options parse(int argc, char *argv[]) {
    Options options;
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--quick") {
            options.quick = true;
            continue;
        }
        if (index + 1 == argc) give_up("wrong argument: " + option);
        const char *value = argv[++index];
        if (option == "--rounds")
            options.rounds = static_cast<int>(std::strtol(value, nullptr, 10));
        else if (option == "--json")
            options.json = value;
        else if (option == "--ftp-servers")
            options.ftp_servers = value;
        else if (option == "--case")
            options.wanted.emplace_back(value);
        else
            give_up("wrong argument: " + option);
    }
    if (options.rounds <= 0) options.rounds = options.quick ? 3 : 7;
    const std::vector<Case> all = cases(options.quick);
    for (const std::string &name : options.wanted) {
        const bool known = name == kMemoryCase ||
                           std::any_of(all.begin(), all.end(), [&name](const Case &what) { return name == what.name; });
        if (!known) give_up("unknown case " + name);
    }
    return options;
}

int measure_all(const Options &options) {
    for (const std::string &folder : {kHome, kTree, kRemoteCopy, kLocalCopy})
        fs::create_directories(folder);
    give_to_user(kHome);
    give_to_user(kRemoteCopy);
    write_jobs();
    const Server ftp(ftp_server(options.ftp_servers), kFtpPort);
    const Server http(http_server(), kHttpPort);

    std::vector<Figure> figures;
    for (const Case &what : cases(options.quick))
        if (wanted(options, what.name)) measure_case(what, options.rounds, figures);
    if (wanted(options, kMemoryCase)) figures.push_back(measure_memory(options.quick));

    print_table(figures);
    if (!options.json.empty() && !write_json(options.json, figures)) return 2;
    return std::all_of(figures.begin(), figures.end(), [](const Figure &figure) { return figure.met(); }) ? 0 : 1;
}

} // namespace

} // namespace tsbackup::bench

int main(int argc, char *argv[]) { return tsbackup::bench::measure_all(tsbackup::bench::parse(argc, argv)); }
