#include "support/Fakes.h"

#include "common/Clock.h"

#include <mosquittopp.h>

std::uint64_t fakeNowMs = 0;
std::function<void()> afterSleep = [] {};
FakeBroker fakeBroker;

std::uint64_t monotonicMillis() {
    return fakeNowMs;
}

void sleepMillis(unsigned ms) {
    fakeNowMs += ms;
    afterSleep();
}

bool operator==(const Publication& left, const Publication& right) {
    return left.atMs == right.atMs && left.topic == right.topic && left.payload == right.payload &&
           left.qos == right.qos && left.retained == right.retained;
}

static mosqpp::mosquittopp* currentClient = nullptr;

void FakeBroker::deliverEchoes() {
    for (std::string& topic : undeliveredEchoes) {
        mosquitto_message message{};
        message.topic = topic.data();
        currentClient->on_message(&message);
    }
    undeliveredEchoes.clear();
}

// The functions of the library that the program calls.
// NOLINTBEGIN(readability-convert-member-functions-to-static,
//   readability-inconsistent-declaration-parameter-name)
namespace mosqpp {

mosquittopp::mosquittopp(const char* /*id*/, bool /*cleanSession*/) {
    currentClient = this;
    fakeBroker.clients.emplace_back();
    fakeBroker.client().createdMs = fakeBroker.elapsedMs();
}

mosquittopp::~mosquittopp() {
    fakeBroker.client().destroyedMs = fakeBroker.elapsedMs();
}

int mosquittopp::socket() {
    return fakeBroker.socket;
}

int mosquittopp::username_pw_set(const char* /*user*/, const char* /*password*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::connect(const char* /*host*/, int /*port*/, int /*keepalive*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::disconnect() {
    ++fakeBroker.client().disconnects;
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::loop_start() {
    if (!fakeBroker.client().subscriptions.empty()) {
        return MOSQ_ERR_INVAL; // the second call, from on_connect
    }
    on_connect(fakeBroker.accepts ? 0 : 5);
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::loop_stop(bool force) {
    fakeBroker.client().threadCancelled = force;
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::subscribe(int* /*mid*/, const char* topic, int qos) {
    fakeBroker.client().subscriptions.emplace_back(topic);
    fakeBroker.client().subscriptionQos = qos;
    return MOSQ_ERR_SUCCESS;
}

int mosquittopp::publish(int* /*mid*/, const char* topic, int length, const void* payload, int qos,
                         bool retain) {
    const bool subscribed = fakeBroker.client().subscriptions == std::vector<std::string>{topic};
    if (fakeBroker.accepts && fakeBroker.echoes && subscribed) {
        fakeBroker.undeliveredEchoes.emplace_back(topic);
    }
    const std::string text(static_cast<const char*>(payload), static_cast<std::size_t>(length));
    fakeBroker.publications.push_back({fakeBroker.elapsedMs(), topic, text});
    fakeBroker.publications.back().qos = qos;
    fakeBroker.publications.back().retained = retain;
    return MOSQ_ERR_SUCCESS;
}

} // namespace mosqpp
// NOLINTEND(readability-convert-member-functions-to-static,
//   readability-inconsistent-declaration-parameter-name)
