// Watches which UDP datagrams arrive on the loopback interface while the doctor runs, without
// taking any from the daemon. Only root can watch. One thread.
#pragma once

#include "host/Files.h"

#include <map>
#include <string>

struct DatagramCounts {
    bool areSeen = false; // this user has permission to watch
    int atPort = 0;       // at 127.0.0.1 and the daemon's port
    // Datagrams that look like the daemon's, but that the daemon does not receive.
    int atPortByIpv6 = 0;                        // at its port, over IPv6
    std::map<std::string, int> atOtherAddresses; // at its port, by IPv4 address
    std::map<int, int> atOtherPorts;             // at 127.0.0.1, by port
};

class DatagramWatch {
  public:
    // Datagrams are kept from now on, as many as fit into the socket's buffer.
    DatagramWatch();

    // Counts what has arrived since the start. `port` must be the daemon's port, the same in every
    // call.
    const DatagramCounts& count(int port);

  private:
    DatagramCounts counts;
    Descriptor ipv4, ipv6;
};
