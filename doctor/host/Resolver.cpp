#include "host/Resolver.h"

#include <chrono>
#include <future>
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
