// The signature and the request without a network. A request that the libraries cannot prepare
// completely must never be sent.
#include "Crypto/Sha256.h"
#include "cloud/CloudRequest.h"
#include "cloud/CloudTimestamp.h"
#include "cloud/RequestToken.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <dlfcn.h>
#include <vector>

namespace {

struct Libraries {
    bool digestsFail = false;
    int headersUntilFailure = 0; // 0: none fails
    CURLoption refusedOption = CURLOPT_LASTENTRY;
    int requestsSent = 0;
};
Libraries libraries;

} // namespace

// These functions replace those of the libraries.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int EVP_Digest(const void* data, std::size_t count, unsigned char* digest,
                          unsigned* size, const EVP_MD* type, ENGINE* engine) {
    const auto real = reinterpret_cast<decltype(&EVP_Digest)>(dlsym(RTLD_NEXT, "EVP_Digest"));
    return libraries.digestsFail ? 0 : real(data, count, digest, size, type, engine);
}

extern "C" curl_slist* curl_slist_append(curl_slist* list, const char* text) {
    // After an exception the program leaks its headers on purpose. Here they stay reachable.
    static auto& lists = *new std::vector<curl_slist*>;
    const auto real =
        reinterpret_cast<decltype(&curl_slist_append)>(dlsym(RTLD_NEXT, "curl_slist_append"));
    if (libraries.headersUntilFailure > 0 && --libraries.headersUntilFailure == 0) {
        return nullptr;
    }
    lists.push_back(real(list, text));
    return lists.back();
}

#undef curl_easy_setopt
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    const auto real =
        reinterpret_cast<decltype(&curl_easy_setopt)>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
    va_list values;
    va_start(values, option);
    void* const value = va_arg(values, void*); // a pointer or a long, which have the same size
    va_end(values);
    return option == libraries.refusedOption ? CURLE_NOT_BUILT_IN : real(handle, option, value);
}

extern "C" CURLcode curl_easy_perform(CURL* /*handle*/) {
    ++libraries.requestsSent;
    return CURLE_COULDNT_CONNECT;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

struct Request : testing::Test {
    Request() { libraries = {}; }
    ~Request() override { curl_easy_cleanup(handle); }

    // Sends a request with all six headers. The transfer always fails.
    static void send(CURL* handle) {
        Json::Value body;
        body["token"] = "t";
        body["timestamp"] = "now";
        Json::Value response;
        EXPECT_FALSE(sendCloudRequest(handle, "https://localhost/", body, response, true, "PUT"));
    }

    void expectNotSent() const {
        send(handle);
        EXPECT_EQ(libraries.requestsSent, 0);
        curlMutex.unlock(); // after an exception it stays locked on purpose
    }

    CURL* const handle = curl_easy_init();
};

} // namespace

TEST(Timestamp, HasFixedWidths) {
    EXPECT_EQ(formatTimestamp({}), "00-00-00T00:00:00.000000Z");
}

TEST(Token, IsTheDigestOfItsPartsWithoutSeparators) {
    // The worked example of docs/protocol.md.
    EXPECT_EQ(makeRequestToken("00112233-4455-6677-8899-aabbccddeeffGW-0042",
                               "2026-11-21T03:54:52.746749Z", "m1/gateways/SN0042/check_in"),
              "e9f90bac2c36544afeacbee035e759b86850c01d7799383799474917880dac91");
}

TEST(Token, IsNotMadeWithoutADigest) {
    libraries.digestsFail = true;
    EXPECT_THROW(makeRequestToken("a", "b", "c"), std::runtime_error);
    libraries = {};
}

TEST_F(Request, IsNotSentWithoutAHandle) {
    send(nullptr);
    EXPECT_TRUE(curlMutex.try_lock());
    curlMutex.unlock();
}

TEST_F(Request, IsNotSentIfAnyHeaderIsMissing) {
    for (int header = 1; header <= 6; ++header) {
        SCOPED_TRACE(header);
        libraries.headersUntilFailure = header;
        expectNotSent();
    }
}

TEST_F(Request, IsNotSentWhenATrustOptionIsRefused) {
    for (const CURLoption option :
         {CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_CAINFO}) {
        SCOPED_TRACE(option);
        libraries.refusedOption = option;
        expectNotSent();
    }
}

TEST_F(Request, IsSentIfTheLibraryHasNoOptionForCaDirectories) {
    libraries.refusedOption = CURLOPT_CAPATH;
    send(handle);
    EXPECT_EQ(libraries.requestsSent, 1);
}
