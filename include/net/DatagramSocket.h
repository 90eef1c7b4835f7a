// An IPv4 UDP socket that records its last error instead of throwing or logging.
//
// One thread may receive while another one transmits; binding takes no lock. The caller closes the
// descriptor and owns the addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/types.h>

struct DatagramSocket {
    int descriptor = -1; // -1: none
    std::mutex receiveLock;
    std::mutex sendLock;
    std::string lastErrorText;
    int lastErrorNumber = 0;
    bool open = false; // a bind succeeded
};

// Receives the network server's datagrams. Main thread only.
extern DatagramSocket upstreamSocket;

// Opens `socket` with a receive timeout of 100 ms and binds it to `port`, on every address of the
// machine if `anyAddress` is true, otherwise on `address` (dotted decimal). After a failed bind the
// error number is 0 and the descriptor stays open: the caller must close it.
bool bindSocket(DatagramSocket& socket, std::uint16_t port, bool anyAddress, const char* address);

// Waits up to the receive timeout for one datagram and stores its sender. Returns the number of
// bytes, or a negative value on timeout or failure. A longer datagram is cut to `capacity` bytes.
ssize_t receiveDatagram(DatagramSocket& socket, sockaddr_in& sender, void* buffer,
                        std::size_t capacity);

// True when exactly `length` bytes were sent.
bool transmitDatagram(DatagramSocket& socket, const sockaddr_in& destination, const void* data,
                      std::size_t length);
