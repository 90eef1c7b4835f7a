#include "host/DatagramWatch.h"

#include "common/Clock.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <string_view>
#include <sys/socket.h>

namespace {

// Raw sockets get a copy of every datagram.
int openRaw(int family) {
    const int descriptor = socket(family, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
    const int bufferBytes = 4 << 20;
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes);
    return descriptor;
}

unsigned numberAt(std::string_view packet, std::size_t place) {
    const auto high = static_cast<unsigned char>(packet[place]);
    const auto low = static_cast<unsigned char>(packet[place + 1]);
    return static_cast<unsigned>(high) << 8U | low;
}

std::string addressAt(std::string_view packet, std::size_t place) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, packet.data() + place, text.data(), text.size());
    return text.data();
}

// Calls `take` with the destination and the payload of each datagram. With IPv4 the IP header
// precedes the UDP header; with IPv6 it does not, and the address is empty.
template <typename Take>
void drain(int descriptor, bool isIpv4, const Take& take) {
    constexpr std::size_t udpHeaderBytes = 8;
    constexpr std::size_t destination = 16; // in the IP header
    constexpr std::uint64_t longestMs = 50;
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    const std::uint64_t endMs = monotonicMillis() + longestMs; // despite a flood of datagrams
    while (monotonicMillis() < endMs &&
           (count = recv(descriptor, buffer.data(), buffer.size(), 0)) > 0) {
        const std::string_view packet(buffer.data(), static_cast<std::size_t>(count));
        const std::size_t ipBytes =
            isIpv4 ? (static_cast<unsigned char>(packet[0]) & 0xFU) * 4U : 0;
        const bool isWhole = packet.size() >= ipBytes + udpHeaderBytes;
        if (isWhole) {
            take(isIpv4 ? addressAt(packet, destination) : "",
                 static_cast<int>(numberAt(packet, ipBytes + 2)),
                 packet.substr(ipBytes + udpHeaderBytes));
        }
    }
}

// Whether the payload looks like a datagram for the daemon: it contains "path", and "request" with
// an object.
bool isForDaemon(std::string_view payload) {
    constexpr std::string_view name = "\"request\"";
    const auto request = payload.find(name);
    if (request == std::string_view::npos) {
        return false;
    }
    const auto value = payload.find_first_not_of(" \t\r\n:", request + name.size());
    return value != std::string_view::npos && payload[value] == '{' &&
           payload.find("\"path\"") != std::string_view::npos;
}

} // namespace

DatagramWatch::DatagramWatch()
    : ipv4(openRaw(AF_INET))
    , ipv6(openRaw(AF_INET6)) {}

const DatagramCounts& DatagramWatch::count(int port) {
    counts.areSeen = ipv4.get() >= 0;
    drain(ipv4.get(), true, [&](const std::string& address, int to, std::string_view payload) {
        const bool isOwnAddress = address == "127.0.0.1";
        if (to == port && isOwnAddress) {
            ++counts.atPort;
        } else if (isOwnAddress && isForDaemon(payload)) {
            ++counts.atOtherPorts[to];
        } else if (to == port && isForDaemon(payload)) {
            ++counts.atOtherAddresses[address];
        }
    });
    drain(ipv6.get(), false, [&](const std::string&, int to, std::string_view payload) {
        if (to == port && isForDaemon(payload)) {
            ++counts.atPortByIpv6;
        }
    });
    return counts;
}
