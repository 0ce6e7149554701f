#include "HostileRequests.h"

#include <cstddef>

#include "JsonText.h"

namespace {

using Answer = HostileRequest::Answer;

// How a setter reads a value; a bit set in WrongValue::convertsAs means that the JSON library
// converts the value that way instead of throwing.
enum Reading : unsigned {
    UNSIGNED = 1,  // asUInt: null, booleans and numbers from 0 to 2^32-1 (fraction cut)
    SIGNED = 2,    // asInt: null, booleans and numbers in the int range (fraction cut)
    BOOLEAN = 4,   // asBool: null, booleans and numbers
    TEXT = 8,      // asString: anything but arrays and objects
    LIST = 16,     // the "port" list: anything but a non-empty array or object of non-objects
};
constexpr unsigned SCALAR = BOOLEAN | TEXT | LIST;

struct WrongValue {
    const char* name;
    const char* json;
    unsigned convertsAs;
    bool absent;  // SET PTP Parameter takes null, [] and {} as a key not given
};

const WrongValue WRONG_VALUES[] = {
    {"null", "null", UNSIGNED | SIGNED | SCALAR, true},
    {"true", "true", UNSIGNED | SIGNED | SCALAR, false},
    {"false", "false", UNSIGNED | SIGNED | SCALAR, false},
    {"-1", "-1", SIGNED | SCALAR, false},
    {"below the int range", "-2147483649", SCALAR, false},
    {"above the unsigned range", "4294967296", SCALAR, false},
    {"largest 64-bit number", "18446744073709551615", SCALAR, false},
    {"1e300", "1e300", SCALAR, false},
    {"2.5", "2.5", UNSIGNED | SIGNED | SCALAR, false},
    {"-2.5", "-2.5", SIGNED | SCALAR, false},
    {"numeric text", "\"5\"", TEXT | LIST, false},
    {"text", "\"abc\"", TEXT | LIST, false},
    {"empty text", "\"\"", TEXT | LIST, false},
    {"empty array", "[]", LIST, true},
    {"array", "[5]", 0, false},
    {"empty object", "{}", LIST, true},
    {"object", "{\"value\":5}", 0, false},
};

struct Key {
    const char* name;
    Reading reading;
    bool applies;  // a converted value changes something (SET PTP Parameter only)
};

// SET PTP Parameter's keys. "port" only selects the entry the interval keys change and
// "profile" is read as a profile name, which none of the wrong values is.
const Key PARAMETER_KEYS[] = {
    {"domain", UNSIGNED, true},         {"priority1", UNSIGNED, true},
    {"priority2", UNSIGNED, true},      {"port", SIGNED, false},
    {"announceInterval", SIGNED, true}, {"announceReceiptTimeout", SIGNED, true},
    {"syncInterval", SIGNED, true},     {"slaveOnly", BOOLEAN, true},
    {"profile", TEXT, false},
};

// SET OstPmc running config's keys, and those of each "port" entry.
const Key RUNNING_CFG_KEYS[] = {
    {"profile", TEXT, false},       {"domainNumber", UNSIGNED, false},
    {"priority1", UNSIGNED, false}, {"priority2", UNSIGNED, false},
    {"slaveOnly", SIGNED, false},   {"cfgFilePath", TEXT, false},
    {"port", LIST, false},
};
const Key PORT_ENTRY_KEYS[] = {
    {"port", SIGNED, false},
    {"syncInterval", SIGNED, false},
    {"announceInterval", SIGNED, false},
    {"announceReceiptTimeout", SIGNED, false},
};

// A change that every refused request of its code carries, read after the wrong key: a
// profile change restarts ptp4l, which the caller sees.
const char* const CHANGE_PROFILE = "\"profile\":\"smpte\"";
const size_t PAYLOAD = 60 * 1024;
const size_t SOCKET_LIMIT = 64 * 1024;

std::string request(const std::string& cmd, const std::string& data) {
    return "{\"cmd\":" + cmd + ",\"data\":" + data + "}";
}

std::string request(unsigned code, const std::string& data) {
    return request(std::to_string(code), data);
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    return out + "\"";
}

std::string repeated(const std::string& part, size_t times) {
    std::string out;
    out.reserve(part.size() * times);
    for (size_t i = 0; i < times; ++i) {
        out += part;
    }
    return out;
}

// Arrays nested so that the whole request is depth containers deep (its object and "data"
// included), under the key "x" of a GET PTP INFO, or as the value of key in a SET PTP
// Parameter.
std::string nested(int depth) {
    return repeated("[", static_cast<size_t>(depth)) + repeated("]", static_cast<size_t>(depth));
}

class Builder {
  public:
    explicit Builder(std::string readableFile) : m_file(std::move(readableFile)) {}

