#include "HostileRequests.h"

#include <cstddef>
#include <cstdio>
#include <set>

#include "JsonText.h"

namespace {

using Answer = HostileRequest::Answer;
using namespace std::string_literals;  // literals with NUL bytes inside

// How a setter reads a value; a bit set in WrongValue::convertsAs means that the JSON library
// converts the value that way instead of throwing.
enum Reading : unsigned {
    UNSIGNED = 1,  // asUInt: null, booleans and numbers from 0 to 2^32-1 (fraction cut)
    SIGNED = 2,    // asInt: null, booleans and numbers in the int range (fraction cut)
    BOOLEAN = 4,   // asBool: null, booleans and numbers
    TEXT = 8,      // asString: anything but arrays and objects
    LIST = 16,     // the "port" list: anything but a non-empty array or object of non-objects
};
constexpr unsigned SCALAR = BOOLEAN | TEXT | LIST, ANY_NUMBER = UNSIGNED | SIGNED | SCALAR;

// Wrong values for a key, grouped by how the JSON library converts them.
struct WrongValues {
    unsigned convertsAs;
    bool absent;  // SET PTP Parameter takes null, [] and {} as a key not given
    std::vector<const char*> json;
};
const WrongValues WRONG_VALUES[] = {
    {ANY_NUMBER, true, {"null"}},
    {ANY_NUMBER, false, {"true", "false", "2.5"}},
    {SIGNED | SCALAR, false, {"-1", "-2.5"}},
    {SCALAR, false, {"-2147483649", "4294967296", "18446744073709551615", "1e300"}},
    {TEXT | LIST, false, {"\"5\"", "\"abc\"", "\"\""}},
    {LIST, true, {"[]", "{}"}},
    {0, false, {"[5]", "{\"value\":5}"}}};

struct Key {
    const char* name;
    unsigned reading;
    bool applies;  // a converted value changes something (SET PTP Parameter only)
};
// SET PTP Parameter's keys. "port" only selects the entry the interval keys change and
// "profile" is read as a profile name, which none of the wrong values is.
const Key PARAMETER_KEYS[] = {{"domain", UNSIGNED, true},
                              {"priority1", UNSIGNED, true},
                              {"priority2", UNSIGNED, true},
                              {"port", SIGNED, false},
                              {"announceInterval", SIGNED, true},
                              {"announceReceiptTimeout", SIGNED, true},
                              {"syncInterval", SIGNED, true},
                              {"slaveOnly", BOOLEAN, true},
                              {"profile", TEXT, false}};
// SET OstPmc running config's keys, and those of each "port" entry.
const Key RUNNING_CFG_KEYS[] = {{"profile", TEXT, false},       {"domainNumber", UNSIGNED, false},
                                {"priority1", UNSIGNED, false}, {"priority2", UNSIGNED, false},
                                {"slaveOnly", SIGNED, false},   {"cfgFilePath", TEXT, false},
                                {"port", LIST, false}};
const Key PORT_ENTRY_KEYS[] = {{"port", SIGNED, false},
                               {"syncInterval", SIGNED, false},
                               {"announceInterval", SIGNED, false},
                               {"announceReceiptTimeout", SIGNED, false}};

// Texts that are no request at all, or no JSON the parser takes.
const std::string NOT_REQUESTS[] = {
    "", " \t\r\n", "GET PTP INFO", "null", "true", "0", "\"cmd\"", "[]", "[{\"cmd\":0}]", "{", "}",
    "{\"cmd\"}", "{\"cmd\":}", "{'cmd':0}", "{cmd:0}", "{\"cmd\":0,}", "{\"cmd\":0 \"data\":{}}",
    "{\"cmd\":0}{\"cmd\":0}", "{\"cmd\":0} x", "{\"cmd\":NaN}", "{\"cmd\":Infinity}",
    "{\"cmd\":-Infinity}", "{\"cmd\":0x1}", "{\"cmd\":.5}", "{\"cmd\":1e400}",
    "{\"cmd\":0,\"data\":{\"profile\":\"smpte}}", "{\"cmd\":0,\"data\":{\"profile\":\"\\x41\"}}",
    "{\"cmd\":0,\"data\":{\"profile\":\"\\u12\"}}",
    "{\"cmd\":0,\"data\":{\"profile\":\"\\ud800\"}}", "<request cmd=\"0\"/>", "\0{\"cmd\":0}"s,
    "{\"cmd\"\0:0}"s, "\x01\x02\x80\xff\xfe\x00\x10"s, "{\"CMD\":0}", "{\"cmd \":0}",
    "{\"cmd\\u0000\":0}", "{\"data\":{\"cmd\":0}}", "{\"c\xffmd\":0}",
    // Duplicate keys, each of which would change something read either way.
    "{\"cmd\":0,\"cmd\":1,\"data\":{\"priority1\":90}}",
    "{\"cmd\":1,\"data\":{},\"data\":{\"priority1\":90}}",
    "{\"cmd\":1,\"data\":{\"priority1\":90,\"priority1\":91}}",
    "{\"cmd\":3,\"data\":{\"profile\":\"smpte\",\"profile\":\"gptp\"}}",
    "{\"cmd\":3,\"data\":{\"profile\":\"smpte\",\"port\":[{\"port\":1,\"port\":2}]}}"};

// Requests that would change something were they whole: each is cut after every byte.
const char* const WHOLE_REQUESTS[] = {
    "{\"cmd\":1,\"data\":{\"priority1\":90,\"syncInterval\":-3}}",
    "{\"cmd\":1,\"data\":{\"slaveOnly\":true}}",
    "{\"cmd\":3,\"data\":{\"profile\":\"smpte\",\"domainNumber\":127,"
    "\"port\":[{\"port\":1,\"syncInterval\":-3}]}}"};

// "cmd" values that name no request; 6 is the first unknown code.
const char* const WRONG_CODES[] = {
    // not numbers
    "null", "true", "false", "\"0\"", "\"GET PTP INFO\"", "[]", "[0]", "{}", "{\"cmd\":0}",
    // numbers that are no code
    "-1", "-2147483648", "2.5", "-1.5", "1e300", "6", "7", "255", "65536", "2147483647",
    "2147483648", "4294967295", "4294967296", "18446744073709551615", "18446744073709551616"};

// "data" that is not an object.
const char* const WRONG_PAYLOADS[] = {
    // scalars and arrays
    "\"priority1=90\"", "90", "-1", "2.5", "true", "[]", "[{\"priority1\":90}]"};

// Texts that a stricter parser refuses and a lenient one reads; each, read, changes nothing.
const std::string LENIENT[] = {
    // numbers that strict JSON forbids, naming a request that changes nothing
    "{\"cmd\":02}", "{\"cmd\":+0}", "{\"cmd\":-0}", "{\"cmd\":2.0}", "{\"cmd\":5e0}",
    // a trailing NUL byte, comments, a byte-order mark, a bad low surrogate
    "{\"cmd\":0}\0"s, "{\"cmd\":0/* c */}", "{\"cmd\":0 // c\n}", "\xef\xbb\xbf{\"cmd\":0}",
    "{\"cmd\":0,\"data\":{\"x\":\"\\ud800\\u0041\"}}",
    // a profile name with a raw NUL, invalid UTF-8, an overlong encoding, an encoded
    // surrogate, a cut character, a lone low surrogate
    "{\"cmd\":1,\"data\":{\"profile\":\"smpte\0\"}}"s,
    "{\"cmd\":1,\"data\":{\"profile\":\"\xff\xfe\"}}",
    "{\"cmd\":1,\"data\":{\"profile\":\"\xc0\xaf\"}}",
    "{\"cmd\":1,\"data\":{\"profile\":\"\xed\xa0\x80\"}}",
    "{\"cmd\":1,\"data\":{\"profile\":\"\xe2\x82\"}}",
    "{\"cmd\":1,\"data\":{\"profile\":\"\\udc00\"}}",
    // invalid UTF-8 in a key and in a file name of the active profile, raw control characters
    "{\"cmd\":0,\"data\":{\"\xff\":1}}", "{\"cmd\":3,\"data\":{\"cfgFilePath\":\"\xff\"}}",
    "{\"cmd\":0,\"data\":{\"x\":\"\t\"}}", "{\"cmd\":0,\"data\":{\"x\":\"\x01\"}}"};

// A change that every refused request of its code carries, read after the wrong key: a
// profile change restarts ptp4l, which the caller sees.
const std::string CHANGE_PROFILE = "\"profile\":\"smpte\"";
const size_t PAYLOAD = 60 * 1024;
const size_t SOCKET_LIMIT = 64 * 1024;

std::string request(const std::string& cmd, const std::string& data) {
    return "{\"cmd\":" + cmd + ",\"data\":" + data + "}";
}
std::string request(unsigned code, const std::string& data) {
    return request(std::to_string(code), data);
}

std::string repeated(const std::string& part, size_t times) {
    std::string out;
    out.reserve(part.size() * times);
    for (size_t i = 0; i < times; ++i) {
        out += part;
    }
    return out;
}

// Arrays nested depth deep.
std::string nested(int depth) {
    return repeated("[", static_cast<size_t>(depth)) + repeated("]", static_cast<size_t>(depth));
}

// A kind is named by its bytes, shown printable: the head and, of a long one, the tail and size.
std::string nameOf(const std::string& bytes) {
    auto shown = [](const std::string& part) {
        std::string out;
        for (unsigned char c : part) {
            char hex[5];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += c >= 0x20 && c < 0x7F && c != '\\' ? std::string(1, static_cast<char>(c)) : hex;
        }
        return out;
    };
    if (bytes.size() <= 100) {
        return "'" + shown(bytes) + "'";
    }
    return "'" + shown(bytes.substr(0, 60)) + "..." + shown(bytes.substr(bytes.size() - 30)) +
           "' (" + std::to_string(bytes.size()) + " bytes)";
}

class Builder {
  public:
    std::vector<HostileRequest> build(const std::string& readableFile) {
        for (const std::string& text : NOT_REQUESTS) {
            add(text, Answer::Refused);
        }
        for (const std::string whole : WHOLE_REQUESTS) {
            for (size_t size = 1; size < whole.size(); ++size) {
                add(whole.substr(0, size), Answer::Refused);
            }
        }
        for (const std::string& text : LENIENT) {
            add(text, Answer::Either);
        }
        nesting();
        codes();
        setterValues();
        fileNames(readableFile);
        largePayloads();
        return std::move(m_all);
    }

