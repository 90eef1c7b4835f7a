#include "Crypto/Sha256.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

std::string digestOf(const std::string& text) {
    return sha256Hex(text.data(), text.data() + text.size());
}

} // namespace

TEST(Signature, FormatsTimestampsWithFixedWidths) {
    EXPECT_EQ(formatTimestamp({2026, 1, 2, 3, 4, 5, 7, true}), "2026-01-02T03:04:05.000007Z");
    EXPECT_EQ(formatTimestamp({7, 12, 31, 23, 59, 60, 999999, true}), "07-12-31T23:59:60.999999Z");
}

TEST(Signature, CapturesUtcWhateverTheTimeZone) {
    setenv("TZ", "Pacific/Auckland", 1);
    const time_t before = time(nullptr);
    CloudTimestamp timestamp{};
    captureUtcTimestamp(timestamp);
    tm fields{};
    strptime(formatTimestamp(timestamp).c_str(), "%Y-%m-%dT%H:%M:%S", &fields);
    EXPECT_GE(timegm(&fields), before);
    EXPECT_LE(timegm(&fields), time(nullptr));
    EXPECT_TRUE(timestamp.valid);
}

TEST(Signature, TokenIsTheDigestOfItsPartsWithoutSeparators) {
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // The worked example of docs/protocol.md.
    EXPECT_EQ(makeRequestToken("00112233-4455-6677-8899-aabbccddeeffGW-0042",
                               "2026-11-21T03:54:52.746749Z", "m1/gateways/SN0042/check_in"),
              "e9f90bac2c36544afeacbee035e759b86850c01d7799383799474917880dac91");
}
