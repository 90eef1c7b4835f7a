// Sends records to the machine's syslog socket. The C library's syslog() takes a lock and
// allocates, which a record from a signal handler must not do, so the datagram is made here. Usable
// from any thread and any signal handler once opened.
#pragma once

#include <cstddef>

namespace ZEP::Logger {

// Opens the sending socket; later calls do nothing. False when there is none to be had.
bool openSyslog();

// Sends one message, identity "lora-veyra-server", facility daemon. `level` is a PrintLevel.
void sendToSyslog(int level, const char* message, std::size_t length);

} // namespace ZEP::Logger
