#include "ends.h"

#include "remote_path.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <string_view>
#include <strings.h>
#include <vector>

namespace tsbackup {

namespace {

constexpr char kRemote[] = "remote";
constexpr std::string_view kUsbPort = "usb_port_";
constexpr long kHighestPort = 65535;
constexpr std::size_t kLongestHost = 63;
constexpr std::size_t kLongestCifsUser = 54; ///< as it stands in a command, escaped
constexpr std::size_t kLongestCifsPassword = 248;

constexpr const char *kKinds[] = {"share", "volume", "home", "usb", "timemachine", kRemote};
constexpr const char *kSourceProtocols[] = {"cifs", "cifs-ab", "nfs", "ftp", "http", "rsync", "rsync+ssh"};
constexpr const char *kDestinationProtocols[] = {"cifs", "nfs", "ftp", "rsync", "rsync+ssh"};

template <std::size_t count> bool is_one_of(const char *const (&words)[count], const std::string &text) {
    return std::any_of(std::begin(words), std::end(words), [&text](const char *word) { return text == word; });
}

/// "; did you mean ...?" for a word that differs in case or in blanks around it alone.
template <std::size_t count> std::string hint(const char *const (&words)[count], std::string text) {
    trim_space(text);
    for (const char *word : words)
        if (strcasecmp(word, text.c_str()) == 0) return "; did you mean " + quoted(word) + "?";
    return "";
}

/// One end, with the names of its elements.
struct End {
    CheckedJob &job;
    std::string prefix; ///< "src_" or "dst_"

    bool is_source() const { return prefix == "src_"; }
    std::string text(const char *field) const { return text_or_empty(job.text(prefix + field)); }
    bool has(const char *field) const { return !text(field).empty(); }
    bool is_remote() const { return text("type") == kRemote; }
    void report(const char *field, const std::string &what) const { job.report(prefix + field, what); }
    void require(const char *field) const { job.require(prefix + field); }
};

constexpr char kType[] = "type";
constexpr char kName[] = "share_proto";
constexpr char kVolume[] = "share_vol";
constexpr char kPath[] = "path";
constexpr char kLogin[] = "login";
constexpr char kPassword[] = "password";

// ---- names -----------------------------------------------------------------------------------------------------

/// The first character on which a shell acts, other than a blank; 0: none. Backslashes separate in remote names, and a
/// "$" at the end of a component is the mark of a server's hidden share.
char shell_character(std::string text, bool is_remote_name) {
    if (is_remote_name) std::replace(text.begin(), text.end(), '\\', '/');
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ' || static_cast<unsigned char>(text[i]) < 0x20) continue;
        if (text[i] == '$' && (i + 1 == text.size() || text[i + 1] == '/')) continue;
        const std::string in_word = i == 0 ? std::string(1, text[i]) : std::string("a") + text[i];
        if (shell_word(in_word) != in_word) return text[i];
    }
    return '\0';
}

bool has_parent_step(const std::string &path, const char *separators) {
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find_first_of(separators, start), path.size());
        if (path.substr(start, end - start) == "..") return true;
        start = end + 1;
    }
    return false;
}

void check_shell(const End &end, const char *field, bool is_remote_name) {
    const std::string text = end.text(field);
    const char found = shell_character(text, is_remote_name);
    if (found != '\0') end.report(field, quoted(text) + " holds " + std::string(1, found) + ", on which a shell acts");
}

void check_outer_blanks(const End &end, const char *field) {
    std::string text = end.text(field);
    const std::string whole = text;
    if (trim_space(text) != whole) end.report(field, quoted(whole) + " begins or ends with a blank, which counts");
}

/// A volume or a share: one component of a path.
void check_component(const End &end, const char *field) {
    const std::string text = end.text(field);
    if (text == "." || text == ".." || text.find('/') != std::string::npos)
        end.report(field, quoted(text) + " is no name of a single folder");
    check_outer_blanks(end, field);
    check_shell(end, field, false);
}

void check_local_path(const End &end) {
    const std::string path = end.text(kPath);
    if (has_parent_step(path, "/")) end.report(kPath, quoted(path) + " leads out of its place by \"..\"");
    check_outer_blanks(end, kPath);
    check_shell(end, kPath, false);
}

// ---- local ends ------------------------------------------------------------------------------------------------

void check_share_name(const End &end) {
    const std::string share = end.text(kName);
    const std::size_t tilde = share.find('~');
    if (tilde != std::string::npos && tilde + 1 < share.size() &&
        std::isdigit(static_cast<unsigned char>(share[tilde + 1])) != 0)
        end.report(kName, quoted(share) + " looks like another system's short name and is refused");
}