  private:
    // Once each: the cuts of the whole requests share their heads.
    void add(const std::string& bytes, Answer answer) {
        if (m_seen.insert(bytes).second) {
            m_all.push_back({nameOf(bytes), bytes, answer});
        }
    }
    // A SET PTP Parameter (1) or SET OstPmc running config (3) of member. A refused one
    // carries the profile change, so that a value read instead of refused is seen: after the
    // member where keys are applied one by one, before it where the whole request is checked
    // first.
    void set(unsigned code, const std::string& member, Answer answer, bool withChange = true) {
        std::string data = member;
        if (answer == Answer::Refused && withChange) {
            data = code == 1 ? member + "," + CHANGE_PROFILE : CHANGE_PROFILE + "," + member;
        }
        add(request(code, "{" + data + "}"), answer);
    }

    // The request's object and "data" are two of the parser's levels.
    void nesting() {
        const int limit = JsonText::MAX_DEPTH;
        add(request(0, "{\"x\":" + nested(limit - 2) + "}"), Answer::Ignored);
        add(request(0, "{\"x\":" + nested(limit - 1) + "}"), Answer::Refused);
        set(1, "\"priority1\":" + nested(limit - 2), Answer::Refused);
        set(1, "\"priority1\":" + nested(limit - 1), Answer::Refused);
        add(nested(30000), Answer::Refused);
        add(repeated("{\"a\":", 10000) + "0" + repeated("}", 10000), Answer::Refused);
        add(std::string(PAYLOAD, '['), Answer::Refused);
    }

