// Access to files of the gateway. Usable from any thread.
#pragma once

#include <string>

namespace ZEP::System {

// The whole file as it stands, bytes unchanged; empty when the file is missing or cannot be read.
std::string readFile(const std::string& path);

} // namespace ZEP::System