    std::vector<HostileRequest> build() {
        notRequests();
        truncations();
        duplicateKeys();
        nesting();
        codes();
        payloadTypes();
        parameterValues();
        runningCfgValues();
        fileNames();
        textEncoding();
        largePayloads();
        return std::move(m_all);
    }

  private:
    void add(const std::string& name, const std::string& bytes, Answer answer) {
        m_all.push_back({name, bytes, answer});
    }

    void notRequests() {
        const struct {
            const char* name;
            const char* text;
        } texts[] = {
            {"empty frame", ""},
            {"blanks only", " \t\r\n"},
            {"plain words", "GET PTP INFO"},
            {"null", "null"},
            {"true", "true"},
            {"a number", "0"},
            {"a text", "\"cmd\""},
            {"an empty array", "[]"},
            {"an array holding a request", "[{\"cmd\":0}]"},
            {"an opening brace", "{"},
            {"a closing brace", "}"},
            {"a key without value", "{\"cmd\"}"},
            {"a key and colon", "{\"cmd\":}"},
            {"single quotes", "{'cmd':0}"},
            {"an unquoted key", "{cmd:0}"},
            {"a trailing comma", "{\"cmd\":0,}"},
            {"a missing comma", "{\"cmd\":0 \"data\":{}}"},
            {"two requests", "{\"cmd\":0}{\"cmd\":0}"},
            {"trailing text", "{\"cmd\":0} x"},
            {"cmd NaN", "{\"cmd\":NaN}"},
            {"cmd Infinity", "{\"cmd\":Infinity}"},
            {"cmd -Infinity", "{\"cmd\":-Infinity}"},
            {"cmd in hex", "{\"cmd\":0x1}"},
            {"cmd .5", "{\"cmd\":.5}"},
            {"cmd 1e400", "{\"cmd\":1e400}"},
            {"an unterminated text", "{\"cmd\":0,\"data\":{\"profile\":\"smpte}}"},
            {"an unknown escape", "{\"cmd\":0,\"data\":{\"profile\":\"\\x41\"}}"},
            {"a short unicode escape", "{\"cmd\":0,\"data\":{\"profile\":\"\\u12\"}}"},
            {"a lone high surrogate escape", "{\"cmd\":0,\"data\":{\"profile\":\"\\ud800\"}}"},
            {"an XML document", "<request cmd=\"0\"/>"},
        };
        for (const auto& t : texts) {
            add(std::string("not a request: ") + t.name, t.text, Answer::Refused);
        }
        add("not a request: a NUL byte first", std::string("\0{\"cmd\":0}", 10), Answer::Refused);
        add("not a request: a NUL byte between key and colon", std::string("{\"cmd\"\0:0}", 10),
            Answer::Refused);
        add("not a request: binary bytes", std::string("\x01\x02\x80\xff\xfe\x00\x10", 7),
            Answer::Refused);
    }

