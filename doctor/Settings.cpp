#include "Settings.h"

#include "VeyraServer/EffectiveSettings.h"
#include "cloud/CloudRequest.h"
#include "mqtt/BrokerSettings.h"

#include <ZEP/Text.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>

namespace {

using Json::Value;
using Verdicts = std::vector<Verdict>;

constexpr Json::ValueType any = Json::nullValue;
constexpr const char* none = nullptr;
constexpr const char* pair = "give both keys or neither";
constexpr const char* noBreaker = "leave it out, or null: any integer counts as 1";
constexpr const char* cloudName = "network.veyraServer";

const struct Setting {
    std::string name;
    Json::ValueType type; // that a value must convert to
    const char* useless;  // what takes effect and yet is of no use, as JSON, and why
    const char* reason;
    const char* remedy;
} settings[] = {
    {"log.level", Json::uintValue, "0", "nothing is logged", "set 40"},
    {"log.syslog", Json::booleanValue, none, "", ""},
    {"log.console", Json::booleanValue, none, "", ""},
    {"udp.veyraPort", any, "0", "any free port", "write 1024 to 65535, without quotes"},
    {cloudName, Json::stringValue, "\"\"", "no cloud", "write the API prefix: https://HOST/api/"},
    {"network.gatewayKey", any, none, "", ""}, // judged as identity
    {"mqtt.enabled", Json::booleanValue, "false", "the daemon ends at once", "set it to true"},
    {"mqtt.host", Json::stringValue, none, "", pair},
    {"mqtt.port", Json::intValue, none, "", pair},
    {"mqtt.username", Json::stringValue, none, "", pair},
    {"mqtt.password", Json::stringValue, none, "", pair},
    {"veyra.breakerThreshold", any, none, "", noBreaker},
    {"veyra.breakerTime", any, none, "", noBreaker},
    {"veyra.breakerTimeMax", any, none, "", noBreaker},
};

// What takes effect, in the configuration's own shape. Every value must be of the right type.
Value effectOf(const Value& root) {
    Value effect = root;
    const Value& mqtt = root["mqtt"];
    const BrokerAddress broker = brokerAddress(mqtt);
    const auto credentials = brokerCredentials(mqtt);
    const CircuitBreaker breaker = effectiveBreaker(root);
    effect["log"]["level"] = root["log"].isMember("level") ? root["log"]["level"].asUInt() : 30;
    effect["udp"]["veyraPort"] = effectivePort(root);
    effect["network"]["veyraServer"] = root["network"]["veyraServer"].asString();
    effect["mqtt"]["enabled"] = brokerIsEnabled(mqtt);
    effect["mqtt"]["host"] = broker.host;
    effect["mqtt"]["port"] = broker.port;
    effect["mqtt"]["username"] = credentials ? Value(credentials->username) : Value();
    effect["mqtt"]["password"] = credentials ? Value(credentials->password) : Value();
    effect["veyra"]["breakerThreshold"] = breaker.threshold;
    effect["veyra"]["breakerTime"] = Json::UInt64{breaker.backoffMs};
    effect["veyra"]["breakerTimeMax"] = Json::UInt64{breaker.backoffMaxMs};
    return effect;
}

Value valueAt(const Value& root, const std::string& name) {
    return Json::Path(name).resolve(root);
}

std::string jsonOf(const Value& value) {
    return ZEP::Text::trim(Json::FastWriter().write(value));
}

std::string textOf(const std::string& name, const Value& value) {
    return name == "mqtt.password" ? "\"***\"" : maskedUrl(jsonOf(value));
}

std::size_t editDistance(const std::string& left, const std::string& right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char letter : left) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t changed = diagonal + (letter == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

// The known setting whose key is most like the one in `name`, wherever it belongs; empty when none
// is like it.
std::string nearestName(const std::string& name) {
    const auto keyOf = [](const std::string& full) {
        return ZEP::Text::toLowerCase(full.substr(full.find('.') + 1));
    };
    std::size_t nearest = std::max<std::size_t>(2, keyOf(name).size() / 3) + 1;
    std::string found;
    for (const Setting& setting : settings) {
        const std::size_t distance = editDistance(keyOf(name), keyOf(setting.name));
        if (distance < nearest) {
            nearest = distance;
            found = setting.name;
        }
    }
    return found;
}

void addBad(Verdicts& found, Verdict verdict) {
    if (verdict.outcome == Outcome::BAD) {
        found.push_back(std::move(verdict));
    }
}

// Keys that are like no known one may be another program's.
void judgeNames(const Value& section, const std::string& prefix, Verdicts& found) {
    for (const std::string& key : section.getMemberNames()) {
        const std::string name = prefix + key;
        const bool known =
            std::any_of(std::begin(settings), std::end(settings), [&](const Setting& setting) {
                return setting.name == name || setting.name.rfind(name + ".", 0) == 0;
            });
        const std::string meant = known ? "" : nearestName(name);
        addBad(found, judge(name, {bad(!meant.empty(), "no such key, the daemon ignores it",
                                       "write " + meant + " in its place")}));
        if (prefix.empty() && section[key].isObject()) {
            judgeNames(section[key], key + ".", found);
        }
    }
}

// Returns whether the daemon can start with them.
bool judgeTypes(const Value& root, Verdicts& found) {
    const std::size_t before = found.size();
    for (const Setting& setting : settings) {
        const Value value = valueAt(root, setting.name);
        const Value section = valueAt(root, setting.name.substr(0, setting.name.find('.')));
        const bool right = section.isConvertibleTo(Json::objectValue) &&
                           (setting.type == any || value.isConvertibleTo(setting.type));
        addBad(found, judge(setting.name + " " + textOf(setting.name, value),
                            {bad(!right,
                                 setting.name == cloudName
                                     ? "wrong type: each datagram ends in an exception"
                                     : "wrong type: the daemon aborts at the start",
                                 "write sections in braces, numbers without quotes, texts with, "
                                 "true and false without")}));
    }
    return found.size() == before;
}

void judgeEffects(const Value& root, const Value& effect, Verdicts& found) {
    for (const Setting& setting : settings) {
        const Value configured = valueAt(root, setting.name);
        const Value its = valueAt(effect, setting.name);
        const std::string text = textOf(setting.name, its);
        const std::string url = setting.name == cloudName ? its.asString() : "https:/";
        addBad(
            found,
            judge(
                setting.name + " " + textOf(setting.name, configured),
                {bad(setting.useless != none && text == setting.useless,
                     "takes effect as " + text + ": " + setting.reason, setting.remedy),
                 bad(!configured.isNull() && !its.isBool() && jsonOf(configured) != jsonOf(its),
                     its.isNull() ? "takes no effect" : "takes effect as " + text, setting.remedy),
                 bad(!isVerified(url), "no encryption, and nobody verifies the cloud",
                     "write https: in front of the host"),
                 bad(url.back() != '/', "prefix and path run together", "put / at its end")}));
    }
}

// Parses as the daemon does. Returns the words for the first fault, with its place.
std::string parse(const std::string& text, Value& root) {
    Json::Reader reader;
    try {
        if (reader.parse(text, root, false)) {
            return root.isObject() ? "" : "no object";
        }
    } catch (const Json::Exception&) {
        return "nested too deeply";
    }
    // Such as "* Line 3, Column 5\n  Missing '}' or object member name\nSee Line 1, Column 1".
    const std::string words = reader.getFormattedErrorMessages();
    return words.substr(2, words.find('\n', words.find('\n') + 1) - 2);
}

Verdict judgeText(const ConfigurationFacts& facts, Value& root) {
    const std::string words = facts.error == 0 ? parse(facts.text, root) : strerror(facts.error);
    return judge(
        facts.path,
        {unknown(facts.error == EACCES && !facts.isRoot, words + "; run the doctor as root"),
         bad(facts.error == ENOENT, words, "mend -c, or put the file there"),
         bad(facts.error != 0, words, "chgrp lora-veyra and chmod 640 the file"),
         bad(!words.empty(), words,
             "write one JSON object: look there, and just before, for a comma, quote or "
             "brace too many or too few")});
}

} // namespace

std::string maskedUrl(const std::string& url) {
    const auto start = url.find("//");
    const auto at = url.find('@');
    if (start == std::string::npos || at == std::string::npos || at > url.find('/', start + 2)) {
        return url;
    }
    return url.substr(0, start + 2) + "***" + url.substr(at);
}

Verdicts judgeConfiguration(const ConfigurationFacts& facts, Value& root) {
    const Verdict text = judgeText(facts, root);
    if (text.outcome != Outcome::OK) {
        root = Value(); // not what was read before a fault
        return {text};
    }
    Verdicts found;
    judgeNames(root, "", found);
    if (!judgeTypes(root, found)) {
        root = Value();
        return found;
    }
    const Value effect = effectOf(root);
    judgeEffects(root, effect, found);
    const std::string summary = facts.path + ": port " + textOf("", effect["udp"]["veyraPort"]) +
                                ", cloud " + textOf("", effect["network"]["veyraServer"]) +
                                ", broker " + effect["mqtt"]["host"].asString() + ":" +
                                textOf("", effect["mqtt"]["port"]);
    return found.empty() ? Verdicts{judge(summary, {})} : found;
}
