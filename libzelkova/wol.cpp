// Wake-on-LAN: the packet that switches on a machine by its network hardware address.

#include "zelkova.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <tuple>

namespace {

using tsbackup::ReleaseWith;
using tsbackup::UniqueFd;
using InterfaceList = std::unique_ptr<ifaddrs, ReleaseWith<freeifaddrs>>;

constexpr std::uint16_t kDiscardPort = 9;
constexpr std::size_t kRepetitions = 16;

using HardwareAddress = std::array<std::uint8_t, 6>;
/// Six bytes 0xff, then the address sixteen times.
using MagicPacket = std::array<std::uint8_t, (1 + kRepetitions) * std::tuple_size_v<HardwareAddress>>;

/// 0 to 15, or nothing for any other character than a hexadecimal digit.
std::optional<unsigned> hex_digit(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
    if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a') + 10;
    if (digit >= 'A' && digit <= 'F') return static_cast<unsigned>(digit - 'A') + 10;
    return std::nullopt;
}

/// Six pairs with the same separator between all of them, or with none at all: anything else is more likely a typing
/// error than an address.
std::optional<HardwareAddress> parse_hardware_address(const char *text) {
    HardwareAddress address{};
    const std::size_t digits = 2 * address.size();
    const std::size_t length = std::strlen(text);
    const bool separated = length == digits + address.size() - 1;
    if (!separated && length != digits) return std::nullopt;
    const char separator = text[2];
    if (separated && separator != ':' && separator != '-') return std::nullopt;

    const char *at = text;
    for (std::uint8_t &byte : address) {
        if (separated && at != text && *at++ != separator) return std::nullopt;
        const std::optional<unsigned> high = hex_digit(*at++);
        const std::optional<unsigned> low = hex_digit(*at++);
        if (!high || !low) return std::nullopt;
        byte = static_cast<std::uint8_t>(*high << 4 | *low);
    }
    return address;
}

MagicPacket magic_packet(const HardwareAddress &address) {
    MagicPacket packet{};
    std::uint8_t *at = std::fill_n(packet.begin(), address.size(), std::uint8_t{0xff});
    for (std::size_t repetition = 0; repetition < kRepetitions; ++repetition)
        at = std::copy(address.begin(), address.end(), at);
    return packet;
}

/// In network byte order, like every address here.
in_addr_t ipv4_of(const sockaddr *address) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof ipv4);
    return ipv4.sin_addr.s_addr;
}

/// The broadcast address that belongs to one address of an interface; nothing when it has none.
std::optional<in_addr_t> broadcast_address(const ifaddrs &entry) {
    constexpr unsigned kNeeded = IFF_UP | IFF_BROADCAST;
    if ((entry.ifa_flags & kNeeded) != kNeeded) return std::nullopt;
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) return std::nullopt;
    const in_addr_t own = ipv4_of(entry.ifa_addr);
    if (entry.ifa_broadaddr != nullptr && ipv4_of(entry.ifa_broadaddr) != own) return ipv4_of(entry.ifa_broadaddr);

    // Set up without a broadcast address, in which case the C library shows the interface's own. Its network still has
    // one, unless it is too small.
    if (entry.ifa_netmask == nullptr) return std::nullopt;
    const in_addr_t hosts = ~ipv4_of(entry.ifa_netmask);
    if (ntohl(hosts) <= 1) return std::nullopt;
    return own | hosts;
}

bool served_before(const ifaddrs *first, const ifaddrs *end, in_addr_t destination) {
    if (destination == htonl(INADDR_BROADCAST)) return true;
    for (const ifaddrs *entry = first; entry != end; entry = entry->ifa_next)
        if (broadcast_address(*entry) == destination) return true;
    return false;
}

bool broadcast(int socket, const MagicPacket &packet, in_addr_t destination) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kDiscardPort);
    address.sin_addr.s_addr = destination;
    ssize_t sent = -1;
    do {
        sent = sendto(socket, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&address),
                      sizeof address);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(packet.size());
}

UniqueFd broadcast_socket() {
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (socket && setsockopt(socket.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) socket.reset();
    return socket;
}

/// An empty list when the interfaces cannot be listed.
InterfaceList list_interfaces() {
    ifaddrs *first = nullptr;
    return InterfaceList(getifaddrs(&first) == 0 ? first : nullptr);
}

} // namespace

int send_wol_packet(const char *hardware_address) {
    if (hardware_address == nullptr) return -1;
    const std::optional<HardwareAddress> address = parse_hardware_address(hardware_address);
    if (!address) return -1;
    const UniqueFd socket = broadcast_socket();
    if (!socket) return -1;

    const MagicPacket packet = magic_packet(*address);
    bool sent = broadcast(socket.get(), packet, htonl(INADDR_BROADCAST));
    const InterfaceList interfaces = list_interfaces();
    for (const ifaddrs *entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
        const std::optional<in_addr_t> destination = broadcast_address(*entry);
        if (!destination || served_before(interfaces.get(), entry, *destination)) continue;
        if (broadcast(socket.get(), packet, *destination)) sent = true;
    }
    return sent ? 0 : -1;
}
