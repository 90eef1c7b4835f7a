#include "VeyraServer/ServiceNotification.h"

#include "common/Clock.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

int notifySocket = -1; // -1: there is no service manager
sockaddr_un serviceManager{};
socklen_t serviceManagerLength = 0;
std::uint64_t lastAliveMs = 0;

void notify(const char* state) {
    if (notifySocket != -1) {
        sendto(notifySocket, state, std::strlen(state), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&serviceManager), serviceManagerLength);
    }
}

} // namespace

void connectToServiceManager() {
    const char* path = std::getenv("NOTIFY_SOCKET");
    const std::size_t length = path == nullptr ? 0 : std::strlen(path);
    if (length == 0 || length >= sizeof serviceManager.sun_path) {
        return;
    }
    serviceManager.sun_family = AF_UNIX;
    std::memcpy(serviceManager.sun_path, path, length);
    if (path[0] == '@') { // an abstract socket address, which starts with a zero byte
        serviceManager.sun_path[0] = 0;
    }
    serviceManagerLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    notifySocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void notifyReady() {
    notify("READY=1");
}

void notifyAlive() {
    constexpr std::uint64_t intervalMs = 1000;
    if (notifySocket == -1) {
        return;
    }
    const std::uint64_t nowMs = monotonicMillis();
    if (nowMs - lastAliveMs >= intervalMs) {
        lastAliveMs = nowMs;
        notify("WATCHDOG=1");
    }
}

void notifyStopping() {
    notify("STOPPING=1");
}
