// Any text of a job leads to one host, and any name below it to an address that means this name and nothing else.

#include "endpoint.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kLongestPath = 4095;

void require(bool holds) {
    if (!holds) std::abort();
}

/// The next line of the input; the last one takes what is left.
std::string next_line(std::string_view &input, bool last = false) {
    const std::size_t end = last ? input.size() : std::min(input.find('\n'), input.size());
    const std::string line(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return line.c_str(); // as a setting or a name: without what follows a zero
}

void check_endpoint(const tsbackup::FtpEndpoint &endpoint, const std::string &url, const std::string &port) {
    require(endpoint.host.find_first_of(":/") == std::string::npos);
    require(endpoint.path.size() <= 1 || !endpoint.path.ends_with("/"));
    require(url.find(endpoint.host) != std::string::npos && url.find(endpoint.path) != std::string::npos);
    require(endpoint.host.size() + endpoint.path.size() <= url.size());
    const std::int32_t own = tsbackup::decimal_value(port.c_str());
    require(own <= 0 || endpoint.port == own);
    require(own > 0 || endpoint.port == 0 || url.find(':') != std::string::npos);
}

/// What stands between the host and the suffix of an address.
std::string address_path(const std::string &address, const tsbackup::FtpEndpoint &endpoint, std::string_view suffix) {
    const std::string start = "ftp://" + endpoint.host + "/";
    require(address.starts_with(start) && address.ends_with(suffix));
    require(address.size() >= start.size() + suffix.size());
    return address.substr(start.size(), address.size() - start.size() - suffix.size());
}

void check_address(const tsbackup::FtpEndpoint &endpoint, const std::string &relative, const std::string &suffix) {
    const std::string address = ftp_url(endpoint, relative, suffix);
    if (relative.empty() && suffix.empty()) {
        require(address == "ftp://" + endpoint.host);
        return;
    }
    std::string path = address_path(address, endpoint, suffix);
    for (const char character : path)
        require(static_cast<unsigned char>(character) < 128);
    require(path.find_first_of(" !*'();:@&=+$,?#[]") == std::string::npos);
    require(tsbackup::url_unescape(path) == ftp_join(endpoint, relative));
}

void check_names(const tsbackup::FtpEndpoint &endpoint, const std::string &relative) {
    const std::string joined = ftp_join(endpoint, relative);
    require(joined.size() <= kLongestPath);
    if (tsbackup::ftp_can_name(endpoint, relative)) {
        require(joined.find_first_of("\r\n") == std::string::npos);
        require(joined.starts_with(endpoint.path));
        // Nothing was cut.
        const std::size_t slash = !endpoint.path.empty() && !relative.empty() ? 1 : 0;
        require(joined == "." || joined.size() + 1 >= endpoint.path.size() + slash + relative.size());
    }
    for (const char *suffix : {"", "/*"})
        check_address(endpoint, relative, suffix);
}

} // namespace

// The URL, the port and the name, a line each; the name may have more.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::string url = next_line(input);
    const std::string port = next_line(input);
    const std::string relative = next_line(input, true);

    const tsbackup::FtpEndpoint endpoint = tsbackup::ftp_endpoint(url, "", "", port);
    check_endpoint(endpoint, url, port);
    check_names(endpoint, relative);
    check_names(endpoint, "");
    // Paths around the bound take a hundred times as long as others.
    if (size % 64 == 0) check_names(endpoint, std::string(kLongestPath - relative.size() % 7, '#') + relative);
    require(tsbackup::ftp_below(relative, "name").ends_with("name"));
    return 0;
}
