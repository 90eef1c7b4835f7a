// The daemon under steady load while its peers fail and recover on a schedule.
//
//   soak FOLDER MINUTES SEED PLOT
//
// FOLDER holds the peers' certificates and takes everybody's files; the authority of the
// certificates stands where the daemon looks for it. Prints tables, draws memory over time into
// the file PLOT and ends with status 0 if everything held.
#include "Load.h"

#include "Ports.h"
#include "SoakEvidence.h"
#include "SoakPeers.h"
#include "SoakReport.h"
#include "SoakSchedule.h"
#include "Subject.h"

#include <sys/socket.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>

namespace {

constexpr auto meanPause = std::chrono::milliseconds(50);

double secondsSince(std::int64_t startNs) {
    return static_cast<double>(nowNs() - startNs) / 1e9;
}

std::string datagram(int id, std::size_t bytes) {
    const std::string begin = R"({"path":"m1/x/)" + std::to_string(id) +
                              R"(","request":{"brantle_serial":"SN1","data":{"attributes":")";
    const std::string end = R"("}}})";
    const std::size_t rest = bytes - std::min(bytes, begin.size() + end.size());
    return begin + std::string(rest, 'p') + end;
}

class Soak {
  public:
    explicit Soak(std::string workFolder, unsigned seed)
        : folder(std::move(workFolder))
        , port(freePort(SOCK_DGRAM))
        , broker(folder)
        , cloud(folder)
        , subscriber(broker.port)
        , daemon(daemonCommand(folder, port, cloud.port(), broker.port, 40), folder + "/daemon.out")
        , sender(port)
        , random(seed) {}

    bool run(double seconds, unsigned seed, const std::string& plot) {
        if (!eventually([&] { return socketQueue(port).bytes >= 0; })) {
            throw std::runtime_error("the daemon did not start: " + daemon.errors());
        }
        probeUntilAnswered();
        counts.descriptorsBefore = daemon.countOf("fd");
        counts.threadsBefore = daemon.countOf("task");
        const std::vector<SoakEvent> events = soakSchedule(seconds, seed);
        const std::int64_t startNs = nowNs();
        std::atomic<bool> loaded{true};
        std::thread load([&] { sendUntil(loaded); });
        try {
            follow(events, seconds, startNs);
        } catch (...) {
            loaded = false;
            load.join();
            throw;
        }
        loaded = false;
        load.join();
        probeUntilAnswered();
        finish();
        drawSoak(plot, samples, events);
        return reportSoak(counts, samples);
    }

  private:
    // An answer to a new datagram says that all before it are done with: they keep their order.
    void probeUntilAnswered() {
        for (int attempt = 0; attempt < 180; ++attempt) {
            sender.send(datagram(++lastId, 100));
            ++counts.sent;
            if (eventually([&] { return subscriber.has(lastId); }, Deadline(1000))) {
                return;
            }
        }
        throw std::runtime_error("the daemon does not answer any more");
    }

    void sendUntil(const std::atomic<bool>& loaded) {
        std::uniform_real_distribution<double> logOfBytes(std::log(100), std::log(16384));
        std::uniform_int_distribution<int> percent(0, 99);
        std::uniform_int_distribution<long> pauseMs(0, 2 * meanPause.count());
        while (loaded) {
            const auto bytes = static_cast<std::size_t>(std::exp(logOfBytes(random)));
            std::string text = datagram(++lastId, bytes);
            if (percent(random) < 5) {
                text.resize(text.size() / 2);
                ++counts.broken;
            }
            sender.send(text);
            ++counts.sent;
            std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs(random)));
        }
    }

    void follow(const std::vector<SoakEvent>& events, double seconds, std::int64_t startNs) {
        std::size_t next = 0;
        bool active = false;
        while (secondsSince(startNs) < seconds) {
            const double now = secondsSince(startNs);
            if (next < events.size() &&
                now >= (active ? events[next].untilSecond : events[next].atSecond)) {
                active = !active;
                setFault(events[next].fault, active);
                std::fprintf(stderr, "%7.1f s  %s %s\n", now, active ? "begin" : "end  ",
                             events[next].fault.c_str());
                next += active ? 0 : 1;
            }
            if (now >= static_cast<double>(samples.size())) {
                samples.push_back({now, daemon.statusValue("VmRSS:")});
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    void setFault(const std::string& fault, bool active) {
        if (fault == "kill") {
            active ? broker.kill() : broker.start();
        } else if (fault == "echo") {
            broker.blockEcho(active);
        } else {
            cloud.command(active ? fault : "ok");
        }
    }

    void finish() {
        eventually([&] { return daemon.countOf("fd") == counts.descriptorsBefore; });
        counts.descriptorsAfter = daemon.countOf("fd");
        counts.threadsAfter = daemon.countOf("task");
        counts.lostInSocket = socketQueue(port).drops;
        counts.exitStatus = daemon.end(SIGTERM);
        const SoakBroker::Taken taken = broker.taken();
        counts.published = taken.messages;
        counts.sentAgain = taken.again;
        countEvidence(counts, folder + "/daemon.log", folder + "/" + SoakCloud::outputName,
                      subscriber.ids());
    }

    const std::string folder;
    const int port;
    SoakBroker broker;
    SoakCloud cloud;
    SoakSubscriber subscriber;
    Process daemon;
    Sender sender;
    std::mt19937 random;
    int lastId = 0;
    SoakCounts counts;
    std::vector<SoakSample> samples;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: soak FOLDER MINUTES SEED PLOT\n", stderr);
        return 2;
    }
    try {
        const auto seed = static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10));
        std::printf("seed %u, %s minutes\n", seed, argv[2]);
        Soak soak(argv[1], seed);
        return soak.run(std::stod(argv[2]) * 60, seed, argv[4]) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak: %s\n", error.what());
        return 1;
    }
}
