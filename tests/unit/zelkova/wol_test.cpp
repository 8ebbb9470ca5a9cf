#include "private_world.h"
#include "support.h"
#include "zelkova.h"

#include "tsbackup/owners.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string kAddress("\x00\x1b\xC2\xd3\x0e\xff", 6);

/// Six bytes 0xff, then sixteen times the address.
std::string packet_for(const std::string &address) {
    std::string packet(6, '\xff');
    for (int repetition = 0; repetition < 16; ++repetition)
        packet += address;
    return packet;
}

void shell_or_refuse(const std::string &commands) {
    const std::string complaint = shell_output("set -e\n" + commands);
    if (!complaint.empty()) refuse(complaint);
}

/// A network of one's own: three wires whose near ends are near0 to near2. `near0` has two addresses of one network,
/// `near1` an address set up without a broadcast address, `near2` is not up. The general broadcast has a route.
void make_network() {
    shell_or_refuse("ip link set lo up\n"
                    "for n in 0 1 2; do ip link add near$n type veth peer name far$n; done\n"
                    "ip address add 10.9.0.1/24 broadcast + dev near0\n"
                    "ip address add 10.9.0.2/24 broadcast + dev near0\n"
                    "ip address add 10.9.1.1/25 dev near1\n"
                    "ip address add 10.9.2.1/24 broadcast + dev near2\n"
                    "for n in near0 near1 far0 far1; do ip link set $n up; done\n"
                    "ip route add default via 10.9.0.254\n");
}

struct Received {
    std::string destination;
    std::string payload;
    bool operator==(const Received &) const = default;
};

void PrintTo(const Received &received, std::ostream *out) {
    *out << received.payload.size() << " bytes to " << received.destination;
}

class WakeReceiver {
  public:
    WakeReceiver() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        const int on = 1;
        setsockopt(socket_.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        setsockopt(socket_.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(9);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    }

    std::vector<Received> received() {
        std::vector<Received> all;
        for (;;) {
            std::array<char, 2048> payload{};
            std::array<char, 256> control{};
            iovec part{payload.data(), payload.size()};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            const ssize_t got = recvmsg(socket_.get(), &message, 0);
            if (got < 0) return all;
            all.push_back({destination_of(message), {payload.data(), static_cast<std::size_t>(got)}});
        }
    }

  private:
    static std::string destination_of(msghdr &message) {
        for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_PKTINFO) continue;
            in_pktinfo information{};
            std::memcpy(&information, CMSG_DATA(header), sizeof information);
            std::array<char, INET_ADDRSTRLEN> text{};
            return inet_ntop(AF_INET, &information.ipi_addr, text.data(), text.size());
        }
        return "nowhere";
    }

    UniqueFd socket_;
};

/// The datagrams that this network has sent, those that reached nobody included.
int datagrams_sent() {
    return std::stoi(shell_output("awk '/^Udp:/ { sent = $5 } END { print sent }' /proc/net/snmp"));
}

TEST(WakeOnLan, ReachesEveryBroadcastAddressOnce) {
    REQUIRE_ROOT();
    EXPECT_IN_PRIVATE_WORLD(CLONE_NEWNET, [] {
        make_network();
        WakeReceiver receiver;
        EXPECT_EQ(send_wol_packet("00:1b:C2:d3:0E:ff"), 0);
        const std::string packet = packet_for(kAddress);
        EXPECT_EQ(packet.size(), 102U);
        EXPECT_THAT(receiver.received(),
                    UnorderedElementsAre(Received{"255.255.255.255", packet}, Received{"10.9.0.255", packet},
                                         Received{"10.9.1.127", packet}));
        EXPECT_EQ(datagrams_sent(), 3) << "nothing for the interface that is not up";
    });
}

TEST(WakeOnLan, ReachesTheInterfacesWithoutARouteForTheGeneralBroadcast) {
    REQUIRE_ROOT();
    EXPECT_IN_PRIVATE_WORLD(CLONE_NEWNET, [] {
        make_network();
        shell_or_refuse("ip route del default\nip link set near1 down\n");
        WakeReceiver receiver;
        EXPECT_EQ(send_wol_packet("001bc2d30eff"), 0);
        EXPECT_THAT(receiver.received(), ElementsAre(Received{"10.9.0.255", packet_for(kAddress)}));
    });
}

