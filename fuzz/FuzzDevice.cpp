// Fuzzes the device information file, from its bytes to the gateway secret. The function that reads
// the file is replaced and returns the input.
#include "VeyraServer/GatewaySecret.h"

#include <ZEP/System.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

static std::string input;

std::string ZEP::System::readFile(const std::string& /*path*/) {
    return input;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    input.assign(reinterpret_cast<const char*>(data), size);
    try {
        const Json::Value device = readDeviceInformation("/run");
        if (!device.isNull() && !device.isObject()) {
            std::abort();
        }
        buildGatewaySecret(device, Json::Value());
    } catch (const std::out_of_range&) {
        // no key and a short "uuid": startup ends
    }
    return 0;
}
