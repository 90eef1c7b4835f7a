#include "VeyraServer/Startup.h"

#include "VeyraServer/ErrorPlace.h"
#include "VeyraServer/GatewaySecret.h"
#include "VeyraServer/ServiceNotification.h"
#include "cloud/CloudRequest.h"
#include "common/Log.h"
#include "common/ProcessState.h"
#include "mqtt/BrokerWorker.h"
#include "net/DatagramSocket.h"

#include <csignal>
#include <cstdio>
#include <mosquittopp.h>
#include <openssl/crypto.h>
#include <unistd.h>

namespace {

void handleStopSignal(int signalNumber) {
    VEYRA_LOG(INFO, "Shutdown signal received %d", signalNumber);
    shutdownRequested = 1;
}

} // namespace

void installStopHandler() {
    std::signal(SIGINT, handleStopSignal);
    std::signal(SIGTERM, handleStopSignal);
    // A write to a peer that has closed its connection must fail instead of ending the program.
    std::signal(SIGPIPE, SIG_IGN);
}

void keepLibrariesUntilExit() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    // The library counts its users. Each existing client counts as one user. This call adds a
    // permanent user.
    mosqpp::lib_init();
}

void loadGatewaySecret(const CommandLine& commandLine) {
    // Inserts a null "network" when it is missing, so that the logged configuration shows it.
    const Json::Value& network = configurationForStartup()["network"];
    gatewaySecret = buildGatewaySecret(readDeviceInformation(commandLine.runDirectory), network);
}

void testUpstreamPort() {
    VEYRA_LOG(TRACE, "Testing Upstream Veyra Port");
    const Json::Value& port = configuration()["udp"]["veyraPort"];
    if (!port.isInt()) {
        return;
    }
    if (!bindSocket(upstreamSocket, static_cast<std::uint16_t>(port.asInt()), false, "127.0.0.1")) {
        throw Exception(exceptionCode, portTestErrorLine, errorFile,
                        "Cannot open Upstream UDP socket. " + upstreamSocket.lastErrorText,
                        upstreamSocket.lastErrorNumber);
    }
    close(upstreamSocket.descriptor);
    upstreamSocket.descriptor = -1;
}

void startBrokerWorker() {
    VEYRA_LOG(TRACE, "Start Mqtt thread");
    if (const int result = startThread(brokerWorker); result != 0) {
        throw Exception(exceptionCode, workerStartErrorLine, errorFile,
                        "Unable to create mqtt thread", result);
    }
}

void reportStartupError(const Exception& exception) {
    std::string text = "File " + exception.file + " Line " + std::to_string(exception.line) + ": " +
                       exception.message;
    if (exception.errorNumber != noErrorNumber) {
        text += "   Error #" + std::to_string(exception.errorNumber);
    }
    std::fputs(text.c_str(), stderr);
    VEYRA_LOG(ERROR, "%s", text.c_str());
}

void reportStartupError(const InputError& error) {
    std::fprintf(stderr, "%s\n", error.message.c_str());
}

int refuseLicence() {
    std::fputs("lora-veyra-server is not licensed for this hardware.\n", stderr);
    return 1;
}

int closeProgram() {
    notifyStopping();
    VEYRA_LOG(DEBUG, "Program closing");
    curl_easy_cleanup(cloudCurlHandle);
    cloudCurlHandle = nullptr;
    return 0;
}
