#include "host/Resolver.h"

#include "host/Files.h"

#include <chrono>
#include <future>
#include <sstream>
#include <sys/socket.h>
#include <thread>

namespace {

Resolution resolve(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    Resolution resolution;
    resolution.error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (resolution.error == 0) {
        resolution.list.reset(list);
    }
    return resolution;
}

// connect(2) on a UDP socket only looks up a route and sends nothing.
bool hasRoute(const std::string& address) {
    constexpr int dnsPort = 53;
    constexpr long limitMs = 100;
    const Resolution found = resolveWithin(address, dnsPort, limitMs);
    if (!found.list) {
        return true; // not an address: this is another fault
    }
    const Descriptor descriptor(socket(found.list->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return connect(descriptor.get(), found.list->ai_addr, found.list->ai_addrlen) == 0;
}

} // namespace

// The resolver may wait for silent name servers longer than the doctor does. The call then
// continues in a detached thread.
Resolution resolveWithin(const std::string& host, int port, long limitMs) {
    std::promise<Resolution> promise;
    std::future<Resolution> result = promise.get_future();
    std::thread([host, port, waiting = std::move(promise)]() mutable {
        waiting.set_value(resolve(host, port));
    }).detach();
    if (result.wait_for(std::chrono::milliseconds(limitMs)) != std::future_status::ready) {
        return {};
    }
    return result.get();
}

bool hasRouteToNameServer() {
    std::istringstream lines(textOf("/etc/resolv.conf"));
    bool isLocal = true; // until a line "nameserver" is found
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        std::string address;
        words >> name >> address;
        if (name == "nameserver" && hasRoute(address)) {
            return true;
        }
        isLocal = isLocal && name != "nameserver";
    }
    return isLocal;
}
