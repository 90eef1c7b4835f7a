#include "Syslog.h"

#include "ZEP/Logger.h"

#include <atomic>
#include <cstdio>
#include <sys/socket.h>
#include <sys/syslog.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace ZEP::Logger {

namespace {

constexpr sockaddr_un syslogAddress = {AF_UNIX, "/dev/log"};

std::atomic<int> syslogDescriptor{-1};

int severity(int level) {
    if (level <= PrintLevel::ERROR_LEVEL) {
        return LOG_ERR;
    }
    if (level <= PrintLevel::WARNING_LEVEL) {
        return LOG_WARNING;
    }
    return level <= PrintLevel::INFO_LEVEL ? LOG_INFO : LOG_DEBUG;
}

} // namespace

bool openSyslog() {
    if (syslogDescriptor < 0) {
        syslogDescriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    return syslogDescriptor >= 0;
}

void sendToSyslog(int level, const char* message, std::size_t length) {
    // No time in the datagram: the syslog daemon puts its own, in its own time zone.
    char prefix[64];
    const int prefixLength = std::snprintf(
        prefix, sizeof prefix, "<%d>lora-veyra-server[%d]: ", LOG_DAEMON | severity(level),
        static_cast<int>(getpid()));
    iovec parts[] = {{prefix, static_cast<std::size_t>(prefixLength)},
                     {const_cast<char*>(message), length}};
    sockaddr_un address = syslogAddress;
    msghdr datagram{};
    datagram.msg_name = &address;
    datagram.msg_namelen = sizeof address;
    datagram.msg_iov = parts;
    datagram.msg_iovlen = 2;
    // Addressed anew each time, so that a restarted syslog daemon is found again. Without a syslog
    // daemon the record is lost, as with every program that logs to it.
    if (sendmsg(syslogDescriptor, &datagram, MSG_NOSIGNAL) < 0) {
        return;
    }
}

} // namespace ZEP::Logger
