// The daemon beside three floors: the same datagrams, cloud and broker, in alternating slices.
//
//   benchmark FOLDER SLICES
//
// FOLDER holds the peers' certificates and takes everybody's files; the authority of the
// certificates stands where the daemon looks for it. Prints tables in Markdown.
#include "Cores.h"
#include "Figures.h"
#include "Instructions.h"
#include "Load.h"
#include "Subject.h"

#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <random>
#include <stdexcept>

namespace {

constexpr std::size_t sizes[] = {200, 2048, 16384};
constexpr unsigned latencySamples = 300; // of one slice
// Short ones in turn: what else the machine does falls on all subjects alike.
constexpr unsigned burstsOfSlice = 12;
constexpr unsigned settlingDatagrams = 10000;

struct Measured {
    Series rate;      // replies per second
    Series cpuMicros; // per datagram
    Series latencyMs; // of single datagrams, all slices
};

struct Bench {
    explicit Bench(const std::string& folder)
        : peers(folder)
        , replies(peers.brokerPort) {
        for (const char* name : {"daemon", "floor", "floor-json", "floor-reset"}) {
            subjects.emplace_back(name, folder, peers);
        }
    }

    Peers peers;
    Subscriber replies;
    std::list<Subject> subjects;
    std::mt19937 random{20261121};
};

using BySubject = std::map<std::string, Measured>;

[[noreturn]] void failLost(const Subject& subject) {
    throw std::runtime_error(subject.name + ": a datagram was not answered");
}

void pauseMillis(long ms) {
    const timespec pause = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&pause, nullptr);
}

void waitForSilence(const Subscriber& replies) {
    std::uint64_t before = 0;
    do {
        before = replies.count();
        pauseMillis(300);
    } while (replies.count() != before);
}

// Milliseconds from the start of the program to its first message on the broker.
double startToFirstAnswer(Bench& bench, Subject& subject) {
    const std::string datagram = packetsDatagram(200);
    const std::uint64_t before = bench.replies.count();
    const std::int64_t startNs = nowNs();
    subject.start();
    if (!eventually([&] { return socketQueue(subject.port).bytes >= 0; })) {
        throw std::runtime_error(subject.name + " does not start");
    }
    // The daemon binds its port, closes it and binds it again: what was sent in between is lost.
    const Sender sender(subject.port);
    const bool answered = eventually([&] {
        sender.send(datagram);
        return bench.replies.count() > before;
    });
    if (!answered) {
        failLost(subject);
    }
    const double elapsedMs = static_cast<double>(bench.replies.lastArrivalNs() - startNs) / 1e6;
    waitForSilence(bench.replies); // every datagram that was accepted is answered
    return elapsedMs;
}

double burst(Bench& bench, Subject& subject, const std::string& datagram, unsigned count,
             Measured& measured) {
    const std::uint64_t target = bench.replies.count() + count;
    const long dropsBefore = socketQueue(subject.port).drops;
    const double cpuBefore = subject.cpuSeconds();
    const std::int64_t startNs = nowNs();
    Sender(subject.port).sendMany(datagram, count);
    if (!bench.replies.waitFor(target) || socketQueue(subject.port).drops != dropsBefore) {
        failLost(subject);
    }
    const double seconds = static_cast<double>(bench.replies.lastArrivalNs() - startNs) / 1e9;
    measured.rate.push_back(count / seconds);
    measured.cpuMicros.push_back((subject.cpuSeconds() - cpuBefore) * 1e6 / count);
    return seconds;
}

// Milliseconds from a datagram to its message.
double latencyOfOne(Bench& bench, const Subject& subject, const Sender& sender,
                    const std::string& datagram) {
    const std::uint64_t target = bench.replies.count() + 1;
    const std::int64_t startNs = nowNs();
    sender.send(datagram);
    if (!bench.replies.waitFor(target)) {
        failLost(subject);
    }
    return static_cast<double>(bench.replies.lastArrivalNs() - startNs) / 1e6;
}

