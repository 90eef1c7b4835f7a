// A clock and a broker library as tests need them, linked in place of the real ones. The library
// notes what it is asked, and plays a broker that answers at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// What monotonicMillis() returns; sleepMillis() moves it on and then calls the hook.
extern std::uint64_t fakeNowMs;
extern std::function<void()> afterSleep;

struct FakeBroker {
    std::vector<std::string> calls; // "MS WHAT", by the fake clock from `startMs` on
    std::uint64_t startMs = 0;
    bool accepts = true; // connections
    bool echoes = true;  // what is published on the topic of the subscription
    int socket = -1;     // the connection's
    std::string subscription;
    std::vector<std::string> echoesDue;

    // As the library's own thread would: not before the worker has released its lock.
    void deliverEchoes();
};

extern FakeBroker fakeBroker;
