// An IPv4 UDP socket that records its last error instead of throwing or logging.
//
// One thread may receive while another transmits; binding takes no lock. The caller closes the
// descriptor. Addresses are IPv4 and stay the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/types.h>

struct DatagramSocket {
    int descriptor = -1; // -1: none
    pthread_mutex_t receiveLock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t sendLock = PTHREAD_MUTEX_INITIALIZER;
    std::string lastErrorText;
    int lastErrorNumber = 0;
    bool open = false; // a bind succeeded
};

// The endpoint that the network server sends its datagrams to. Main thread only.
extern DatagramSocket upstreamSocket;

// Opens `socket` on `port` of every address, or of `address` (dotted text) when `anyAddress` is
// false, with a receive timeout of 100 ms. After a failed bind the descriptor stays open and stored
// for the caller to close, and the error number is 0.
bool bindSocket(DatagramSocket& socket, std::uint16_t port, bool anyAddress, const char* address);

// Waits up to the receive timeout for one datagram and stores its sender. Returns the byte count;
// a longer datagram is cut to `capacity`. Negative on timeout or failure.
ssize_t receiveDatagram(DatagramSocket& socket, sockaddr_in& sender, void* buffer,
                        std::size_t capacity);

// True when exactly `length` bytes went out.
bool transmitDatagram(DatagramSocket& socket, const sockaddr_in& destination, const void* data,
                      std::size_t length);
