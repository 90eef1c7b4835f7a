#include "support/FakeClock.h"

#include "common/Clock.h"

std::uint64_t fakeNowMs = 0;

std::uint64_t monotonicMillis() {
    return fakeNowMs;
}

void sleepMillis(unsigned ms) {
    fakeNowMs += ms;
}
