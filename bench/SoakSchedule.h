// What goes wrong in a soak test, and when: the same for the same seed.
#pragma once

#include <string>
#include <vector>

struct SoakEvent {
    double atSecond;
    double untilSecond;
    // "kill", "echo", or a command of the stand-in cloud.
    std::string fault;
};

// Faults one after another, with quiet between them, in rounds of all kinds in an order of chance;
// none lasts beyond `seconds`.
std::vector<SoakEvent> soakSchedule(double seconds, unsigned seed);
