#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Logger.h"
#include "ScriptedPeer.h"
#include "SysRoot.h"
#include "WireBytes.h"
#include "ptp4lMng.h"

// A ptp4lMng talking to a scripted peer at ptp4l's socket path, with every log line captured.
class MngFixture : public ::testing::Test {
  protected:
    MngFixture() : peer(SysRoot::path("/var/run/ptp4l")), mng(SysRoot::path("/var/run/ptp4l")) {}

    // The n-th request (0-based), waiting for it within a bounded time.
    Bytes request(size_t n) {
        EXPECT_TRUE(peer.waitForRequests(n + 1)) << "request " << n << " never arrived";
        const std::vector<Bytes> all = peer.requests();
        return n < all.size() ? all[n] : Bytes();
    }

    // Checks every header and management-body field of a request, and its TLV head.
    static void expectRequest(const Bytes& req, uint8_t action, uint16_t id, size_t dataLength,
                              uint16_t targetPort = 0xFFFF, uint8_t domain = 0,
                              uint8_t byte0 = 0x0D) {
        ASSERT_EQ(req.size(), 54 + dataLength);
        WireReader r(req);
        EXPECT_EQ(r.u8(0), byte0);
        EXPECT_EQ(r.u8(1), 2);
        EXPECT_EQ(r.be16(2), 54 + dataLength) << "messageLength";
        EXPECT_EQ(r.u8(4), domain);
        EXPECT_EQ(r.u8(5), 0);
        EXPECT_EQ(r.be16(6), 0) << "flagField";
        EXPECT_EQ(r.be64(8), 0u) << "correctionField";
        EXPECT_EQ(r.be32(16), 0u);
        EXPECT_EQ(r.be64(20), 0u) << "source clockIdentity";
        EXPECT_EQ(r.be16(28), 1) << "source portNumber";
        EXPECT_EQ(r.u8(32), 0x04);
        EXPECT_EQ(r.u8(33), 0x7F);
        EXPECT_EQ(r.be64(34), ~0ULL) << "target clockIdentity";
        EXPECT_EQ(r.be16(42), targetPort);
        EXPECT_EQ(r.u8(44), 0) << "startingBoundaryHops";
        EXPECT_EQ(r.u8(45), 0) << "boundaryHops";
        EXPECT_EQ(r.u8(46), action);
        EXPECT_EQ(r.u8(47), 0);
        EXPECT_EQ(r.be16(48), 1) << "tlvType";
        EXPECT_EQ(r.be16(50), 2 + dataLength) << "lengthField";
        EXPECT_EQ(r.be16(52), id) << "managementId";
    }

    static uint16_t sequenceId(const Bytes& req) { return WireReader(req).be16(30); }

    LogCapture log;
    ScriptedPeer peer;
    ptp4lMng mng;
};