    void codes() {
        add("{\"data\":{\"priority1\":90}}", Answer::Refused);
        for (const char* code : WRONG_CODES) {
            add(request(code, "{\"priority1\":90}"), Answer::Refused);
        }
        add(request(std::string(60000, '9'), "{}"), Answer::Refused);
        for (unsigned code = 0; code <= 6; ++code) {
            for (const char* payload : WRONG_PAYLOADS) {
                add(request(code, payload), Answer::Refused);
            }
        }
        // No payload at all: GETs answer, the setters have nothing to apply.
        for (unsigned code : {0u, 1u, 2u, 3u, 5u}) {
            add("{\"cmd\":" + std::to_string(code) + "}", Answer::Ignored);
            add(request(code, "null"), Answer::Ignored);
        }
        add(request(0, "{\"priority1\":90,\"x\":[1]}"), Answer::Ignored);
        add(request(1, "{\"Priority1\":90,\"domains\":1}"), Answer::Ignored);
    }

    // Every key of both setters with every wrong value. A value the JSON library converts is
    // left out where the setter applies it; on the running configuration it leaves the active
    // profile, and nothing is applied.
    void keyValues(const WrongValues& values, const std::string& json) {
        for (const Key& key : PARAMETER_KEYS) {
            const std::string name = key.name, member = "\"" + name + "\":" + json;
            if (values.absent && name != "port") {
                set(1, member, Answer::Ignored);
            } else if ((values.convertsAs & key.reading) == 0) {
                set(1, member, Answer::Refused, name != "profile");
            } else if (!key.applies) {
                set(1, member, Answer::Ignored);
            }
        }
        auto answer = [&](const Key& key) {
            return values.convertsAs & key.reading ? Answer::Ignored : Answer::Refused;
        };
        for (const Key& key : RUNNING_CFG_KEYS) {
            const std::string name = key.name;
            set(3, "\"" + name + "\":" + json, answer(key), name != "profile");
        }
        for (const Key& key : PORT_ENTRY_KEYS) {
            const std::string name = key.name;
            const std::string other = name == "port" ? "\"syncInterval\":-3" : "\"port\":1";
            set(3, "\"port\":[{\"" + name + "\":" + json + "," + other + "}]", answer(key));
        }
    }

