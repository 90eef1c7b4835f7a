#include "ZEP/System.h"

#include <fstream>
#include <sstream>

namespace ZEP::System {

std::string readFile(const std::string& path) {
    // A directory can be opened, but not read. rdbuf() then yields an empty text; iterators would
    // throw.
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace ZEP::System