    // Every cut of requests that would change something were they whole.
    void truncations() {
        const struct {
            const char* name;
            const char* whole;
        } wholes[] = {
            {"SET PTP Parameter", "{\"cmd\":1,\"data\":{\"priority1\":90,\"syncInterval\":-3}}"},
            {"slave-only SET PTP Parameter", "{\"cmd\":1,\"data\":{\"slaveOnly\":true}}"},
            {"SET OstPmc running config",
             "{\"cmd\":3,\"data\":{\"profile\":\"smpte\",\"domainNumber\":127,"
             "\"port\":[{\"port\":1,\"syncInterval\":-3}]}}"},
        };
        for (const auto& w : wholes) {
            const std::string whole = w.whole;
            for (size_t size = 1; size < whole.size(); ++size) {
                add(std::string(w.name) + " cut after " + std::to_string(size) + " bytes",
                    whole.substr(0, size), Answer::Refused);
            }
        }
    }

    void duplicateKeys() {
        const struct {
            const char* name;
            std::string text;
        } texts[] = {
            {"cmd", "{\"cmd\":0,\"cmd\":1,\"data\":{\"priority1\":90}}"},
            {"data", "{\"cmd\":1,\"data\":{},\"data\":{\"priority1\":90}}"},
            {"priority1", request(1, "{\"priority1\":90,\"priority1\":91}")},
            {"profile", request(3, "{\"profile\":\"smpte\",\"profile\":\"gptp\"}")},
            {"port entry's port",
             request(3, "{\"profile\":\"smpte\",\"port\":[{\"port\":1,\"port\":2}]}")},
        };
        for (const auto& t : texts) {
            add(std::string("duplicate key: ") + t.name, t.text, Answer::Refused);
        }
    }

    void nesting() {
        const int limit = JsonText::MAX_DEPTH;
        // The request's object and "data" are two of the levels.
        add("nesting at the parser's limit", request(0, "{\"x\":" + nested(limit - 2) + "}"),
            Answer::Ignored);
        add("nesting one beyond the parser's limit",
            request(0, "{\"x\":" + nested(limit - 1) + "}"), Answer::Refused);
        add("priority1 nested at the parser's limit",
            request(1, "{\"priority1\":" + nested(limit - 2) + "," + CHANGE_PROFILE + "}"),
            Answer::Refused);
        add("priority1 nested one beyond the parser's limit",
            request(1, "{\"priority1\":" + nested(limit - 1) + "," + CHANGE_PROFILE + "}"),
            Answer::Refused);
        add("30,000 nested arrays", nested(30000), Answer::Refused);
        add("10,000 nested objects", repeated("{\"a\":", 10000) + "0" + repeated("}", 10000),
            Answer::Refused);
        add("60 KiB of opening brackets", std::string(PAYLOAD, '['), Answer::Refused);
    }

    void codes() {
        const struct {
            const char* name;
            const char* json;
        } refused[] = {
            {"absent", nullptr},
            {"null", "null"},
            {"true", "true"},
            {"false", "false"},
            {"numeric text", "\"0\""},
            {"text", "\"GET PTP INFO\""},
            {"-1", "-1"},
            {"smallest int", "-2147483648"},
            {"2.5", "2.5"},
            {"-1.5", "-1.5"},
            {"1e300", "1e300"},
            {"empty array", "[]"},
            {"array", "[0]"},
            {"empty object", "{}"},
            {"object", "{\"cmd\":0}"},
            {"6, the first unknown", "6"},
            {"7", "7"},
            {"255", "255"},
            {"65536", "65536"},
            {"largest int", "2147483647"},
            {"2^31", "2147483648"},
            {"largest unsigned", "4294967295"},
            {"2^32", "4294967296"},
            {"largest 64-bit number", "18446744073709551615"},
            {"2^64", "18446744073709551616"},
        };
        for (const auto& c : refused) {
            const std::string data = "{\"priority1\":90}";
            add(std::string("cmd ") + c.name,
                c.json ? request(c.json, data) : "{\"data\":" + data + "}", Answer::Refused);
        }
        add("cmd of 60,000 digits", request(std::string(60000, '9'), "{}"), Answer::Refused);
        add("cmd under another case", "{\"CMD\":0}", Answer::Refused);
        add("cmd with a blank in its key", "{\"cmd \":0}", Answer::Refused);
        add("cmd with a NUL in its key", "{\"cmd\\u0000\":0}", Answer::Refused);
        add("cmd nested in data", "{\"data\":{\"cmd\":0}}", Answer::Refused);
        // The parser may read these as numbers; each names a request that changes nothing.
        add("cmd with a leading zero", "{\"cmd\":02}", Answer::Either);
        add("cmd with a plus sign", "{\"cmd\":+0}", Answer::Either);
        add("cmd -0", "{\"cmd\":-0}", Answer::Either);
        add("cmd 2.0", "{\"cmd\":2.0}", Answer::Either);
        add("cmd 5e0", "{\"cmd\":5e0}", Answer::Either);
    }

