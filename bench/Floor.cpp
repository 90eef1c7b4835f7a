// floor: the cost of the bridge's work without a bridge. Each datagram is digested and POSTed as it
// came, and the answer published as it came: no JSON, no log, no queue. Reads no member of the
// datagram, so the path is the one that the benchmark sends.
#include "FloorParts.h"

#include <sys/socket.h>

#include <cstring>

int main(int argc, char** argv) {
    const FloorOptions options = readFloorOptions(argc, argv);
    const std::string path = "m1/gateways/SN0000001/packets";
    const std::string url = options.baseUrl + path;
    FloorBroker broker(options.brokerPort);
    FloorCloud cloud(options.reset);
    static char datagram[16385];
    const int upstream = openUpstream(options.upstreamPort);
    while (!stopRequested()) {
        const ssize_t count = recv(upstream, datagram, sizeof datagram - 1, 0);
        if (count < 1) {
            continue;
        }
        char timestamp[timestampLength + 1];
        char token[tokenLength + 1];
        writeTimestamp(timestamp);
        writeToken(token, timestamp, path);
        broker.publishReply(
            cloud.post(url, {datagram, static_cast<std::size_t>(count)}, timestamp, token));
    }
    return 0;
}
