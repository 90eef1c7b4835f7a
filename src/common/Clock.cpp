#include "common/Clock.h"

#include <ctime>

static_assert(sizeof(time_t) == 8, "times must stay correct after 2038");

std::uint64_t monotonicMillis() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

void sleepMillis(unsigned ms) {
    timespec pause{};
    pause.tv_sec = static_cast<time_t>(ms / 1000);
    pause.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    nanosleep(&pause, nullptr);
}
