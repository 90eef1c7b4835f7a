#include "checks/Settings.h"

#include "VeyraServer/EffectiveSettings.h"
#include "checks/Checks.h"
#include "checks/CloudUrl.h"
#include "checks/Misspelling.h"
#include "host/Text.h"
#include "mqtt/BrokerSettings.h"

#include <ZEP/Text.h>

#include <algorithm>

namespace {

using Json::Value;

constexpr Json::ValueType anyType = Json::nullValue;
constexpr const char* cloudName = "network.veyraServer";
constexpr const char* hostAndPort = "Set both mqtt.host and mqtt.port (1 to 65535), or neither.";
constexpr const char* userAndPassword = "Set both mqtt.username and mqtt.password, or neither.";
constexpr const char* noBreaker = "Remove the key, so that the default value takes effect. The "
                                  "daemon treats every integer in this key as 1.";

// False, 0 or an empty text.
bool isNothing(const Value& effect) {
    if (effect.isString()) {
        return effect.asString().empty();
    }
    return effect.asInt64() == 0;
}

bool isNoPort(const Value& effect) {
    return effect.asInt() < 1 || effect.asInt() > 65535;
}

const struct Setting {
    std::string name;
    Json::ValueType type; // that a value must convert to
    bool (*isUseless)(const Value& effect);
    const char* consequence; // when it is useless
    const char* fix;         // when it is useless, or when another value takes effect
} settings[] = {
    {"log.level", Json::uintValue, isNothing, "the daemon logs nothing", "Set it to 40."},
    {"log.syslog", Json::booleanValue, nullptr, "", ""},
    {"log.console", Json::booleanValue, nullptr, "", ""},
    {"udp.veyraPort", anyType, isNothing, "the daemon takes any free port",
     "Write a number from 1024 to 65535, without quotes."},
    {cloudName, Json::stringValue, isNothing, "the daemon does not know the address of the cloud",
     "Write the API prefix of the cloud, such as \"https://HOST/api/\"."},
    {"network.gatewayKey", anyType, nullptr, "", ""}, // the check "identity" judges it
    {"mqtt.enabled", Json::booleanValue, isNothing, "the daemon ends at once", "Set it to true."},
    {"mqtt.host", Json::stringValue, isNothing,
     "the daemon does not know the address of the broker", hostAndPort},
    {"mqtt.port", Json::intValue, isNoPort, "the daemon does not know the address of the broker",
     hostAndPort},
    {"mqtt.username", Json::stringValue, nullptr, "", userAndPassword},
    {"mqtt.password", Json::stringValue, nullptr, "", userAndPassword},
    {"veyra.breakerThreshold", anyType, nullptr, "", noBreaker},
    {"veyra.breakerTime", anyType, nullptr, "", noBreaker},
    {"veyra.breakerTimeMax", anyType, nullptr, "", noBreaker},
};

std::string sectionOf(const Setting& setting) {
    return setting.name.substr(0, setting.name.find('.'));
}

Value valueAt(const Value& root, const std::string& name) {
    return Json::Path(name).resolve(root);
}

std::string jsonOf(const Value& value) {
    return ZEP::Text::trim(Json::FastWriter().write(value));
}

// Whether the configured value means the same as the value that takes effect. For example, 1883.0
// and "1883" both mean 1883.
bool isEqual(const Value& configured, const Value& effect) {
    if (configured.isNumeric() && effect.isNumeric()) {
        return configured.asDouble() == effect.asDouble();
    }
    const bool isText = configured.isString() && (effect.isString() || effect.isNumeric());
    if (isText && configured.asString() == effect.asString()) {
        return true;
    }
    if (configured == "localhost" && effect == "127.0.0.1") {
        return true;
    }
    return jsonOf(configured) == jsonOf(effect);
}

// The value as the report shows it. Secrets are replaced by "***".
std::string shown(const std::string& name, const Value& value) {
    const bool isSecret = name == "mqtt.password" || name == "network.gatewayKey";
    if (isSecret && !value.isNull()) {
        return "***";
    }
    return masked(jsonOf(value));
}

// The effective values, in the structure of the configuration.
Value effectOf(const Value& root) {
    Value effect = root;
    const Value& mqtt = root["mqtt"];
    const BrokerAddress broker = brokerAddress(mqtt);
    const auto credentials = brokerCredentials(mqtt);
    const CircuitBreaker breaker = effectiveBreaker(root);
    constexpr unsigned defaultLevel = 30;
    effect["log"]["level"] = defaultLevel;
    if (root["log"].isMember("level")) {
        effect["log"]["level"] = root["log"]["level"].asUInt();
    }
    effect["udp"]["veyraPort"] = effectivePort(root);
    effect["network"]["veyraServer"] = root["network"]["veyraServer"].asString();
    effect["mqtt"]["enabled"] = brokerIsEnabled(mqtt);
    effect["mqtt"]["host"] = broker.host;
    effect["mqtt"]["port"] = broker.port;
    effect["mqtt"]["username"] = Value();
    effect["mqtt"]["password"] = Value();
    if (credentials) {
        effect["mqtt"]["username"] = credentials->username;
        effect["mqtt"]["password"] = credentials->password;
    }
    effect["veyra"]["breakerThreshold"] = breaker.threshold;
    effect["veyra"]["breakerTime"] = Json::UInt64{breaker.backoffMs};
    effect["veyra"]["breakerTimeMax"] = Json::UInt64{breaker.backoffMaxMs};
    return effect;
}

// The setting that `key` misspells, if the section does not contain that setting; otherwise null.
const Setting* findMeant(const Value& section, const std::string& sectionName,
                         const std::string& key) {
    for (const Setting& setting : settings) {
        const std::string known = setting.name.substr(setting.name.find('.') + 1);
        if (sectionOf(setting) == sectionName && !section.isMember(known) &&
            isMisspelt(key, known)) {
            return &setting;
        }
    }
    return nullptr;
}

bool isKnown(const std::string& name) {
    return std::any_of(std::begin(settings), std::end(settings), [&](const Setting& setting) {
        return setting.name == name || sectionOf(setting) == name;
    });
}

void judgeSection(const Value& root, const std::string& sectionName, Findings& found,
                  std::vector<std::string>& ignored) {
    const Value& section = root[sectionName];
    for (const std::string& key : section.getMemberNames()) {
        std::string name = sectionName;
        name += '.';
        name += key;
        if (isKnown(name)) {
            continue;
        }
        if (const Setting* const meant = findMeant(section, sectionName, key)) {
            found.push_back(
                bad("settings.misspelt", name,
                    "The daemon does not know this key, and " + meant->name + " is missing.",
                    thenRestart("Rename the key to " + meant->name + ".")));
        } else {
            ignored.push_back(name);
        }
    }
}

// Keys at the top may belong to another program that uses the same file: only a section whose name
// differs in case alone is a misspelling.
void judgeNames(const Value& root, Findings& found, std::vector<std::string>& ignored) {
    for (const std::string& key : root.getMemberNames()) {
        const std::string lower = ZEP::Text::toLowerCase(key);
        if (isKnown(key) && key.find('.') == std::string::npos) {
            if (root[key].isObject()) {
                judgeSection(root, key, found, ignored);
            }
        } else if (isKnown(lower) && lower.find('.') == std::string::npos &&
                   !root.isMember(lower)) {
            found.push_back(
                bad("settings.misspelt", key,
                    "The daemon does not know this section, and " + lower + " is missing.",
                    thenRestart("Rename the section to " + lower + ".")));
        } else {
            ignored.push_back(key);
        }
    }
}

// Whether one of the misspelt keys explains why the setting is missing.
bool isExplained(const Setting& setting, const Findings& misspelt) {
    return std::any_of(misspelt.begin(), misspelt.end(), [&](const Finding& finding) {
        const std::string& cause = finding.cause;
        return cause.find(setting.name + " is missing") != std::string::npos ||
               cause.find(", and " + sectionOf(setting) + " is missing") != std::string::npos;
    });
}

void judgeEffect(const Setting& setting, const Value& configured, const Value& effect,
                 Findings& found) {
    const std::string subject = setting.name + " " + shown(setting.name, configured);
    const std::string taken = "The daemon uses the value " + shown(setting.name, effect);
    if (setting.isUseless != nullptr && setting.isUseless(effect)) {
        found.push_back(bad("settings.useless", subject, taken + ": " + setting.consequence + ".",
                            thenRestart(setting.fix)));
        return;
    }
    const bool isSame = effect.isBool() || isEqual(configured, effect);
    if (!configured.isNull() && !isSame) {
        found.push_back(bad("settings.no-effect", subject,
                            effect.isNull() ? "The value has no effect." : taken + ".",
                            thenRestart(setting.fix)));
    }
}

} // namespace