void check_share(const End &end) {
    end.require(kName);
    end.require(kVolume);
    check_component(end, kName);
    check_component(end, kVolume);
    check_share_name(end);
}

void check_home(const End &end) {
    end.require(kName);
    const std::string user = end.text(kName);
    if (user.starts_with('*')) {
        if (!end.is_source()) end.report(kName, "all homes together can be a source only");
        return;
    }
    check_component(end, kName);
}

void check_usb(const End &end) {
    end.require(kName);
    const std::string port = end.text(kName);
    if (port.empty()) return;
    const bool is_port = port.starts_with(kUsbPort) && port.size() > kUsbPort.size() &&
                         port.find_first_not_of("0123456789", kUsbPort.size()) == std::string::npos;
    if (!is_port) end.report(kName, quoted(port) + " is no USB port (usb_port_ and a number)");
}

void check_local(const End &end) {
    const std::string type = end.text(kType);
    if (type == "share") check_share(end);
    if (type == "home") check_home(end);
    if (type == "usb") check_usb(end);
    if (type == "volume") {
        end.require(kName);
        check_component(end, kName);
        check_component(end, kVolume);
    }
    if (type == "timemachine") {
        end.require(kVolume);
        check_component(end, kVolume);
    }
    check_local_path(end);
}

// ---- remote ends -----------------------------------------------------------------------------------------------

void check_host(const End &end, const std::string &host) {
    if (host.empty())
        end.report(kPath, quoted(end.text(kPath)) + " names no server");
    else if (host.size() > kLongestHost)
        end.report(kPath,
                   "the server's name is longer than " + std::to_string(kLongestHost) + " characters and is cut");
    else if (host.starts_with('-'))
        end.report(kPath, "the server's name begins with -, so that programs take it for an option");
}

void check_cifs(const End &end) {
    const std::optional<RemotePath> path = remote_path_split(end.text(kPath), nullptr);
    if (!path) {
        end.report(kPath, quoted(end.text(kPath)) + " has not the form //SERVER/SHARE/FOLDER");
        return;
    }
    check_host(end, path->host);
    if (path->share.empty()) end.report(kPath, quoted(end.text(kPath)) + " names no share of the server");
    const std::string login = end.text(kLogin);
    if (login.find(',') != std::string::npos)
        end.report(kLogin, "holds a comma, behind which further options of the mount would stand");
    if (shell_word(cifs_login_split(login).user).size() > kLongestCifsUser)
        end.report(kLogin, "is too long and is left out, so that the server is asked without a user");
    if (end.text(kPassword).size() > kLongestCifsPassword)
        end.report(kPassword, "is longer than " + std::to_string(kLongestCifsPassword) + " bytes and is cut");
}

void check_nfs(const End &end) {
    const std::string path = end.text(kPath);
    const std::size_t colon = path.find(":/");
    if (colon == std::string::npos)
        end.report(kPath, quoted(path) + " has not the form SERVER:/FOLDER");
    else
        check_host(end, path.substr(0, colon));
    if (end.has(kPassword)) end.report(kPassword, "is not used with nfs");
}

/// The path behind the protocol's scheme; another scheme is reported.
std::string without_scheme(const End &end, const std::string &scheme) {
    std::string path = end.text(kPath);
    if (path.starts_with(scheme)) return path.substr(scheme.size());
    const std::size_t other = path.find("://");
    if (other != std::string::npos)
        end.report(kPath, quoted(path.substr(0, other + 3)) + " is not spoken here, only " + quoted(scheme));
    return path;
}

void check_url(const End &end, const std::string &scheme) {
    const std::string rest = without_scheme(end, scheme);
    if (rest.find("://") == std::string::npos) check_host(end, rest.substr(0, rest.find_first_of(":/")));
    if (!end.has(kPassword)) return;
    if (scheme == "ftp://")
        end.report(kPassword, "crosses the network in plain text when the server offers no encryption, and nothing "
                              "proves that it is the right server");
    else
        end.report(kPassword, "crosses the network in plain text");
}

void check_rsync(const End &end, bool over_ssh) {
    const std::string path = end.text(kPath);
    const std::size_t colon = path.find(':');
    if (path.starts_with("rsync://")) {
        end.report(kPath, quoted(path) + " is no address of this kind: write SERVER::MODULE/FOLDER");
        return;
    }
    if (colon == std::string::npos) {
        end.report(kPath, quoted(path) + (over_ssh ? " has not the form SERVER:/FOLDER"
                                                   : " has not the form SERVER::MODULE/FOLDER"));
        return;
    }
    check_host(end, path.substr(0, colon));
    if (end.text(kLogin).starts_with('-')) end.report(kLogin, "begins with -, so that programs take it for an option");
    const bool is_daemon = path.compare(colon, 2, "::") == 0;
    if (is_daemon == over_ssh)
        end.report(kPath, is_daemon ? "two colons address an rsync daemon, so that ssh is not used"
                                    : "one colon means rsync over ssh, so that no daemon is asked");
    if (!is_daemon && end.has(kPassword)) end.report(kPassword, "is not used over ssh, where a key is needed");
}

