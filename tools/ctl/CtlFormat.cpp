#include "CtlFormat.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <vector>

namespace {

std::string text(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object.isMember(key)) {
        return "-";
    }
    const Json::Value& value = object[key];
    if (value.isString()) {
        return value.asString().empty() ? "-" : value.asString();
    }
    if (value.isBool()) {
        return value.asBool() ? "yes" : "no";
    }
    if (value.type() == Json::realValue) {
        char buf[64];
        snprintf(buf, sizeof(buf), "%.1f", value.asDouble());
        return buf;
    }
    if (value.isNumeric()) {
        return value.asString();
    }
    return CtlFormat::compact(value);
}

std::string hexByte(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object[key].isIntegral()) {
        return "-";
    }
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%02x", static_cast<unsigned>(object[key].asLargestUInt()));
    return buf;
}

void row(std::ostringstream& out, const char* label, const std::string& value) {
    char buf[40];
    snprintf(buf, sizeof(buf), "%-22s", label);
    out << buf << value << "\n";
}

std::string clock(const Json::Value& c) {
    return text(c, "id") + "  priority1 " + text(c, "priority1") + "  priority2 " +
           text(c, "priority2") + "  class " + text(c, "clockClass") + "  accuracy " +
           hexByte(c, "clockAccuracy") + " (" + text(c, "clockAccuracyTable6") + ")  variance " +
           text(c, "scaledLogVariance");
}

// Configuration values may be absent: not set.
std::string configured(const Json::Value& object, const char* key) {
    return object.isObject() && object.isMember(key) ? text(object, key) : "not set";
}

}  // namespace

