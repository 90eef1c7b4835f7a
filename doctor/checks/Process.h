// Judges from two looks whether the daemon works. Pure functions, usable from any thread.
#pragma once

#include "Finding.h"
#include "host/Process.h"

constexpr std::uint64_t standstillMs =
    10000; // a request in progress is told from a slow one after it

struct LifeFacts {
    const Look& active; // when the main thread was last seen at work
    const Look& now;
    bool isLinked = true;         // to the broker, as far as can be seen
    bool brokerIsOk = false;      // the broker accepted the doctor
    bool brokerIsBad = false;     // the check of the broker found why there can be no connection
    bool isRejected = false;      // the broker accepted the doctor and rejected the daemon
    bool datagramsAreSeen = true; // a datagram that was received would have counted as work
    bool wasToldToStop = false;   // the log has a stop record
    bool hasLockRecord = false;   // the log has the record after which the daemon relays no more
};

// Its id tells what is wrong; the outcome is OK when the daemon works.
Finding judgeLife(const LifeFacts& facts);

// Whether the main thread was at work between two looks a quarter of a second apart. An idle daemon
// wakes ten times a second, one that waits for a response once a second.
bool wasAtWork(const Look& before, const Look& after, bool datagramArrived);