    // "data" that is not an object, for every code.
    void payloadTypes() {
        const struct {
            const char* name;
            const char* json;
        } wrong[] = {
            {"text", "\"priority1=90\""},
            {"number", "90"},
            {"-1", "-1"},
            {"2.5", "2.5"},
            {"true", "true"},
            {"empty array", "[]"},
            {"array of an object", "[{\"priority1\":90}]"},
        };
        for (unsigned code = 0; code <= 6; ++code) {
            for (const auto& w : wrong) {
                add("cmd " + std::to_string(code) + " with data as " + w.name,
                    request(code, w.json), Answer::Refused);
            }
        }
        // No payload at all: GETs answer, the setters have nothing to apply.
        for (unsigned code : {0u, 1u, 2u, 3u, 5u}) {
            add("cmd " + std::to_string(code) + " without data",
                "{\"cmd\":" + std::to_string(code) + "}", Answer::Ignored);
            add("cmd " + std::to_string(code) + " with data null", request(code, "null"),
                Answer::Ignored);
        }
        add("GET PTP INFO with data of unknown keys", request(0, "{\"priority1\":90,\"x\":[1]}"),
            Answer::Ignored);
        add("SET PTP Parameter of unknown keys", request(1, "{\"Priority1\":90,\"domains\":1}"),
            Answer::Ignored);
    }

    void parameterValues() {
        for (const Key& key : PARAMETER_KEYS) {
            const bool port = std::string(key.name) == "port";
            for (const WrongValue& value : WRONG_VALUES) {
                const std::string name =
                    std::string("SET PTP Parameter, ") + key.name + " as " + value.name;
                const std::string member = quoted(key.name) + ":" + value.json;
                if (value.absent && !port) {
                    add(name, request(1, "{" + member + "}"), Answer::Ignored);
                } else if ((value.convertsAs & key.reading) == 0) {
                    const bool change = std::string(key.name) != "profile";
                    add(name,
                        request(1, "{" + member +
                                       (change ? std::string(",") + CHANGE_PROFILE : "") + "}"),
                        Answer::Refused);
                } else if (!key.applies) {
                    add(name, request(1, "{" + member + "}"), Answer::Ignored);
                }
            }
        }
    }

    void runningCfgValues() {
        for (const Key& key : RUNNING_CFG_KEYS) {
            for (const WrongValue& value : WRONG_VALUES) {
                const std::string member = quoted(key.name) + ":" + value.json;
                const bool profile = std::string(key.name) == "profile";
                runningCfg(
                    std::string("SET OstPmc running config, ") + key.name + " as " + value.name,
                    member, (value.convertsAs & key.reading) != 0, !profile);
            }
        }
        for (const Key& key : PORT_ENTRY_KEYS) {
            for (const WrongValue& value : WRONG_VALUES) {
                const std::string member = quoted(key.name) + ":" + value.json;
                const std::string other = std::string(key.name) == "port"
                                              ? ",\"syncInterval\":-3"
                                              : std::string(",\"port\":1");
                runningCfg(std::string("SET OstPmc running config, port entry's ") + key.name +
                               " as " + value.name,
                           "\"port\":[{" + member + other + "}]",
                           (value.convertsAs & key.reading) != 0, true);
            }
        }
        const struct {
            const char* name;
            const char* json;
            bool converts;
        } entries[] = {
            {"null", "null", true},
            {"an empty object", "{}", true},
            {"true", "true", false},
            {"a number", "1", false},
            {"a text", "\"1\"", false},
            {"an empty array", "[]", false},
            {"an array", "[{\"port\":1}]", false},
        };
        for (const auto& e : entries) {
            runningCfg(std::string("SET OstPmc running config, a port entry as ") + e.name,
                       std::string("\"port\":[") + e.json + "]", e.converts, true);
        }
    }

