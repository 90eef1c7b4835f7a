// lora-veyra-server relays the network server's datagrams to the Veyra cloud, and the responses of
// the cloud to the gateway's MQTT broker.
#include "VeyraServer/Configuration.h"
#include "VeyraServer/ServiceNotification.h"
#include "VeyraServer/Startup.h"
#include "VeyraServer/UpstreamLoop.h"
#include "cloud/CloudRequest.h"
#include "common/Log.h"
#include "common/Memory.h"
#include "common/ProcessState.h"
#include "mqtt/BrokerSettings.h"
#include "mqtt/Mosquitto.h"

#include <ZEP/Licence.h>

#include <cstdlib>
#include <ctime>

// A fixed list of steps, some of which end the program.
// NOLINTNEXTLINE(readability-function-cognitive-complexity)
int main(int argc, char* argv[]) {
    roleVeyra = true;
    roleNet = false;
    if (!ZEP::Licence::check()) {
        return refuseLicence();
    }
    keepLibrariesUntilExit();
    fixAllocatorThreshold();
    connectToServiceManager();
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    const CommandLine commandLine = parseCommandLine(argc, argv);
    if (commandLine.banner != Banner::NONE) {
        printBanner(commandLine.banner);
        return 0;
    }
    if (!readConfiguration(commandLine)) {
        return 1;
    }
    try {
        installStopHandler();
        setUpLogger(commandLine);
        completeUpstreamPort();
        loadGatewaySecret(commandLine);
        logConfiguration();
        testUpstreamPort();
        cloudCurlHandle = curl_easy_init();
        VEYRA_LOG(TRACE, "Connect to MQTT");
        if (!brokerIsEnabled(configuration()["mqtt"])) {
            VEYRA_LOG(ERROR, "MQTT must be enabled.");
            return 0;
        }
        mqttClient = createMqttClient();
        startBrokerWorker();
        VEYRA_LOG(TRACE, "Start VeyraReceiveFunction thread");
        VeyraReceiveFunction();
    } catch (const Exception& exception) {
        reportStartupError(exception);
    } catch (const InputError& error) {
        reportStartupError(error);
    }
    return closeProgram();
}
