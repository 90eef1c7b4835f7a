#include "net/DatagramSocket.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

void recordError(DatagramSocket& socket, const char* text, int number) {
    socket.lastErrorText = text;
    socket.lastErrorNumber = number;
}

sockaddr_in endpointAddress(std::uint16_t port, bool anyAddress, const char* address) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(port);
    endpoint.sin_addr.s_addr = anyAddress ? htonl(INADDR_ANY) : inet_addr(address);
    return endpoint;
}

void setReceiveTimeout(int descriptor) {
    timeval timeout{};
    timeout.tv_usec = 100000;
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
        std::perror("Error");
    }
}

} // namespace

DatagramSocket upstreamSocket;

bool bindSocket(DatagramSocket& socket, std::uint16_t port, bool anyAddress, const char* address) {
    std::array<char, 256> hostName{};
    if (const int result = gethostname(hostName.data(), hostName.size()); result != 0) {
        recordError(socket, "Unable to read host name", result);
        return false;
    }
    socket.descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket.descriptor == -1) {
        return false;
    }
    const sockaddr_in endpoint = endpointAddress(port, anyAddress, address);
    if (bind(socket.descriptor, reinterpret_cast<const sockaddr*>(&endpoint), sizeof endpoint) !=
        0) {
        recordError(socket, "Unable to bind socket", 0);
        return false;
    }
    setReceiveTimeout(socket.descriptor);
    socket.open = true;
    return true;
}

ssize_t receiveDatagram(DatagramSocket& socket, sockaddr_in& sender, void* buffer,
                        std::size_t capacity) {
    const std::lock_guard<std::mutex> guard(socket.receiveLock);
    for (;;) {
        socklen_t senderLength = sizeof sender;
        const ssize_t count = recvfrom(socket.descriptor, buffer, capacity, 0,
                                       reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (count >= 0) {
            return count;
        }
        if (errno != ECONNRESET) {
            recordError(socket, "Unable to receive datagram", errno);
            return count;
        }
    }
}

bool transmitDatagram(DatagramSocket& socket, const sockaddr_in& destination, const void* data,
                      std::size_t length) {
    const std::lock_guard<std::mutex> guard(socket.sendLock);
    const ssize_t sent =
        sendto(socket.descriptor, data, length, 0, reinterpret_cast<const sockaddr*>(&destination),
               sizeof destination);
    if (sent >= 0 && static_cast<std::size_t>(sent) == length) {
        return true;
    }
    recordError(socket, "Unable to transmit datagram", errno);
    return false;
}
