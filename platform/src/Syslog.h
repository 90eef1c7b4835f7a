// Sends records to the syslog daemon. The C library's syslog() locks and allocates, which a record
// from a signal handler must not do, so this file composes the datagram itself. Usable from any
// thread and any signal handler once openSyslog has been called.
#pragma once

#include <cstddef>

namespace ZEP::Logger {

// Opens the socket; later calls do nothing. Returns false when no socket is available.
bool openSyslog();

// Sends one message with facility daemon. The identity is the name of the running program, as in
// the C library. `level` is a PrintLevel.
void sendToSyslog(int level, const char* message, std::size_t length);

} // namespace ZEP::Logger
