// Signature and request without a network: what the libraries cannot make never goes out.
#include "Crypto/Sha256.h"
#include "cloud/CloudRequest.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace {

bool digestsFail = false;
int headersUntilFailure = 0; // none when 0
int requestsMade = 0;

} // namespace

// These take the place of the libraries' own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int EVP_Digest(const void* data, std::size_t count, unsigned char* digest,
                          unsigned* size, const EVP_MD* type, ENGINE* engine) {
    const auto real = reinterpret_cast<decltype(&EVP_Digest)>(dlsym(RTLD_NEXT, "EVP_Digest"));
    return digestsFail ? 0 : real(data, count, digest, size, type, engine);
}

extern "C" curl_slist* curl_slist_append(curl_slist* list, const char* text) {
    const auto real =
        reinterpret_cast<decltype(&curl_slist_append)>(dlsym(RTLD_NEXT, "curl_slist_append"));
    if (headersUntilFailure > 0 && --headersUntilFailure == 0) {
        curl_slist_free_all(list); // the program leaves it behind on purpose
        return nullptr;
    }
    return real(list, text);
}

extern "C" CURLcode curl_easy_perform(CURL* /*handle*/) {
    ++requestsMade;
    return CURLE_COULDNT_CONNECT;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

TEST(Signature, FormatsTimestampsWithFixedWidths) {
    EXPECT_EQ(formatTimestamp({2026, 1, 2, 3, 4, 5, 7, true}), "2026-01-02T03:04:05.000007Z");
}

TEST(Signature, TokenIsTheDigestOfItsPartsWithoutSeparators) {
    // The worked example of docs/protocol.md.
    EXPECT_EQ(makeRequestToken("00112233-4455-6677-8899-aabbccddeeffGW-0042",
                               "2026-11-21T03:54:52.746749Z", "m1/gateways/SN0042/check_in"),
              "e9f90bac2c36544afeacbee035e759b86850c01d7799383799474917880dac91");
    digestsFail = true;
    EXPECT_THROW(makeRequestToken("a", "b", "c"), std::runtime_error);
    digestsFail = false;
}

TEST(CloudRequest, IsNotMadeWithoutAHandleOrAHeader) {
    Json::Value none;
    EXPECT_FALSE(sendCloudRequest(nullptr, "https://localhost/", none, none, true, "PUT"));
    CURL* const handle = curl_easy_init();
    requestsMade = 0;
    for (int header = 1; header <= 7; ++header) {
        Json::Value body;
        body["token"] = "t";
        body["timestamp"] = "now";
        Json::Value response;
        headersUntilFailure = header;
        EXPECT_FALSE(sendCloudRequest(handle, "https://localhost/", body, response, true, "PUT"));
        EXPECT_EQ(requestsMade, header <= 6 ? 0 : 1) << header;
        EXPECT_EQ(curlMutex.try_lock(), header == 7) << "it stays locked";
        curlMutex.unlock();
    }
    curl_easy_cleanup(handle);
}
