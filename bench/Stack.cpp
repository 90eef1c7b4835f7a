// How much of its stack the broker worker uses: it publishes, rebuilds its client (which looks a
// name up) and logs everything, with the library preloaded that paints its stack beforehand.
//
//   stack FOLDER
#include "Load.h"
#include "Ports.h"
#include "SoakPeers.h"
#include "Subject.h"

#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

void await(bool came, const char* what) {
    if (!came) {
        throw std::runtime_error(std::string("this did not come: ") + what);
    }
}

// The name makes the worker ask the resolver. Names of the hosts file take half as much stack as those
// that a name server is asked for, which would leave the machine.
void nameBroker(const std::string& file) {
    std::string text = fileText(file);
    const std::string address = "\"127.0.0.1\"";
    text.replace(text.find(address), address.size(), "\"localhost\"");
    std::ofstream(file) << text;
}

void run(const std::string& folder) {
    const int port = freePort(SOCK_DGRAM);
    SoakBroker broker(folder);
    SoakCloud cloud(folder);
    const SoakSubscriber subscriber(broker.port);
    const std::string command = daemonCommand(folder, port, cloud.port(), broker.port, 50);
    nameBroker(folder + "/daemon.conf");
    Process daemon("env LD_PRELOAD=" STACK_PAINT " " + command, folder + "/daemon.out");
    const std::string log = folder + "/daemon.log";
    await(eventually([&] { return occurrences(fileText(log), "MQTT - subscribed") == 1; }),
          "the first subscription");
    broker.kill();
    await(eventually([&] { return occurrences(fileText(log), "MQTT disconnected") == 1; }),
          "the broken link");
    broker.start();
    await(eventually([&] { return occurrences(fileText(log), "MQTT - subscribed") == 2; },
                     Deadline(20000)),
          "the second subscription");
    const Sender sender(port);
    sender.send(R"({"path":"m1/x/1","request":{"brantle_serial":"SN1"}})");
    await(eventually([&] { return subscriber.has(1); }, Deadline(20000)), "the reply");
    // The worker ends while the main thread still waits for the cloud.
    cloud.command("stall 2000");
    sender.send(R"({"path":"m1/x/2","request":{"brantle_serial":"SN1"}})");
    await(eventually([&] { return occurrences(fileText(log), "Curl Request") == 2; }),
          "the second request");
    await(daemon.end(SIGTERM) == 0, "the end with exit status 0");
    const std::string measured = daemon.errors();
    await(measured.find("stack: ") != std::string::npos, "the measurement");
    std::printf("the broker worker's %s", measured.substr(measured.find("stack: ")).c_str());
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc == 2 ? argv[1] : throw std::runtime_error("usage: stack FOLDER"));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "stack: %s\n", error.what());
        return 1;
    }
    return 0;
}
