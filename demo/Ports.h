// Ports of the loopback interface.
#pragma once

#include <netinet/in.h>

sockaddr_in loopbackAddress(int port);

// A port that nobody uses, from the kernel; `socketType` is SOCK_STREAM or SOCK_DGRAM.
int freePort(int socketType);