Findings judgeTypes(const Value& root) {
    Findings found;
    for (const Setting& setting : settings) {
        const Value value = valueAt(root, setting.name);
        const bool isSection = root[sectionOf(setting)].isConvertibleTo(Json::objectValue);
        if (isSection && (setting.type == anyType || value.isConvertibleTo(setting.type))) {
            continue;
        }
        found.push_back(
            bad("configuration.wrong-type", setting.name + " " + shown(setting.name, value),
                setting.name == cloudName ? "The type is wrong: each datagram causes an exception."
                                          : "The type is wrong: the daemon aborts at startup.",
                thenRestart("Write sections in braces and texts in quotes. Write numbers, true and "
                            "false without quotes.")));
    }
    return found;
}

Findings judgeSettings(const Value& root, std::vector<std::string>& ignored) {
    Findings found;
    judgeNames(root, found, ignored);
    const Findings misspelt = found;
    const Value effect = effectOf(root);
    for (const Setting& setting : settings) {
        const Value configured = valueAt(root, setting.name);
        if (configured.isString() && findInvalidUtf8(configured.asString()) != std::string::npos) {
            found.push_back(bad("settings.not-utf8", setting.name, "The value is not valid UTF-8.",
                                thenRestart("Save the file as UTF-8.")));
        }
        if (setting.name == "mqtt.host" && configured.isString() &&
            configured.asString().find_first_of(" \t\r\n") != std::string::npos) {
            found.push_back(bad("settings.space", setting.name + " " + jsonOf(configured),
                                "The value contains a space, a tab or a line break.",
                                thenRestart("Remove this character.")));
        }
        if (!isExplained(setting, misspelt)) {
            judgeEffect(setting, configured, valueAt(effect, setting.name), found);
        }
    }
    if (const std::string url = effect["network"]["veyraServer"].asString(); !url.empty()) {
        judgeCloudUrl(url, found);
    }
    return found;
}

Findings checkSettings(Gateway& gateway) {
    std::vector<std::string> ignored;
    Findings found = judgeSettings(gateway.configuration, ignored);
    if (found.empty()) {
        std::string subject = "all settings take effect";
        std::string names;
        Json::Value facts;
        for (const std::string& key : ignored) {
            addItem(names, key);
            facts["ignored"].append(printable(key));
        }
        if (!names.empty()) {
            subject += "; unknown keys: " + names;
        }
        found.push_back(ok(subject, facts));
    }
    return found;
}
