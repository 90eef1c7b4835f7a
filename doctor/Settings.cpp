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
constexpr const char* pair =
    "give both or neither: host and port (1 to 65535), username and password";
constexpr const char* noBreaker = "leave it out, or null: any integer counts as 1";
constexpr const char* cloudName = "network.veyraServer";

// False, 0 or an empty text.
bool isNothing(const Value& effect) {
    return effect.isString() ? effect.asString().empty() : effect.asInt64() == 0;
}

bool isNoPort(const Value& effect) {
    return effect.asInt() < 1 || effect.asInt() > 65535;
}

const struct Setting {
    std::string name;
    Json::ValueType type; // that a value must convert to
    bool (*isUseless)(const Value& effect);
    const char* reason; // why it is
    const char* remedy; // for that, and when another value takes effect
} settings[] = {
    {"log.level", Json::uintValue, isNothing, "nothing is logged", "set 40"},
    {"log.syslog", Json::booleanValue, nullptr, "", ""},
    {"log.console", Json::booleanValue, nullptr, "", ""},
    {"udp.veyraPort", any, isNothing, "any free port", "write 1024 to 65535, without quotes"},
    {cloudName, Json::stringValue, isNothing, "no cloud",
     "write the API prefix: https://HOST/api/"},
    {"network.gatewayKey", any, nullptr, "", ""}, // judged as identity
    {"mqtt.enabled", Json::booleanValue, isNothing, "the daemon ends at once", "set it to true"},
    {"mqtt.host", Json::stringValue, isNothing, "no broker", pair},
    {"mqtt.port", Json::intValue, isNoPort, "no broker", pair},
    {"mqtt.username", Json::stringValue, nullptr, "", pair},
    {"mqtt.password", Json::stringValue, nullptr, "", pair},
    {"veyra.breakerThreshold", any, nullptr, "", noBreaker},
    {"veyra.breakerTime", any, nullptr, "", noBreaker},
    {"veyra.breakerTimeMax", any, nullptr, "", noBreaker},
};

std::string sectionOf(const Setting& setting) {
    return setting.name.substr(0, setting.name.find('.'));
}

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

// How unlike a known word a given one is; 1 when one is the other's beginning.
std::size_t distanceOf(const std::string& given, const std::string& known) {
    const std::string left = ZEP::Text::toLowerCase(given);
    const std::string right = ZEP::Text::toLowerCase(known);
    const std::size_t same = std::min(left.size(), right.size());
    const bool begins = same > 3 && left.compare(0, same, right, 0, same) == 0;
    return begins ? std::min<std::size_t>(1, left.size() - same + right.size() - same)
                  : editDistance(left, right);
}

// The known name most like `name`: of the same section's keys, or at the top of all keys and
// sections. Empty when none is like it.
std::string nearestName(const std::string& name) {
    const auto dot = name.find('.');
    const std::string key = name.substr(dot + 1);
    std::size_t nearest = std::min<std::size_t>(2, key.size() / 3) + 1;
    std::string found;
    const auto consider = [&](const std::string& known, const std::string& word) {
        if (const std::size_t distance = distanceOf(key, word); distance < nearest) {
            nearest = distance;
            found = known;
        }
    };
    for (const Setting& setting : settings) {
        const std::string section = sectionOf(setting);
        if (dot == std::string::npos || name.substr(0, dot) == section) {
            consider(setting.name, setting.name.substr(section.size() + 1));
        }
        if (dot == std::string::npos) {
            consider(section, section);
        }
    }
    return found;
}

void addBad(Verdicts& found, const std::string& seen, const std::vector<Finding>& findings) {
    if (const Verdict verdict = judge(seen, findings); verdict.outcome == Outcome::BAD) {
        found.push_back(verdict);
    }
}

// Keys that are like no known one may be another program's, which uses the same file: they are added
// to `ignored`.
void judgeNames(const Value& section, const std::string& prefix, Verdicts& found,
                std::string& ignored) {
    for (const std::string& key : section.getMemberNames()) {
        const std::string name = prefix + key;
        const bool known =
            std::any_of(std::begin(settings), std::end(settings), [&](const Setting& setting) {
                return setting.name == name || sectionOf(setting) == name;
            });
        const std::string meant = known ? "" : nearestName(name);
        ignored += known || !meant.empty() ? "" : ", ignored " + name;
        addBad(found, name,
               {bad(!meant.empty(), "no such key, the daemon ignores it",
                    "write " + meant + " in its place")});
        if (prefix.empty() && known && section[key].isObject()) {
            judgeNames(section[key], key + ".", found, ignored);
        }
    }
}

// Returns whether the daemon can start with them.
bool judgeTypes(const Value& root, Verdicts& found) {
    const std::size_t before = found.size();
    for (const Setting& setting : settings) {
        const Value value = valueAt(root, setting.name);
        const Value section = root[sectionOf(setting)];
        const bool right = section.isConvertibleTo(Json::objectValue) &&
                           (setting.type == any || value.isConvertibleTo(setting.type));
        addBad(found, setting.name + " " + textOf(setting.name, value),
               {bad(!right,
                    setting.name == cloudName ? "wrong type: each datagram ends in an exception"
                                              : "wrong type: the daemon aborts at the start",
                    "write sections in braces, numbers without quotes, texts with, "
                    "true and false without")});
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
            found, setting.name + " " + textOf(setting.name, configured),
            {bad(setting.isUseless != nullptr && setting.isUseless(its),
                 "takes effect as " + text + ": " + setting.reason, setting.remedy),
             bad(!configured.isNull() && !its.isBool() && jsonOf(configured) != jsonOf(its),
                 its.isNull() ? "takes no effect" : "takes effect as " + text, setting.remedy),
             bad(!isVerified(url), "no encryption, and nobody verifies the cloud",
                 "write https: in front of the host"),
             bad(('/' + url).back() != '/', "prefix and path run together", "put / at its end")});
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
    std::string words = reader.getFormattedErrorMessages();
    words = words.substr(2, words.find('\n', words.find('\n') + 1) - 2);
    const auto quoted = words.find("' is not a number"); // it may be a key without quotes
    return quoted == std::string::npos
               ? words
               : words.replace(words.find('\''), quoted + 1 - words.find('\''), "this");
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

std::string maskedUrl(const std::string& text) {
    const auto at = text.rfind('@');
    if (at == std::string::npos) {
        return text;
    }
    const auto scheme = text.find("//");
    return (scheme < at ? text.substr(0, scheme + 2) : "") + "***" + text.substr(at);
}

Verdicts judgeConfiguration(const ConfigurationFacts& facts, Value& root) {
    const Verdict text = judgeText(facts, root);
    if (text.outcome != Outcome::OK) {
        root = Value(); // not what was read before a fault
        return {text};
    }
    Verdicts found;
    std::string ignored;
    judgeNames(root, "", found, ignored);
    if (!judgeTypes(root, found)) {
        root = Value();
        return found;
    }
    const Value effect = effectOf(root);
    judgeEffects(root, effect, found);
    const std::string summary = facts.path + ": port " + textOf("", effect["udp"]["veyraPort"]) +
                                ", cloud " + textOf("", effect["network"]["veyraServer"]) +
                                ", broker " + effect["mqtt"]["host"].asString() + ":" +
                                textOf("", effect["mqtt"]["port"]) + ignored;
    return found.empty() ? Verdicts{judge(summary, {})} : found;
}
