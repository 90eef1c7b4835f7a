// Watches which UDP datagrams arrive on the loopback interface while the doctor runs, without
// taking any from the daemon. Only root can watch. One thread.
#pragma once

#include "host/Files.h"

#include <map>

struct DatagramCounts {
    bool areSeen = false;         // this user has permission to watch
    int atPort = 0;               // IPv4, at the daemon's port
    int atPortByIpv6 = 0;         // at [::1], where the daemon does not listen
    std::map<int, int> elsewhere; // by port: datagrams with a "path" at other ports of 127.0.0.1
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
