#include "remote_path.h"

#include "tsbackup_utils.h"

#include <array>

namespace tsbackup {

std::string RemotePath::folder() const {
    std::string path = remainder;
    if (separator == '\\') replace_char(path, '\\', '/');
    return path;
}

std::optional<RemotePath> remote_path_split(const JobText &path, int *depth_out) {
    if (!path) return std::nullopt;
    std::array<char, 64> host{};
    std::array<char, 64> share{};
    const char *remainder = unc_split(path->c_str(), host.data(), host.size(), share.data(), share.size(), depth_out);
    if (remainder == nullptr) return std::nullopt;
    return RemotePath{host.data(), share.data(), remainder, path->front()};
}

CifsLogin cifs_login_split(const std::string &login) {
    for (const char separator : {'\\', '/'}) {
        const std::size_t at = login.find(separator);
        if (at == std::string::npos) continue;
        const std::size_t user = login.find_first_not_of(separator, at);
        return {user != std::string::npos ? login.substr(user) : "", login.substr(0, at)};
    }
    const std::size_t at = login.find('@');
    if (at != std::string::npos) return {login.substr(0, at), login.substr(at + 1)};
    return {login, ""};
}

} // namespace tsbackup
