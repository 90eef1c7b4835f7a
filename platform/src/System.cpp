#include "ZEP/System.h"

#include <fstream>
#include <iterator>

namespace ZEP::System {

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace ZEP::System