TEST(WakeOnLan, SendsTheGeneralBroadcastOnceWhereAnInterfaceHasItToo) {
    REQUIRE_ROOT();
    EXPECT_IN_PRIVATE_WORLD(CLONE_NEWNET, [] {
        shell_or_refuse("ip link add near0 type veth peer name far0\n"
                        "ip address add 10.9.0.1/24 broadcast 255.255.255.255 dev near0\n"
                        "ip link set near0 up\nip link set far0 up\nip route add default via 10.9.0.254\n");
        WakeReceiver receiver;
        EXPECT_EQ(send_wol_packet("00-1b-c2-d3-0e-ff"), 0);
        EXPECT_THAT(receiver.received(), ElementsAre(Received{"255.255.255.255", packet_for(kAddress)}));
    });
}

TEST(WakeOnLan, FailsWhereNothingCanBeSent) {
    REQUIRE_ROOT();
    EXPECT_IN_PRIVATE_WORLD(CLONE_NEWNET, [] {
        EXPECT_EQ(send_wol_packet("00:1b:c2:d3:0e:ff"), -1) << "no interface is up";
        shell_or_refuse("ip link set lo up\n");
        EXPECT_EQ(send_wol_packet("00:1b:c2:d3:0e:ff"), -1) << "the loopback interface cannot broadcast";
    });
}

TEST(WakeOnLan, TakesSixPairsAndNothingElse) {
    const struct {
        const char *text;
        const char *packet_address; ///< null: refused
    } cases[] = {
        {"01:23:45:67:89:ab", "\x01\x23\x45\x67\x89\xab"},
        {"01-23-45-67-89-AB", "\x01\x23\x45\x67\x89\xab"},
        {"0123456789aB", "\x01\x23\x45\x67\x89\xab"},
        {"FF:FF:FF:FF:FF:FF", "\xff\xff\xff\xff\xff\xff"},
        {"", nullptr},
        {":", nullptr},
        {"01:23:45:67:89", nullptr},
        {"01:23:45:67:89:ab:cd", nullptr},
        {"01:23:45:67:89:ab:", nullptr},
        {":01:23:45:67:89:ab", nullptr},
        {"01:23:45:67:89:a", nullptr},
        {"1:23:45:67:89:ab", nullptr},
        {"01:23:45:67:89:abc", nullptr},
        {"01:23:45:67:89:ag", nullptr},
        {"01:23:45:67:89:-b", nullptr},
        {"0x:23:45:67:89:ab", nullptr},
        {"01:23:45-67:89:ab", nullptr},
        {"01-23:45:67:89:ab", nullptr},
        {"01:2345:67:89:ab", nullptr},
        {"01.23.45.67.89.ab", nullptr},
        {"01 23 45 67 89 ab", nullptr},
        {"01:23:45:67:89:ab\n", nullptr},
        {" 01:23:45:67:89:ab", nullptr},
        {"0123456789a", nullptr},
        {"0123456789abc", nullptr},
        {"0123456789ag", nullptr},
        {"01234567:9ab", nullptr},
        {"0123456789abcdef0", nullptr},
        {"0123456789\xc3\xa4", nullptr},
    };
    REQUIRE_ROOT();
    EXPECT_IN_PRIVATE_WORLD(CLONE_NEWNET, [&] {
        make_network();
        shell_or_refuse("ip route del default\nip link set near1 down\n");
        WakeReceiver receiver;
        for (const auto &test : cases) {
            SCOPED_TRACE(test.text);
            if (test.packet_address == nullptr) {
                EXPECT_EQ(send_wol_packet(test.text), -1);
                EXPECT_THAT(receiver.received(), IsEmpty());
            } else {
                EXPECT_EQ(send_wol_packet(test.text), 0);
                EXPECT_THAT(receiver.received(),
                            ElementsAre(Received{"10.9.0.255", packet_for(std::string(test.packet_address, 6))}));
            }
        }
        EXPECT_EQ(send_wol_packet(nullptr), -1);
        EXPECT_THAT(receiver.received(), IsEmpty());
    });
}

} // namespace
} // namespace tsbackup::test
