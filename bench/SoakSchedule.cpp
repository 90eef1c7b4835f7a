#include "SoakSchedule.h"

#include <algorithm>
#include <random>

namespace {

struct Kind {
    const char* fault;
    double shortest; // seconds
    double longest;
};

// The echo has to stay away for more than 30 s to be missed.
constexpr Kind kinds[] = {
    {"kill", 0.1, 15},    {"echo", 35, 50},     {"status 500", 2, 20},
    {"cut", 2, 10},       {"stall 200", 5, 15}, {"stall 1500", 5, 12},
    {"status 201", 2, 5}, {"kill", 0.1, 3},     {"redirect", 2, 5},
};

} // namespace

std::vector<SoakEvent> soakSchedule(double seconds, unsigned seed) {
    std::mt19937 random(seed);
    const auto between = [&](double low, double high) {
        return low + (high - low) * static_cast<double>(random() % 10000) / 10000;
    };
    std::vector<SoakEvent> events;
    double now = 5;
    for (;;) {
        std::vector<Kind> round(std::begin(kinds), std::end(kinds));
        std::shuffle(round.begin(), round.end(), random);
        for (const Kind& kind : round) {
            const double start = now + between(3, 10);
            now = start + between(kind.shortest, kind.longest);
            if (now > seconds) {
                return events;
            }
            events.push_back({start, now, kind.fault});
        }
    }
}