void oneByOne(Bench& bench, Subject& subject, const std::string& datagram, Measured& measured) {
    const Sender sender(subject.port);
    // Pauses of random length, or the datagrams would fall into step with the 10 ms of the queue.
    std::uniform_int_distribution<long> pauseNs(0, 10000000);
    for (unsigned i = 0; i < latencySamples; ++i) {
        const timespec pause = {0, pauseNs(bench.random)};
        nanosleep(&pause, nullptr);
        measured.latencyMs.push_back(latencyOfOne(bench, subject, sender, datagram));
    }
}

// Start-up and memory. Leaves the subjects running.
void measureStartAndMemory(Bench& bench, unsigned slices) {
    std::map<std::string, Series> startMs;
    for (unsigned slice = 0; slice < slices; ++slice) {
        for (Subject& subject : bench.subjects) {
            startMs[subject.name].push_back(startToFirstAnswer(bench, subject));
            if (slice + 1 < slices) {
                subject.stop();
            }
        }
    }
    std::printf("\n| | start to first answer, ms | resident idle, KiB | after %u, KiB |\n"
                "|---|---|---|---|\n",
                settlingDatagrams);
    for (Subject& subject : bench.subjects) {
        const long idle = subject.residentKiB();
        Measured unused;
        burst(bench, subject, packetsDatagram(2048), settlingDatagrams, unused);
        std::printf("| %s | %s | %ld | %ld |\n", subject.name.c_str(),
                    withSpread(startMs[subject.name], 0).c_str(), idle, subject.residentKiB());
    }
    std::fflush(stdout);
}

void printRatios(const char* what, const BySubject& measured, Series Measured::*series) {
    for (const char* floor : {"floor", "floor-json", "floor-reset"}) {
        std::printf("| %s: daemon / %s | %s |\n", what, floor,
                    withSpread(ratios(measured.at("daemon").*series, measured.at(floor).*series), 3)
                        .c_str());
    }
}

void printSize(std::size_t bytes, const BySubject& measured) {
    std::printf(
        "\n%zu bytes\n\n| | replies/s in bursts | CPU, us | latency median, ms | 95%%, ms | "
        "99.9%%, ms |\n|---|---|---|---|---|---|\n",
        bytes);
    for (const auto& [name, m] : measured) {
        std::printf("| %s | %s | %s | %s | %s | %s |\n", name.c_str(),
                    withSpread(m.rate, 0).c_str(), withSpread(m.cpuMicros, 1).c_str(),
                    fixed(median(m.latencyMs), 2).c_str(),
                    fixed(percentile(m.latencyMs, 0.95), 2).c_str(),
                    fixed(percentile(m.latencyMs, 0.999), 2).c_str());
    }
    std::puts("\n| slice by slice | median (10% to 90%) |\n|---|---|");
    printRatios("burst rate", measured, &Measured::rate);
    printRatios("CPU", measured, &Measured::cpuMicros);
    std::fflush(stdout);
}

void measureSize(Bench& bench, std::size_t bytes, unsigned slices) {
    const std::string datagram = packetsDatagram(bytes);
    const unsigned burstCount = bytes > 8192 ? 250 : bytes > 1024 ? 1000 : 2000;
    BySubject measured;
    for (unsigned slice = 0; slice < slices; ++slice) {
        for (Subject& subject : bench.subjects) {
            // How a process comes to lie in memory makes it some percent faster or slower.
            subject.stop();
            startToFirstAnswer(bench, subject);
        }
        for (unsigned i = 0; i < burstsOfSlice; ++i) {
            for (Subject& subject : bench.subjects) {
                burst(bench, subject, datagram, burstCount, measured[subject.name]);
            }
        }
        for (Subject& subject : bench.subjects) {
            oneByOne(bench, subject, datagram, measured[subject.name]);
        }
    }
    printSize(bytes, measured);
}

