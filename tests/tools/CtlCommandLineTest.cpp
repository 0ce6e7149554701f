// What an operator types, and what ostpmc-ctl makes of it.
#include <gtest/gtest.h>

#include "CtlCommandLine.h"
#include "CtlFormat.h"

namespace {

bool parse(std::vector<std::string> words, CtlRequest& request, std::string& error) {
    std::vector<char*> argv{const_cast<char*>("ostpmc-ctl")};
    for (std::string& w : words) {
        argv.push_back(&w[0]);
    }
    return parseCtlCommandLine(static_cast<int>(argv.size()), argv.data(), request, error);
}

}  // namespace

TEST(CtlCommandLine, MistakesAreNamed) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"--frobnicate", "status"}, "unknown option '--frobnicate'"},
        {{"status", "now"}, "status takes no arguments"},
        {{"-t", "soon", "status"}, "--timeout needs a positive whole number, got 'soon'"},
        {{"status", "--host"}, "--host needs a value"},
        {{"watch", "999"}, "unknown topic '999' (1000 or 1001)"},
        {{"set", "priority1"}, "expected key=value, got 'priority1'"},
        {{"set", "priority1=high"}, "priority1 needs a whole number 0..255, got 'high'"},
        {{"set", "priority1=99999999999"},
         "priority1 needs a whole number 0..255, got '99999999999'"},
        // What the wire cannot carry is refused before anything is sent.
        {{"set", "priority1=256"}, "priority1 needs a whole number 0..255, got '256'"},
        {{"set", "domain=-1"}, "domain needs a whole number 0..255, got '-1'"},
        {{"set", "port=0"}, "port needs a whole number 1..255, got '0'"},
        {{"set", "announceReceiptTimeout=256"},
         "announceReceiptTimeout needs a whole number 0..255, got '256'"},
        {{"set", "syncInterval=128"}, "syncInterval needs a whole number -128..127, got '128'"},
        {{"set", "announceInterval=-129"},
         "announceInterval needs a whole number -128..127, got '-129'"},
        {{"set", "slaveOnly=maybe"}, "slaveOnly needs true or false, got 'maybe'"},
        {{"set", "colour=red"}, "unknown parameter 'colour'"},
    };
    for (const auto& [words, expected] : cases) {
        CtlRequest r;
        std::string error;
        EXPECT_FALSE(parse(words, r, error)) << expected;
        EXPECT_EQ(expected, error);
    }
}

TEST(CtlCommandLine, SetBuildsTheParameterObjectOfTheRequest) {
    CtlRequest r;
    std::string error;
    ASSERT_TRUE(
        parse({"set", "domain=0x7f", "priority1=100", "priority2=255", "port=2", "syncInterval=-3",
               "announceInterval=-128", "slaveOnly=true", "profile=smpte"},
              r, error))
        << error;
    EXPECT_EQ(CtlRequest::Command::Set, r.command);
    Json::Value expected;
    expected["domain"] = 127;
    expected["priority1"] = 100;
    expected["priority2"] = 255;
    expected["announceInterval"] = -128;
    expected["port"] = 2;
    expected["syncInterval"] = -3;
    expected["slaveOnly"] = true;
    expected["profile"] = "smpte";
    EXPECT_EQ(expected, r.parameters);
}

TEST(CtlFormat, ReadableTextShowsWhatIsThereAndMarksWhatIsNot) {
    Json::Value status;
    status["profile"] = "SMPTE:2059-2";
    status["domainNumber"] = 127;
    status["offsetFromMaster"] = -4987.25;
    status["local"]["clockAccuracy"] = 0xFE;
    status["local"]["clockAccuracyTable6"] = "Unknown";
    Json::Value port;
    port["portId"] = 1;
    port["roleStatus"] = "Slave";
    port["roleStatusId"] = 9;
    status["port"].append(port);
    const std::string text = CtlFormat::status(status);
    EXPECT_NE(std::string::npos, text.find("SMPTE:2059-2"));
    EXPECT_NE(std::string::npos, text.find("-4987.2 ns"));
    EXPECT_NE(std::string::npos, text.find("0xfe (Unknown)"));
    EXPECT_NE(std::string::npos, text.find("port 1  Slave (9)"));
    EXPECT_NE(std::string::npos, text.find("mean path delay       - ns"));

    Json::Value cfg;
    cfg["profile"] = "AES67:Media";
    cfg["cfgFilePath"] = "";
    cfg["slaveOnly"] = -1;
    const std::string cfgText = CtlFormat::config(cfg);
    EXPECT_NE(std::string::npos, cfgText.find("domain                not set"));
    EXPECT_NE(std::string::npos, cfgText.find("slave only            not set"));
    EXPECT_NE(std::string::npos, cfgText.find("config file           profile default"));

    // Wrongly typed or unknown content still prints.
    Json::Value odd;
    odd["action"] = "loud";
    EXPECT_NE(std::string::npos, CtlFormat::publication("1000", odd).find("action loud"));
    Json::Value other;
    other["a"] = 1;
    EXPECT_EQ("[7] {\"a\":1}\n", CtlFormat::publication("7", other));
}
