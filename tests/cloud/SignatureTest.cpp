#include "Crypto/Sha256.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"

#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <string_view>

namespace {

std::string digestOf(std::string_view text) {
    return sha256Hex(text.data(), text.data() + text.size());
}

} // namespace

TEST(Signature, FormatsTimestampsWithFixedWidths) {
    EXPECT_EQ(formatTimestamp({2026, 1, 2, 3, 4, 5, 7, true}), "2026-01-02T03:04:05.000007Z");
    EXPECT_EQ(formatTimestamp({2016, 12, 31, 23, 59, 60, 999999, true}),
              "2016-12-31T23:59:60.999999Z");
    EXPECT_EQ(formatTimestamp({7, 1, 1, 0, 0, 0, 0, true}), "07-01-01T00:00:00.000000Z");
}

TEST(Signature, CapturesUtcWhateverTheTimeZone) {
    setenv("TZ", "Pacific/Auckland", 1);
    tzset();
    CloudTimestamp timestamp{};
    const time_t before = time(nullptr);
    captureUtcTimestamp(timestamp);
    EXPECT_TRUE(timestamp.valid);
    EXPECT_LT(timestamp.microsecond, 1000000);
    tm fields{};
    fields.tm_year = timestamp.year - 1900;
    fields.tm_mon = timestamp.month - 1;
    fields.tm_mday = timestamp.day;
    fields.tm_hour = timestamp.hour;
    fields.tm_min = timestamp.minute;
    fields.tm_sec = timestamp.second;
    const time_t captured = timegm(&fields);
    EXPECT_GE(captured, before);
    EXPECT_LE(captured, time(nullptr));
}

TEST(Signature, DigestMatchesThePublishedVectors) {
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Signature, TokenJoinsItsPartsWithoutSeparators) {
    EXPECT_EQ(makeRequestToken("secret", "time", "m1/x"), digestOf("secrettime/api/m1/x"));
}