    // A converted value leaves the active profile: nothing is applied. A refused one carries
    // a profile change, unless it is the profile itself.
    void runningCfg(const std::string& name, const std::string& member, bool converts,
                    bool withChange) {
        if (converts) {
            add(name, request(3, "{" + member + "}"), Answer::Ignored);
        } else {
            add(name,
                request(3, withChange ? "{" + std::string(CHANGE_PROFILE) + "," + member + "}"
                                      : "{" + member + "}"),
                Answer::Refused);
        }
    }

    // A configuration file that is not a readable regular file is refused, and nothing is run.
    void fileNames() {
        const std::string file = quoted(m_file);
        const struct {
            const char* name;
            std::string json;
        } names[] = {
            {"the root directory", "\"/\""},
            {"a character device", "\"/dev/null\""},
            {"a missing file", "\"/nonexistent-ostpmc/ptp4l.cfg\""},
            {"a relative name", "\"nonexistent-ostpmc.cfg\""},
            {"a name with shell words", "\"/nonexistent-ostpmc'; touch /tmp/ostpmc-x; '\""},
            {"a readable file with a trailing slash", file.substr(0, file.size() - 1) + "/\""},
            {"a readable file hidden behind an escaped NUL",
             file.substr(0, file.size() - 1) + "\\u0000.cfg\""},
            {"a readable file hidden behind a raw NUL",
             file.substr(0, file.size() - 1) + std::string(1, '\0') + ".cfg\""},
            {"invalid UTF-8", "\"/etc/\xff\xfe.cfg\""},
            {"a name longer than a path may be", "\"/" + std::string(PAYLOAD, 'a') + "\""},
        };
        for (const auto& n : names) {
            add(std::string("SET OstPmc running config, cfgFilePath as ") + n.name,
                request(3, "{" + std::string(CHANGE_PROFILE) + ",\"cfgFilePath\":" + n.json + "}"),
                Answer::Refused);
        }
    }

    void textEncoding() {
        const std::string nul(1, '\0');
        // Escaped NUL and valid UTF-8 are JSON: a profile name that is not one is ignored.
        add("SET PTP Parameter, profile with an escaped NUL after its name",
            request(1, "{\"profile\":\"smpte\\u0000\"}"), Answer::Ignored);
        add("SET PTP Parameter, profile in another script",
            request(1, "{\"profile\":\"\xd1\x81mpte\"}"), Answer::Ignored);
        add("SET PTP Parameter, priority1 as text with an escaped NUL",
            request(1, "{\"priority1\":\"9\\u00000\"," + std::string(CHANGE_PROFILE) + "}"),
            Answer::Refused);
        add("SET PTP Parameter, priority1 as invalid UTF-8",
            request(1, "{\"priority1\":\"\xff\"," + std::string(CHANGE_PROFILE) + "}"),
            Answer::Refused);
        // Not valid UTF-8, raw control characters, comments: a stricter parser refuses them;
        // each names a request that changes nothing.
        const struct {
            const char* name;
            std::string bytes;
        } lenient[] = {
            {"a trailing NUL byte", "{\"cmd\":0}" + nul},
            {"a block comment", "{\"cmd\":0/* c */}"},
            {"a line comment", "{\"cmd\":0 // c\n}"},
            {"a high surrogate escape with a bad low half",
             request(0, "{\"x\":\"\\ud800\\u0041\"}")},
            {"a byte-order mark", "\xef\xbb\xbf{\"cmd\":0}"},
            {"profile with a raw NUL after its name",
             request(1, "{\"profile\":\"smpte" + nul + "\"}")},
            {"profile as invalid UTF-8", request(1, "{\"profile\":\"\xff\xfe\"}")},
            {"profile as an overlong encoding", request(1, "{\"profile\":\"\xc0\xaf\"}")},
            {"profile as an encoded surrogate", request(1, "{\"profile\":\"\xed\xa0\x80\"}")},
            {"profile cut inside a character", request(1, "{\"profile\":\"\xe2\x82\"}")},
            {"profile as a lone low surrogate escape", request(1, "{\"profile\":\"\\udc00\"}")},
            {"a key of invalid UTF-8", request(0, "{\"\xff\":1}")},
            {"cfgFilePath as invalid UTF-8 in the active profile",
             request(3, "{\"cfgFilePath\":\"\xff\"}")},
            {"a raw tab in a text", request(0, "{\"x\":\"\t\"}")},
            {"a raw control character in a text", request(0, "{\"x\":\"\x01\"}")},
        };
        for (const auto& l : lenient) {
            add(std::string("encoding: ") + l.name, l.bytes, Answer::Either);
        }
        add("encoding: invalid UTF-8 in the cmd key", "{\"c\xffmd\":0}", Answer::Refused);
    }

