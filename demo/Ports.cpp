#include "Ports.h"

#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

sockaddr_in loopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int freePort(int socketType) {
    const int descriptor = socket(AF_INET, socketType | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopbackAddress(0);
    socklen_t length = sizeof address;
    if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        throw std::runtime_error("no free port");
    }
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    close(descriptor);
    return ntohs(address.sin_port);
}
