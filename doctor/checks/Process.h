// Judges from two looks whether the daemon works. Pure functions, usable from any thread.
#pragma once

#include "Finding.h"
#include "host/Process.h"

// A standstill of this length means one long request, not several slow ones.
constexpr std::uint64_t standstillMs = 10000;

struct LifeFacts {
    const Look& active; // when the main thread was last seen at work
    const Look& now;
    bool isLinked = true;         // to the broker, as far as the doctor knows
    bool brokerIsOk = false;      // the broker accepted the doctor
    bool brokerIsBad = false;     // the broker check found why the daemon cannot connect
    bool isRejected = false;      // the broker accepted the doctor and rejected the daemon
    bool datagramsAreSeen = true; // the doctor sees arriving datagrams and counts them as work
    bool wasToldToStop = false;   // the log has a stop record
    bool hasLockRecord = false;   // the log has the record after which the daemon no longer relays
};

// The id of the result names the problem; the outcome is OK when the daemon works.
Finding judgeLife(const LifeFacts& facts);

// Whether the main thread was at work between two looks a quarter of a second apart. An idle daemon
// wakes ten times a second. A daemon that waits for a response wakes once a second.
bool wasAtWork(const Look& before, const Look& after, bool datagramArrived);