void check_protocol(const End &end) {
    const std::string protocol = end.text(kName);
    if (protocol == "cifs" || protocol == "cifs-ab") check_cifs(end);
    if (protocol == "nfs") check_nfs(end);
    if (protocol == "ftp") check_url(end, "ftp://");
    if (protocol == "http") check_url(end, "http://");
    if (protocol == "rsync" || protocol == "rsync+ssh") check_rsync(end, protocol == "rsync+ssh");
    if (protocol != "nfs" && protocol != "ftp" && end.has(kPassword) && !end.has(kLogin))
        end.report(kPassword, "is not used without a user (" + end.prefix + kLogin + ")");
}

void check_remote(const End &end) {
    end.require(kName);
    end.require(kPath);
    const std::string protocol = end.text(kName);
    const bool is_known =
        end.is_source() ? is_one_of(kSourceProtocols, protocol) : is_one_of(kDestinationProtocols, protocol);
    if (!is_known && !protocol.empty()) {
        if (is_one_of(kSourceProtocols, protocol))
            end.report(kName, quoted(protocol) + " can be a source only");
        else
            end.report(kName, "unknown protocol " + quoted(protocol) + hint(kSourceProtocols, protocol));
    }
    if (has_parent_step(end.text(kPath), "/\\"))
        end.report(kPath, quoted(end.text(kPath)) + " leads out of its place by \"..\"");
    if (end.has(kPath)) check_protocol(end);
    check_outer_blanks(end, kPath);
    check_shell(end, kPath, true);
    check_shell(end, kLogin, true);
}

void check_end(const End &end) {
    end.require(kType);
    end.job.require_number(end.prefix + "port", 0, kHighestPort);
    end.job.require_number(end.prefix + "eject", 0, 1);
    const std::string type = end.text(kType);
    if (type.empty()) return;
    if (!is_one_of(kKinds, type)) {
        end.report(kType, "unknown kind of end " + quoted(type) + hint(kKinds, type));
        return;
    }
    if (end.is_remote())
        check_remote(end);
    else
        check_local(end);
}

// ---- both ends -------------------------------------------------------------------------------------------------

using Components = std::vector<std::string>;

/// The components of a path without those that lead nowhere.
Components components(const std::string &path) {
    Components result;
    for (const std::string &component : str_split_all(path, "/")) {
        if (component.empty() || component == ".") continue;
        if (component != "..")
            result.push_back(component);
        else if (!result.empty())
            result.pop_back();
    }
    return result;
}

/// Where a local end lies. A home and a USB disk have a place of their own here, under names no volume has.
Components place(const End &end) {
    const std::string type = end.text(kType);
    const std::string name = end.text(kName);
    const std::string path = "/" + end.text(kPath);
    if (type == "home") return components(name.starts_with('*') ? "/home" : "/home/" + name + path);
    if (type == "usb") return components("/" + name + path);
    if (end.is_source()) {
        if (type == "volume") return components("/" + name);
        if (type == "timemachine") return components("/" + end.text(kVolume) + "/.timemachine");
    }
    return components("/" + end.text(kVolume) + "/" + name + path);
}

bool is_at_or_below(const Components &place, const Components &folder) {
    return place.size() >= folder.size() && std::equal(folder.begin(), folder.end(), place.begin());
}

void check_places(const End &source, const End &destination) {
    if (!source.has(kType) || !destination.has(kType) || source.is_remote() || destination.is_remote()) return;
    const Components from = place(source);
    const Components to = place(destination);
    if (from.empty() || to.empty()) return;
    if (from == to)
        destination.report(kPath, "the destination is the source");
    else if (is_at_or_below(to, from))
        destination.report(kPath, "the destination lies in its own source, so that each run copies the copies of the "
                                  "runs before");
    else if (is_at_or_below(from, to) && decimal_value(source.job.text("opt_remove_previous_backup")) != 0)
        destination.report(kPath, "the source lies in the destination, which a full backup would empty");
}

} // namespace

void check_ends(CheckedJob &job) {
    const End source{job, "src_"};
    const End destination{job, "dst_"};
    check_end(source);
    check_end(destination);
    if (source.is_remote() && destination.is_remote())
        destination.report(kType, "a remote source cannot be backed up to a remote destination");
    check_places(source, destination);
}

} // namespace tsbackup
