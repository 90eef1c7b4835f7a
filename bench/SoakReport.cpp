#include "SoakReport.h"

#include "Figures.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

// A long backlog once may leave the heap larger; a leak of 100 bytes a datagram passes this in
// ten minutes.
constexpr double growthLimitKiB = 512;

// Memory settles in the first quarter.
std::vector<SoakSample> settled(const std::vector<SoakSample>& samples) {
    return {samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 4), samples.end()};
}

// KiB per hour, by least squares.
double slope(const std::vector<SoakSample>& samples) {
    double n = 0;
    double t = 0;
    double m = 0;
    double tt = 0;
    double tm = 0;
    for (const SoakSample& sample : samples) {
        const auto kib = static_cast<double>(sample.residentKiB);
        n += 1;
        t += sample.second;
        m += kib;
        tt += sample.second * sample.second;
        tm += sample.second * kib;
    }
    const double spread = n * tt - t * t;
    return spread > 0 ? (n * tm - t * m) / spread * 3600 : 0;
}

double medianOf(const std::vector<SoakSample>& samples, std::size_t begin, std::size_t end) {
    Series values;
    for (std::size_t i = begin; i < end; ++i) {
        values.push_back(static_cast<double>(samples[i].residentKiB));
    }
    return median(values);
}

bool check(bool holds, const std::string& what) {
    std::printf("%-9s %s\n", holds ? "held" : "NOT HELD", what.c_str());
    return holds;
}

std::string number(std::size_t value) {
    return std::to_string(value);
}

void printCounts(const SoakCounts& c) {
    const std::pair<const char*, std::size_t> rows[] = {
        {"sent", c.sent},
        {"lost in the socket's queue (kernel)", static_cast<std::size_t>(c.lostInSocket)},
        {"rejected (log)", c.rejected},
        {"refused by the breaker (log)", c.refusedByBreaker},
        {"failed at the cloud (log)", c.failed},
        {"failed at the cloud (cloud)", c.cloudFailed},
        {"relayed (cloud)", c.relayed},
        {"published (broker)", c.published},
        {"received (subscriber)", c.received},
        {"lost with a broken link", c.lostWithLink},
        {"client rebuilt (log)", c.rebuilds},
    };
    std::puts("\n| datagrams | |\n|---|---|");
    for (const auto& [name, value] : rows) {
        std::printf("| %s | %zu |\n", name, value);
    }
}

void printMemory(const std::vector<SoakSample>& samples) {
    std::puts("\n| minute | resident, KiB (median) |\n|---|---|");
    for (std::size_t begin = 0; begin < samples.size(); begin += 60) {
        const std::size_t end = std::min(begin + 60, samples.size());
        std::printf("| %zu | %.0f |\n", begin / 60, medianOf(samples, begin, end));
    }
}

} // namespace

bool reportSoak(const SoakCounts& c, const std::vector<SoakSample>& samples) {
    printCounts(c);
    printMemory(samples);
    const std::size_t quarter = samples.size() / 4;
    const double growth =
        medianOf(samples, 3 * quarter, samples.size()) - medianOf(samples, quarter, 2 * quarter);
    const std::size_t sum = c.rejected + c.refusedByBreaker + c.failed + c.relayed +
                            static_cast<std::size_t>(c.lostInSocket);
    std::puts("");
    bool held = check(sum == c.sent,
                      "every datagram is accounted for: " + number(sum) + " of " + number(c.sent));
    held &= check(c.rejected <= c.broken, "only broken datagrams were rejected");
    held &= check(c.cloudFailed == c.failed, "the log's failed requests are the cloud's");
    held &= check(c.badSignatures == 0, "every signature was valid");
    held &= check(c.otherErrors == 0, "no other error is in the log");
    held &= check(c.outOfOrder == 0 && c.sentAgain == 0, "nothing came twice or out of order");
    held &= check(c.published == c.received, "the subscriber got what the broker took");
    held &= check(c.unaccounted == 0, "no reply was lost but with a broken link");
    held &= check(c.descriptorsBefore == c.descriptorsAfter,
                  "descriptors as at the start: " + number(c.descriptorsAfter));
    held &= check(c.threadsBefore == c.threadsAfter,
                  "threads as at the start: " + number(c.threadsAfter));
    held &= check(growth < growthLimitKiB, "memory is flat: median of the last quarter " +
                                               fixed(growth, 0) + " KiB above the second's, " +
                                               "slope " + fixed(slope(settled(samples)), 0) +
                                               " KiB an hour");
    held &= check(c.exitStatus == 0, "the daemon ended with exit status 0");
    return held;
}

void drawSoak(const std::string& file, const std::vector<SoakSample>& samples,
              const std::vector<SoakEvent>& events) {
    constexpr double width = 800;
    constexpr double height = 300;
    const double seconds = samples.empty() ? 1 : samples.back().second;
    long highest = 1;
    for (const SoakSample& sample : samples) {
        highest = std::max(highest, sample.residentKiB);
    }
    const double top = static_cast<double>(highest) * 1.2;
    const auto x = [&](double second) { return fixed(60 + width * second / seconds, 1); };
    const auto y = [&](double kib) { return fixed(20 + height * (1 - kib / top), 1); };
    std::ofstream out(file);
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 900 370\" "
           "font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"900\" height=\"370\" fill=\"white\"/>\n";
    for (const SoakEvent& event : events) {
        const bool broker = event.fault == "kill" || event.fault == "echo";
        out << "<rect x=\"" << x(event.atSecond) << "\" y=\"20\" width=\""
            << fixed(width * (event.untilSecond - event.atSecond) / seconds, 1)
            << "\" height=\"300\" fill=\"" << (broker ? "#f4b6b6" : "#c9d8f0") << "\"><title>"
            << event.fault << "</title></rect>\n";
    }
    out << "<polyline fill=\"none\" stroke=\"black\" points=\"";
    for (const SoakSample& sample : samples) {
        out << x(sample.second) << ',' << y(static_cast<double>(sample.residentKiB)) << ' ';
    }
    out << "\"/>\n";
    for (int i = 0; i <= 4; ++i) {
        const double kib = top * i / 4;
        out << "<text x=\"5\" y=\"" << y(kib) << "\">" << fixed(kib / 1024, 1) << " MiB</text>\n"
            << "<text x=\"" << x(seconds * i / 4) << "\" y=\"340\">"
            << fixed(seconds * i / 4 / 60, 1) << " min</text>\n";
    }
    out << "<text x=\"60\" y=\"362\">resident memory; red: the broker is down or keeps the echo; "
           "blue: the cloud fails, stalls or answers oddly</text>\n</svg>\n";
}