// A datagram that is published while the peers still acknowledge a keepalive. The pauses are
// random but for that, since the datagram has to come after it.
void measureAfterKeepalive(Bench& bench, unsigned slices) {
    constexpr unsigned keepalivesOfSlice = 3; // one comes every 5 s
    Subject& daemon = bench.subjects.front();
    const Sender sender(daemon.port);
    std::uniform_int_distribution<long> pauseMs(0, 15);
    Series latencyMs;
    for (unsigned i = 0; i < slices * keepalivesOfSlice; ++i) {
        const std::uint64_t before = bench.replies.keepalives();
        if (!eventually([&] { return bench.replies.keepalives() > before; })) {
            throw std::runtime_error("no keepalive");
        }
        pauseMillis(pauseMs(bench.random));
        latencyMs.push_back(latencyOfOne(bench, daemon, sender, packetsDatagram(200)));
    }
    std::printf("\nSoon after a keepalive, %zu datagrams of 200 bytes: median %s ms, 75%% %s ms, "
                "highest %s ms\n",
                latencyMs.size(), fixed(median(latencyMs), 1).c_str(),
                fixed(percentile(latencyMs, 0.75), 1).c_str(),
                fixed(percentile(latencyMs, 1), 1).c_str());
    std::fflush(stdout);
}

void measureSocketQueue() {
    std::puts("\n| bytes of a datagram | datagrams that the socket's queue holds |\n|---|---|");
    for (const std::size_t bytes : {std::size_t{200}, std::size_t{500}, std::size_t{1024},
                                    std::size_t{2048}, std::size_t{4096}, std::size_t{16384}}) {
        std::printf("| %zu | %u |\n", bytes, socketCapacity(packetsDatagram(bytes)));
    }
}

// Two runs of different length: what start and stop cost falls out of their difference.
void measureInstructions(Bench& bench, const std::string& folder) {
    constexpr unsigned shortRun = 50;
    constexpr unsigned longRun = 250;
    std::puts("\n| instructions per datagram | bytes | all threads | receiving thread |\n"
              "|---|---|---|---|");
    for (const std::size_t bytes : sizes) {
        for (Subject& subject : bench.subjects) {
            Instructions counted[2];
            for (const unsigned length : {shortRun, longRun}) {
                const std::string file = folder + "/callgrind." + subject.name;
                subject.start(callgrindCommand(file));
                const std::uint64_t target = bench.replies.count() + length;
                if (!eventually([&] { return socketQueue(subject.port).bytes >= 0; })) {
                    throw std::runtime_error(subject.name + " does not start");
                }
                pauseMillis(3000); // its port is open for good
                Sender(subject.port).sendMany(packetsDatagram(bytes), length);
                if (!bench.replies.waitFor(target)) {
                    failLost(subject);
                }
                subject.stop();
                counted[length == longRun] = takeInstructions(file);
            }
            const double datagrams = longRun - shortRun;
            std::printf("| %s | %zu | %.0f | %.0f |\n", subject.name.c_str(), bytes,
                        (counted[1].allThreads - counted[0].allThreads) / datagrams,
                        (counted[1].mainThread - counted[0].mainThread) / datagrams);
        }
    }
}

void run(const std::string& folder, unsigned slices) {
    Bench bench(folder);
    measureStartAndMemory(bench, slices);
    for (const std::size_t bytes : sizes) {
        measureSize(bench, bytes, slices);
    }
    measureAfterKeepalive(bench, slices);
    measureSocketQueue();
    for (Subject& subject : bench.subjects) {
        subject.stop();
    }
    measureInstructions(bench, folder);
}

} // namespace

int main(int argc, char** argv) {
    const unsigned slices = argc == 3 ? static_cast<unsigned>(std::stoi(argv[2])) : 0;
    if (slices == 0) {
        std::fputs("usage: benchmark FOLDER SLICES\n", stderr);
        return 2;
    }
    leaveMeasuredCore();
    try {
        run(argv[1], slices);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "benchmark: %s\n", error.what());
        return 1;
    }
    return 0;
}
