// The doctor's findings about values in the configuration. The daemon's own functions decide which
// value takes effect.
#include "checks/Settings.h"

#include <gtest/gtest.h>

namespace {

Json::Value minimal() {
    Json::Value root;
    root["network"]["veyraServer"] = "https://cloud/api/";
    root["mqtt"]["enabled"] = true;
    return root;
}

Json::Value with(const char* name, const char* json) {
    Json::Value root = minimal();
    Json::Reader().parse(json, Json::Path(name).make(root));
    return root;
}

struct Setting {
    const char* name;
    const char* json;
};

Findings judged(const Json::Value& root) {
    std::vector<std::string> ignored;
    return judgeSettings(root, ignored);
}

} // namespace

TEST(Settings, NamesEachValueThatIsReplacedOrUseless) {
    const struct {
        const char* name;
        const char* json;
        const char* id;
        const char* cause;
    } cases[] = {
        {"log.level", "null", "settings.useless", "0: the daemon logs nothing"},
        {"udp.veyraPort", "67326", "settings.no-effect", "value 1790."},
        {"udp.veyraPort", "\"1791\"", "settings.no-effect", "value 1790."},
        {"udp.veyraPort", "0", "settings.useless", "any free port"},
        {"veyra.breakerThreshold", "25", "settings.no-effect", "value 1."},
        {"veyra.breakerThreshold", "\"25\"", "settings.no-effect", "value 10."},
        {"veyra.breakerTime", "0.5", "settings.no-effect", "value 5000."},
        {"veyra.breakerTimeMax", "false", "settings.no-effect", "value 320000."},
        {"mqtt.enabled", "null", "settings.useless", "false: the daemon ends at once"},
        {"mqtt.host", "\"10.0.0.1\"", "settings.no-effect", "value \"127.0.0.1\"."},
        {"mqtt.port", "1884", "settings.no-effect", "value 1883."},
        {"mqtt.username", "\"lora\"", "settings.no-effect", "has no effect"},
        {"network.veyraServer", "\"\"", "settings.useless", "address of the cloud"},
        {"network.veyraServer", "\"http://cloud/api/\"", "settings.not-encrypted", "verified"},
        {"network.veyraServer", "\"https://cloud/api\"", "settings.no-slash", "end in \"/\""},
        {"mqtt.pesswurd", "\"x\"", "settings.misspelt", "mqtt.password is missing"},
        {"mqtt.hots", "\"x\"", "settings.misspelt", "mqtt.host is missing"},
        {"network.veyraServer", "\"HTTPS://cloud/api/\"", "settings.capital-letters", "CA file"},
        {"network.gatewaykey", "\"12\"", "settings.misspelt", "network.gatewayKey is missing"},
        {"mqtt.User-_name", "\"lora\"", "settings.misspelt", "mqtt.username is missing"},
        {"mqtt.usernaem", "\"x\"", "settings.misspelt", "mqtt.username is missing"},
        {"network.veyraServer", "\"https://cloud/\\tapi/\"", "settings.space", "space"},
        {"mqtt.host", "\"10.0.0.1 \"", "settings.space", "space"},
        {"network.veyraServer", "\"https://cloud/?a=/\"", "settings.query", "path"},
        {"mqtt.pasword", "\"x\"", "settings.misspelt", "mqtt.password is missing"},
        {"log.sislog", "true", "settings.misspelt", "log.syslog is missing"},
        {"mqtt.password", "4711", "settings.no-effect", "has no effect"},
        {"UDP.veyraPort", "1790", "settings.misspelt", "udp is missing"},
        {"mqtt.username", "\"\xFF\"", "settings.not-utf8", "not valid UTF-8"},
    };
    for (const auto& wanted : cases) {
        SCOPED_TRACE(std::string(wanted.name) + " " + wanted.json);
        const Findings found = judged(with(wanted.name, wanted.json));
        ASSERT_FALSE(found.empty());
        EXPECT_EQ(found.front().id, wanted.id);
        EXPECT_NE(found.front().cause.find(wanted.cause), std::string::npos) << found.front().cause;
        EXPECT_NE(found.front().fix.find("restart"), std::string::npos);
        EXPECT_EQ(found.front().subject.find("4711"), std::string::npos) << "a secret";
    }
}

TEST(Settings, AcceptsEffectiveValuesAndKeysOfOtherPrograms) {
    const Setting cases[] = {
        {"udp.veyraPort", "65535"},
        {"network.veyraServer", "\"https:/cloud/api/\""},
        {"log.syslog", "1"},
        {"veyra.breakerTime", "null"},
        {"mqtt_bridge.host", "1"},
        {"udp2.veyraPort", "1"},
        {"hosts", "[]"},
        {"mqtt.hosts", "[]"},
        {"logs.level", "1"},
        {"networks", "1"},
        {"mqtt.part", "1"},
        {"mqtt.host", "\"localhost\""},
        {"udp.veyraPort", "1790.0"},
        {"udp.port", "1"},
        {"mqtt.clientId", "\"x\""},
        {"gatewayKey", "\"x\""},
        {"mqtt.usernames", "1"},
        {"MQTT.host", "1"},
        {"mqtt.enabled", "1"},
    };
    for (const auto& accepted : cases) {
        EXPECT_TRUE(judged(with(accepted.name, accepted.json)).empty()) << accepted.name;
    }
    Json::Value misspelt = with("network.veyraserver", "\"https://cloud/api/\"");
    misspelt["network"].removeMember("veyraServer");
    misspelt["MQTT"] = misspelt["mqtt"];
    misspelt.removeMember("mqtt");
    EXPECT_EQ(judged(misspelt).size(), 2U) << "what is missing is not another problem";
    EXPECT_EQ(judged(with("network.veyraServer", "\"http://cloud/api\"")).size(), 2U);
    Json::Value noPort = with("mqtt.port", "0");
    noPort["mqtt"]["host"] = "broker";
    EXPECT_EQ(judged(noPort).front().id, "settings.useless");
    Json::Value both = with("network.gatewaykey", "1");
    both["network"]["gatewayKey"] = "00112233";
    EXPECT_TRUE(judged(both).empty());
    std::vector<std::string> ignored;
    judgeSettings(with("mqtt.hosts", "[]"), ignored);
    EXPECT_EQ(ignored, std::vector<std::string>{"mqtt.hosts"});
}

TEST(Settings, NamesTypesWithWhichTheDaemonCannotStart) {
    const Setting cases[] = {
        {"log.level", "\"40\""},       {"veyra", "[1]"},
        {"mqtt.enabled", "\"true\""},  {"mqtt.port", "\"1883\""},
        {"network.veyraServer", "{}"}, {"mqtt.password", "[]"},
    };
    for (const auto& wrong : cases) {
        const Findings found = judgeTypes(with(wrong.name, wrong.json));
        ASSERT_FALSE(found.empty()) << wrong.name;
        EXPECT_EQ(found.front().id, "configuration.wrong-type");
    }
    EXPECT_TRUE(judgeTypes(minimal()).empty());
}
