// Asks the resolver with a time limit. One thread.
#pragma once

#include <memory>
#include <netdb.h>
#include <string>

struct Resolution {
    int error = EAI_AGAIN; // 0, EAI_NONAME and so on; EAI_AGAIN when the limit was reached
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list{nullptr, freeaddrinfo};
};

// The addresses of a host in the order in which the broker library tries them.
Resolution resolveWithin(const std::string& host, int port, long limitMs);

// Whether the kernel has a route to at least one name server of this machine. True if
// /etc/resolv.conf names none: the C library then asks this machine. Sends nothing.
bool hasRouteToNameServer();
