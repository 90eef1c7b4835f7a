// Access to files of the gateway. Usable from any thread.
#pragma once

#include <string>

namespace ZEP::System {

// Returns the content of the file, or an empty string when the file is missing or cannot be read.
std::string readFile(const std::string& path);

} // namespace ZEP::System
