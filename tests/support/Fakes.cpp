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

namespace {

mosqpp::mosquittopp* client = nullptr;

int note(const std::string& what) {
    fakeBroker.calls.push_back(std::to_string(fakeNowMs - fakeBroker.startMs) + " " + what);
    return MOSQ_ERR_SUCCESS;
}

} // namespace

void FakeBroker::deliverEchoes() {
    for (std::string& topic : echoesDue) {
        mosquitto_message message{};
        message.topic = topic.data();
        client->on_message(&message);
    }
    echoesDue.clear();
}

// The library's interface, of which little is needed here.
// NOLINTBEGIN(readability-convert-member-functions-to-static,
//   readability-inconsistent-declaration-parameter-name)
namespace mosqpp {

mosquittopp::mosquittopp(const char* id, bool cleanSession) {
    client = this;
    fakeBroker.subscription.clear();
    note(std::string("client ") + id + (cleanSession ? " clean" : ""));
}
mosquittopp::~mosquittopp() {
    note("destroyed");
}
int mosquittopp::socket() {
    return fakeBroker.socket;
}
int mosquittopp::username_pw_set(const char* user, const char* password) {
    return note(std::string("login ") + user + " " + password);
}
int mosquittopp::connect(const char* host, int port, int keepalive) {
    return note(std::string("connect ") + host + ":" + std::to_string(port) + " " +
                std::to_string(keepalive));
}
int mosquittopp::disconnect() {
    return note("disconnect");
}
int mosquittopp::loop_start() {
    if (!fakeBroker.subscription.empty()) {
        return MOSQ_ERR_INVAL; // asked by the callback below: it runs already
    }
    on_connect(fakeBroker.accepts ? 0 : 5);
    return MOSQ_ERR_SUCCESS;
}
int mosquittopp::loop_stop(bool force) {
    return note(force ? "loop_stop by force" : "loop_stop");
}
int mosquittopp::subscribe(int* /*mid*/, const char* topic, int qos) {
    fakeBroker.subscription = topic;
    return note(std::string("subscribe ") + topic + " " + std::to_string(qos));
}
int mosquittopp::publish(int* /*mid*/, const char* topic, int length, const void* payload, int qos,
                         bool retain) {
    if (fakeBroker.accepts && fakeBroker.echoes && fakeBroker.subscription == topic) {
        fakeBroker.echoesDue.emplace_back(topic);
    }
    return note("publish " + std::string(topic) + " [" +
                std::string(static_cast<const char*>(payload), static_cast<std::size_t>(length)) +
                "] " + std::to_string(qos) + (retain ? " retained" : ""));
}

} // namespace mosqpp
// NOLINTEND(readability-convert-member-functions-to-static,
//   readability-inconsistent-declaration-parameter-name)