    void largePayloads() {
        const std::string pad(PAYLOAD, 'x');
        add("60 KiB: GET PTP INFO with a long text", request(0, "{\"pad\":\"" + pad + "\"}"),
            Answer::Ignored);
        add("60 KiB: blanks before GET PTP INFO", std::string(PAYLOAD, ' ') + "{\"cmd\":0}",
            Answer::Ignored);
        add("60 KiB: SET PTP Parameter, profile as a long text",
            request(1, "{\"profile\":\"" + pad + "\"}"), Answer::Ignored);
        add("60 KiB: SET PTP Parameter, domain as a long text",
            request(1, "{\"domain\":\"" + pad + "\"," + CHANGE_PROFILE + "}"), Answer::Refused);
        add("60 KiB: SET PTP Parameter, domain as a number of 60,000 digits",
            request(1, "{\"domain\":" + std::string(60000, '1') + "," + CHANGE_PROFILE + "}"),
            Answer::Refused);
        add("60 KiB: SET OstPmc running config, cfgFilePath as a long text, active profile",
            request(3, "{\"cfgFilePath\":\"" + pad + "\"}"), Answer::Ignored);
        add("60 KiB: SET OstPmc running config, 20,000 empty port entries, active profile",
            request(3, "{\"port\":[{}" + repeated(",{}", 20000) + "]}"), Answer::Ignored);
        add("60 KiB: SET OstPmc running config, 2,000 port entries, the last one wrong",
            request(3, "{" + std::string(CHANGE_PROFILE) + ",\"port\":[" +
                           repeated("{\"port\":1,\"syncInterval\":-3},", 2000) +
                           "{\"port\":1,\"syncInterval\":\"-3\"}]}"),
            Answer::Refused);
        add("60 KiB: SET OstPmc running config, 30,000 numbers as port entries",
            request(3, "{" + std::string(CHANGE_PROFILE) + ",\"port\":[5" + repeated(",5", 30000) +
                           "]}"),
            Answer::Refused);
        // The largest request the socket takes.
        const std::string head = "{\"cmd\":0,\"data\":{\"pad\":\"";
        const std::string tail = "\"}}";
        add("64 KiB: GET PTP INFO at the size limit",
            head + std::string(SOCKET_LIMIT - head.size() - tail.size(), 'x') + tail,
            Answer::Ignored);
    }

    std::string m_file;
    std::vector<HostileRequest> m_all;
};

}  // namespace

std::vector<HostileRequest> hostileRequests(const std::string& readableFile) {
    return Builder(readableFile).build();
}
