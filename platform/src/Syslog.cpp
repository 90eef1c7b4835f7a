#include "Syslog.h"

#include "ZEP/Logger.h"

#include <atomic>
#include <cerrno>
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
    // The syslog daemon adds the time, in its own time zone. The limit on the name keeps the prefix
    // complete.
    char prefix[64];
    const int prefixLength =
        std::snprintf(prefix, sizeof prefix, "<%d>%.32s[%d]: ", LOG_DAEMON | severity(level),
                      program_invocation_short_name, static_cast<int>(getpid()));
    iovec parts[] = {{prefix, static_cast<std::size_t>(prefixLength)},
                     {const_cast<char*>(message), length}};
    sockaddr_un address = syslogAddress;
    msghdr datagram{};
    datagram.msg_name = &address;
    datagram.msg_namelen = sizeof address;
    datagram.msg_iov = parts;
    datagram.msg_iovlen = 2;
    // The socket is not connected: each record goes to the syslog daemon that is running now.
    // Without one the record is lost.
    if (sendmsg(syslogDescriptor, &datagram, MSG_NOSIGNAL) < 0) {
        return;
    }
}

} // namespace ZEP::Logger
