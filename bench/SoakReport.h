// What a soak test saw, and whether it held.
#pragma once

#include "SoakSchedule.h"

#include <string>
#include <vector>

struct SoakSample {
    double second;
    long residentKiB;
};

struct SoakCounts {
    // From the sender and the kernel.
    unsigned sent = 0;
    unsigned broken = 0; // of those sent
    long lostInSocket = 0;
    // From the daemon's log.
    std::size_t rejected = 0;
    std::size_t refusedByBreaker = 0;
    std::size_t failed = 0;
    std::size_t otherErrors = 0;
    std::size_t rebuilds = 0;
    // From the cloud.
    std::size_t relayed = 0;
    std::size_t cloudFailed = 0;
    std::size_t badSignatures = 0;
    // From the broker and the subscriber.
    std::size_t published = 0;
    std::size_t sentAgain = 0;
    std::size_t received = 0;
    std::size_t outOfOrder = 0; // twice included
    std::size_t lostWithLink = 0;
    std::size_t unaccounted = 0; // answered by the cloud, not received, and no link broke
    // From /proc.
    std::size_t descriptorsBefore = 0, descriptorsAfter = 0;
    std::size_t threadsBefore = 0, threadsAfter = 0;
    int exitStatus = -1;
};

// Prints the tables. Returns whether everything held.
bool reportSoak(const SoakCounts& counts, const std::vector<SoakSample>& samples);

// Draws memory over time, with the faults as bands.
void drawSoak(const std::string& file, const std::vector<SoakSample>& samples,
              const std::vector<SoakEvent>& events);