    // The wrong values, port entries that are no objects, and texts the setters cannot use.
    void setterValues() {
        for (const WrongValues& values : WRONG_VALUES) {
            for (const std::string json : values.json) {
                keyValues(values, json);
            }
        }
        for (const char* entry : {"null", "{}"}) {
            set(3, "\"port\":[" + std::string(entry) + "]", Answer::Ignored);
        }
        for (const char* entry : {"true", "1", "\"1\"", "[]", "[{\"port\":1}]"}) {
            set(3, "\"port\":[" + std::string(entry) + "]", Answer::Refused);
        }
        // Escaped NUL and valid UTF-8 are JSON: a profile name that is not one is ignored.
        set(1, "\"profile\":\"smpte\\u0000\"", Answer::Ignored);
        set(1, "\"profile\":\"\xd1\x81mpte\"", Answer::Ignored);
        set(1, "\"priority1\":\"9\\u00000\"", Answer::Refused);
        set(1, "\"priority1\":\"\xff\"", Answer::Refused);
    }

    // A configuration file that is not a readable regular file is refused, and nothing is run.
    void fileNames(const std::string& readable) {
        const std::string open = "\"" + readable;  // the readable file, its quote left open
        for (const std::string& name :
             {"\"/\""s, "\"/dev/null\""s, "\"/nonexistent-ostpmc/ptp4l.cfg\""s,
              "\"nonexistent-ostpmc.cfg\""s, "\"/nonexistent-ostpmc'; touch /tmp/ostpmc-x; '\""s,
              open + "/\"", open + "\\u0000.cfg\"", open + "\0.cfg\""s, "\"/etc/\xff\xfe.cfg\""s,
              "\"/" + std::string(PAYLOAD, 'a') + "\""}) {
            set(3, "\"cfgFilePath\":" + name, Answer::Refused);
        }
    }

    void largePayloads() {
        const std::string pad = "\"" + std::string(PAYLOAD, 'x') + "\"";
        add(request(0, "{\"pad\":" + pad + "}"), Answer::Ignored);
        add(std::string(PAYLOAD, ' ') + "{\"cmd\":0}", Answer::Ignored);
        set(1, "\"profile\":" + pad, Answer::Ignored);
        set(1, "\"domain\":" + pad, Answer::Refused);
        set(1, "\"domain\":" + std::string(60000, '1'), Answer::Refused);
        set(3, "\"cfgFilePath\":" + pad, Answer::Ignored);
        set(3, "\"port\":[{}" + repeated(",{}", 20000) + "]", Answer::Ignored);
        set(3,
            "\"port\":[" + repeated("{\"port\":1,\"syncInterval\":-3},", 2000) +
                "{\"port\":1,\"syncInterval\":\"-3\"}]",
            Answer::Refused);
        set(3, "\"port\":[5" + repeated(",5", 30000) + "]", Answer::Refused);
        // The largest request the socket takes.
        const std::string head = "{\"cmd\":0,\"data\":{\"pad\":\"", tail = "\"}}";
        add(head + std::string(SOCKET_LIMIT - head.size() - tail.size(), 'x') + tail,
            Answer::Ignored);
    }

    std::vector<HostileRequest> m_all;
    std::set<std::string> m_seen;
};

}  // namespace

std::vector<HostileRequest> hostileRequests(const std::string& readableFile) {
    return Builder().build(readableFile);
}