namespace CtlFormat {

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string status(const Json::Value& s) {
    std::ostringstream out;
    row(out, "profile", text(s, "profile"));
    row(out, "domain", text(s, "domainNumber"));
    row(out, "slave only", text(s, "slaveOnly"));
    row(out, "local clock", clock(s["local"]));
    row(out, "grandmaster", clock(s["grandMaster"]));
    row(out, "steps removed", text(s, "stepsRemoved"));
    row(out, "offset from master", text(s, "offsetFromMaster") + " ns");
    row(out, "mean path delay", text(s, "meanPathDelay") + " ns");
    row(out, "offset variance", text(s, "offsetScaledLogVariance"));
    const Json::Value& ports = s["port"];
    if (!ports.isArray() || ports.empty()) {
        row(out, "ports", "none");
        return out.str();
    }
    out << "ports:\n";
    for (const Json::Value& p : ports) {
        out << "  port " << text(p, "portId") << "  " << text(p, "roleStatus") << " ("
            << text(p, "roleStatusId") << ")  delay " << text(p, "delayMechanism") << "  id "
            << text(p, "id") << "\n"
            << "    sync " << text(p, "syncInterval") << "  announce "
            << text(p, "announceInterval") << "  announce timeout "
            << text(p, "announceReceiptTimeout") << "  delay req "
            << text(p, "logMinDelayReqInterval") << "  pdelay req "
            << text(p, "logMinPdelayReqInterval") << "  peer delay " << text(p, "peerMeanPathDelay")
            << " ns\n";
    }
    return out.str();
}

std::string stats(const Json::Value& s) {
    std::ostringstream out;
    row(out, "master offset RMS", text(s, "masterOffsetRMS"));
    row(out, "master offset max", text(s, "masterOffsetMaxAbs"));
    row(out, "freq deviation mean", text(s, "freqDeviationMean"));
    row(out, "freq deviation sdev", text(s, "freqDeviationStdDev"));
    row(out, "path delay mean", text(s, "pathDelayMean"));
    row(out, "path delay sdev", text(s, "pathDelayStdDev"));
    row(out, "offset from master", text(s, "offsetFromMaster") + " ns");
    row(out, "offset variance", text(s, "offsetScaledLogVariance"));
    return out.str();
}

std::string config(const Json::Value& c) {
    std::ostringstream out;
    row(out, "profile", text(c, "profile"));
    row(out, "domain", configured(c, "domainNumber"));
    row(out, "priority1", configured(c, "priority1"));
    row(out, "priority2", configured(c, "priority2"));
    std::string slaveOnly = "not set";
    if (c.isObject() && c["slaveOnly"].isIntegral() && c["slaveOnly"].asInt() >= 0) {
        slaveOnly = c["slaveOnly"].asInt() != 0 ? "yes" : "no";
    }
    row(out, "slave only", slaveOnly);
    row(out, "config file",
        text(c, "cfgFilePath") == "-" ? "profile default" : text(c, "cfgFilePath"));
    const Json::Value& ports = c["port"];
    if (ports.isArray()) {
        for (const Json::Value& p : ports) {
            out << "  port " << configured(p, "port") << "  sync " << configured(p, "syncInterval")
                << "  announce " << configured(p, "announceInterval") << "  announce timeout "
                << configured(p, "announceReceiptTimeout") << "\n";
        }
    }
    return out.str();
}

bool hasReading(const Json::Value& monitor) {
    return !monitor.isObject() || !monitor["lastGoodCycle"].isNull();
}

std::string health(const Json::Value& m) {
    if (!m.isObject()) {
        return "";
    }
    const std::string failed = text(m, "failedCyclesInARow") + " status cycles failed";
    if (!hasReading(m)) {
        return m["ptp4lStarted"].asBool()
                   ? "no status read from ptp4l yet: ptp4l not answering (" + failed + ")\n"
                   : "no status read from ptp4l yet: ptp4l not started (no configuration "
                     "request so far)\n";
    }
    const std::string age = text(m, "secondsSinceLastGoodCycle") + " s";
    if (m["lastCycleOk"].asBool()) {
        return "ptp4l answering; status read " + age + " ago, state " + text(m, "ptp-state") + "\n";
    }
    return "ptp4l not answering for " + age + " (" + failed + "); the status below is " + age +
           " old\n";
}

std::string top(const Json::Value& debug, const std::vector<std::string>& notifications) {
    const Json::Value& s = debug["status"];
    std::ostringstream out;
    out << health(debug["monitor"]);
    if (hasReading(debug["monitor"])) {
        row(out, "state", text(debug["monitor"], "ptp-state"));
        row(out, "grandmaster", text(s["grandMaster"], "id"));
        row(out, "offset from master", text(s, "offsetFromMaster") + " ns");
        const Json::Value& ports = s["port"];
        for (Json::ArrayIndex i = 0; ports.isArray() && i < ports.size(); ++i) {
            row(out, ("port " + text(ports[i], "portId")).c_str(), text(ports[i], "roleStatus"));
        }
    }
    out << "last notifications:\n";
    if (notifications.empty()) {
        out << "  none yet\n";
    }
    for (const std::string& line : notifications) {
        out << "  " << line;
    }
    return out.str();
}

std::string configChanges(const Json::Value& before, const Json::Value& after) {
    auto rows = [](const Json::Value& c) {
        std::vector<std::string> lines;
        std::istringstream in(config(c));
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    };
    const std::vector<std::string> was = rows(before), now = rows(after);
    auto has = [](const std::vector<std::string>& lines, const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    std::string changes;
    for (const std::string& line : was) {
        if (!has(now, line)) {
            changes += "- " + line + "\n";
        }
    }
    for (const std::string& line : now) {
        if (!has(was, line)) {
            changes += "+ " + line + "\n";
        }
    }
    return changes;
}

std::string publication(const std::string& topic, const Json::Value& body) {
    std::ostringstream out;
    if (topic == "1000") {
        static const char* const actions[] = {"no-action", "mute-all", "resume-all", "reset-rtp-ts",
                                              "no-action"};
        std::string action = text(body, "action");
        if (body["action"].isIntegral() && body["action"].asInt() >= 0 &&
            body["action"].asInt() <= 4) {
            action = actions[body["action"].asInt()];
        }
        out << "[1000] state " << text(body, "ptp-state") << "  action " << action
            << "  grandmaster " << text(body, "gmid") << "  domain " << text(body, "domain")
            << "\n";
        return out.str();
    }
    if (topic == "1001") {
        out << "[1001] configuration changed\n" << config(body);
        return out.str();
    }
    out << "[" << topic << "] " << compact(body) << "\n";
    return out.str();
}

}  // namespace CtlFormat
