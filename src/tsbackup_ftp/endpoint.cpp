#include "endpoint.h"

#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <string_view>

namespace tsbackup {

namespace {

/// Base and relative path as they are put together, whatever the length.
std::string whole_path(const FtpEndpoint &endpoint, const std::string &relative) {
    if (!endpoint.path.empty()) return relative.empty() ? endpoint.path : endpoint.path + "/" + relative;
    if (relative.empty()) return ".";
    return relative.front() == '/' ? relative.substr(1) : relative;
}

} // namespace

FtpEndpoint ftp_endpoint(const JobText &url, const JobText &login, const JobText &password, const JobText &port) {
    constexpr std::string_view kScheme = "ftp://";
    std::string_view rest = text_or_empty(url);
    if (rest.starts_with(kScheme)) rest.remove_prefix(kScheme.size());

    FtpEndpoint endpoint;
    endpoint.login = text_or_empty(login);
    endpoint.password = text_or_empty(password);
    const std::size_t host_end = std::min(rest.find_first_of(":/"), rest.size());
    endpoint.host = rest.substr(0, host_end);
    rest.remove_prefix(host_end);

    const std::size_t path_start = rest.find('/');
    if (rest.starts_with(':')) endpoint.port = decimal_value(std::string(rest.substr(1, path_start - 1)).c_str());
    if (const std::int32_t own = decimal_value(port); own > 0) endpoint.port = own;

    if (path_start != std::string_view::npos) endpoint.path = rest.substr(path_start + 1);
    while (endpoint.path.size() > 1 && endpoint.path.back() == '/')
        endpoint.path.pop_back();
    return endpoint;
}

std::string ftp_join(const FtpEndpoint &endpoint, const std::string &relative) {
    return whole_path(endpoint, relative).substr(0, paths::buffer_size - 1);
}

bool ftp_can_name(const FtpEndpoint &endpoint, const std::string &relative) {
    const std::string path = whole_path(endpoint, relative);
    return path.size() < paths::buffer_size && path.find_first_of("\r\n") == std::string::npos;
}

std::string ftp_url(const FtpEndpoint &endpoint, const std::string &relative, const std::string &suffix) {
    std::string host = std::string(FtpEndpoint::scheme) + "://" + endpoint.host;
    if (relative.empty() && suffix.empty()) return host;
    return host + "/" + url_escape(ftp_join(endpoint, relative).c_str()).value_or("") + suffix;
}

std::string ftp_below(const std::string &relative, const std::string &name) {
    return relative.empty() ? name : relative + "/" + name;
}

} // namespace tsbackup
