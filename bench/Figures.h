// Statistics of measured series. Pure functions.
#pragma once

#include <string>
#include <vector>

using Series = std::vector<double>;

double percentile(Series values, double share); // share: 0 to 1
double median(const Series& values);

// a[i] / b[i]: what was measured in the same slice is compared with each other.
Series ratios(const Series& a, const Series& b);

// "median (10% to 90%)", with `digits` after the point.
std::string withSpread(const Series& values, int digits);

std::string fixed(double value, int digits);
