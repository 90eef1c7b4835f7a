#include "Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

double percentile(Series values, double share) {
    if (values.empty()) {
        return NAN;
    }
    std::sort(values.begin(), values.end());
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

double median(const Series& values) {
    return percentile(values, 0.5);
}

Series ratios(const Series& a, const Series& b) {
    Series result;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        result.push_back(a[i] / b[i]);
    }
    return result;
}

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string withSpread(const Series& values, int digits) {
    return fixed(median(values), digits) + " (" + fixed(percentile(values, 0.1), digits) + " to " +
           fixed(percentile(values, 0.9), digits) + ")";
}
