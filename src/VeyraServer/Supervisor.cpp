#include "VeyraServer/Supervisor.h"

#include "common/Clock.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

int notifySocket = -1; // none: nobody wants to know
sockaddr_un supervisor{};
socklen_t supervisorLength = 0;
std::uint64_t toldAliveMs = 0;

void tell(const char* state) {
    if (notifySocket != -1) {
        sendto(notifySocket, state, std::strlen(state), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&supervisor), supervisorLength);
    }
}

} // namespace

void findSupervisor() {
    const char* path = std::getenv("NOTIFY_SOCKET");
    const std::size_t length = path == nullptr ? 0 : std::strlen(path);
    if (length == 0 || length >= sizeof supervisor.sun_path) {
        return;
    }
    supervisor.sun_family = AF_UNIX;
    std::memcpy(supervisor.sun_path, path, length);
    if (path[0] == '@') { // an abstract name
        supervisor.sun_path[0] = 0;
    }
    supervisorLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    notifySocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void tellReady() {
    tell("READY=1");
}

void tellAlive() {
    constexpr std::uint64_t intervalMs = 1000;
    if (notifySocket == -1) {
        return;
    }
    const std::uint64_t nowMs = monotonicMillis();
    if (nowMs - toldAliveMs >= intervalMs) {
        toldAliveMs = nowMs;
        tell("WATCHDOG=1");
    }
}

void tellStopping() {
    tell("STOPPING=1");
}
