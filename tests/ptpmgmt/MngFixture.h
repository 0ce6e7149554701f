#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Logger.h"
#include "ScriptedPeer.h"
#include "SysRoot.h"
#include "WireBytes.h"
#include "ptp4lMng.h"

// A ptp4lMng talking to a scripted peer at ptp4l's socket path, with every log line captured.
class MngFixture : public ::testing::Test {
  protected:
    MngFixture() : peer(SysRoot::path("/var/run/ptp4l")), mng(SysRoot::path("/var/run/ptp4l")) {}

    // Queues the reply the next request gets.
    void answer(const Bytes& datagram) { ASSERT_TRUE(peer.sendTo(mng.clientPath(), datagram)); }

    // The n-th request (0-based) must be this MANAGEMENT message; its sequenceId is not compared.
    void expectRequest(size_t n, uint8_t action, uint16_t id, const Bytes& data,
                       uint16_t targetPort = 0xFFFF, uint8_t domain = 0, uint8_t byte0 = 0x0D) {
        Bytes req = peer.requests().at(n);
        req.at(30) = req.at(31) = 0;
        EXPECT_EQ(req, mgmtMessage(action, mgmtTlv(id, data), targetPort, domain, byte0))
            << "request " << n << " id " << std::hex << id;
    }

    using Texts = std::vector<std::string>;
    Texts errors() const {
        Texts texts;
        for (const LogCapture::Line& line : log.lines()) {
            if (line.level == Logger::ERR) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    // Message records taken from the pool and not given back.
    static int inUse() { return msg_pool_stats().allocated - msg_pool_stats().pooled; }

    LogCapture log;
    ScriptedPeer peer;
    ptp4lMng mng;
};
