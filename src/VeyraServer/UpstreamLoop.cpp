#include "VeyraServer/UpstreamLoop.h"

#include "VeyraServer/DatagramRelay.h"
#include "VeyraServer/EffectiveSettings.h"
#include "VeyraServer/ServiceNotification.h"
#include "common/Clock.h"
#include "common/Exception.h"
#include "common/Log.h"
#include "common/ProcessState.h"
#include "net/DatagramSocket.h"

#include <cstring>
#include <unistd.h>

namespace {

constexpr ssize_t maxDatagramBytes = 16384;
constexpr const char* sourceName = "src/VeyraServer";

sockaddr_in lastSender{};

// All zeros before every receive, with room for the terminator of a datagram of full length. Either
// the zeros or the terminator that each text gets would do; both are kept, so that no slip in one
// of them lets a datagram run into an earlier one. Made when the endpoint opens; a stop leaves it
// in place.
char* receiveBuffer = nullptr;

[[noreturn]] void throwSocketError(unsigned line) {
    throw Exception(exceptionCode, line, sourceName, upstreamSocket.lastErrorText,
                    upstreamSocket.lastErrorNumber);
}

void openEndpoint(std::uint16_t port) {
    receiveBuffer = new char[maxDatagramBytes + 1]();
    if (!bindSocket(upstreamSocket, port, false, "127.0.0.1")) {
        throwSocketError(381);
    }
}

void closeEndpoint() {
    delete[] receiveBuffer;
    receiveBuffer = nullptr;
    if (upstreamSocket.descriptor != -1) {
        close(upstreamSocket.descriptor);
        upstreamSocket.descriptor = -1;
    }
}

void receiveTurn(DatagramRelay& relay) {
    const ssize_t count =
        receiveDatagram(upstreamSocket, lastSender, receiveBuffer, maxDatagramBytes);
    if (count > maxDatagramBytes) {
        throwSocketError(393);
    }
    if (count < 1) {
        return;
    }
    receiveBuffer[count] = 0;
    VEYRA_LOG(TRACE, "Parse upstream message %d bytes", static_cast<int>(count));
    VEYRA_LOG(TRACE, "Parse upstream message [%s]", receiveBuffer);
    relay.handleDatagram(receiveBuffer);
    std::memset(receiveBuffer, 0, static_cast<std::size_t>(count));
}

// Returns when the stop flag is set; the socket stays open and the buffer in place.
void receiveUntilStopped(std::uint16_t port, DatagramRelay& relay) {
    openEndpoint(port);
    notifyReady();
    while (!shutdownRequested) {
        notifyAlive();
        receiveTurn(relay);
    }
}

} // namespace

int VeyraReceiveFunction() {
    DatagramRelay relay{{}, Json::FastWriter(), effectiveBreaker(configuration())};
    const std::uint16_t port = effectivePort(configuration());
    for (;;) {
        try {
            receiveUntilStopped(port, relay);
            return 0;
        } catch (const Exception& exception) {
            VEYRA_LOG(ERROR, "%s", exceptionRecord("Rx Msg exception :", exception).c_str());
        }
        closeEndpoint();
        sleepMillis(100);
    }
}
