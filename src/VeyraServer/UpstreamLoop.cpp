#include "VeyraServer/UpstreamLoop.h"

#include "VeyraServer/DatagramRelay.h"
#include "VeyraServer/EffectiveSettings.h"
#include "VeyraServer/ErrorPlace.h"
#include "VeyraServer/ServiceNotification.h"
#include "common/Clock.h"
#include "common/Exception.h"
#include "common/Log.h"
#include "common/ProcessState.h"
#include "net/DatagramSocket.h"

#include <algorithm>
#include <unistd.h>
#include <vector>

namespace {

constexpr ssize_t maxDatagramBytes = 16384;

sockaddr_in lastSender{};

[[noreturn]] void throwSocketError(unsigned line) {
    throw Exception(exceptionCode, line, errorFile, upstreamSocket.lastErrorText,
                    upstreamSocket.lastErrorNumber);
}

void openEndpoint(std::uint16_t port) {
    if (!bindSocket(upstreamSocket, port, false, "127.0.0.1")) {
        throwSocketError(bindErrorLine);
    }
}

void closeEndpoint() {
    if (upstreamSocket.descriptor != -1) {
        close(upstreamSocket.descriptor);
        upstreamSocket.descriptor = -1;
    }
}

// `buffer` is all zeros before and after, and larger than any datagram: the zero after the received
// bytes terminates the text.
void receiveTurn(DatagramRelay& relay, std::vector<char>& buffer) {
    const ssize_t count =
        receiveDatagram(upstreamSocket, lastSender, buffer.data(), maxDatagramBytes);
    if (count > maxDatagramBytes) {
        throwSocketError(receiveErrorLine);
    }
    if (count < 1) {
        return;
    }
    const char* text = buffer.data();
    VEYRA_LOG(TRACE, "Parse upstream message %d bytes", static_cast<int>(count));
    VEYRA_LOG(TRACE, "Parse upstream message [%s]", text);
    relay.handleDatagram(text);
    std::fill_n(buffer.begin(), count, '\0');
}

// Returns when the stop flag is set and leaves the socket open.
void receiveUntilStopped(std::uint16_t port, DatagramRelay& relay) {
    std::vector<char> buffer(maxDatagramBytes + 1);
    openEndpoint(port);
    notifyReady();
    while (!shutdownRequested) {
        notifyAlive();
        receiveTurn(relay, buffer);
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
