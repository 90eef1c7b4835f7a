#include "checks/Misspelling.h"

#include <ZEP/Text.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

std::size_t editDistance(const std::string& left, const std::string& right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char letter : left) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t changed = diagonal + static_cast<std::size_t>(letter != right[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// Lower case, without "_" and "-".
std::string plainName(const std::string& name) {
    std::string plain = ZEP::Text::toLowerCase(name);
    plain.erase(std::remove_if(plain.begin(), plain.end(),
                               [](char letter) { return letter == '_' || letter == '-'; }),
                plain.end());
    return plain;
}

} // namespace

bool isMisspelt(const std::string& given, const std::string& known) {
    constexpr std::size_t shortestName = 6;
    constexpr std::size_t mostSlips = 2;
    const std::string left = plainName(given);
    const std::string right = plainName(known);
    if (left == right) {
        return true;
    }
    const bool hasSameLetters =
        left.size() == right.size() && std::is_permutation(left.begin(), left.end(), right.begin());
    if (hasSameLetters) {
        return true;
    }
    const std::size_t common = std::min(left.size(), right.size());
    const bool isExtension = left.compare(0, common, right, 0, common) == 0;
    return !isExtension && common >= shortestName && editDistance(left, right) <= mostSlips;
}
