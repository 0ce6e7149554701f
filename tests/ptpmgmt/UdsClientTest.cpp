#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Logger.h"
#include "ScriptedPeer.h"
#include "SysRoot.h"
#include "ptp4lMng.h"
#include "udsClient.h"

namespace {

std::string clientPath() {
    return SysRoot::path("/var/run/udsClient.") + std::to_string(getpid());
}

// The permission bits of a socket file, or -1 when there is none.
int socketMode(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) ? int(st.st_mode & 0777) : -1;
}

}  // namespace

TEST(UdsClient, ReplacesAStaleFileExchangesAndRemovesItsSocketOnClose) {
    std::ofstream(clientPath()) << "left over from an earlier run";
    ScriptedPeer peer(SysRoot::path("/var/run/ptp4l"));
    LogCapture log;
    udsClient client(peer.path, 0);
    EXPECT_EQ(client.clientPath(), clientPath());
    EXPECT_EQ(socketMode(clientPath()), 0660);
    const Bytes out = {0x0D, 0x02, 0x00, 0x30};
    EXPECT_EQ(client.uds_send(out.data(), 4), 4);
    EXPECT_EQ(client.uds_send(out.data(), 0), 0) << "an empty datagram is sent as asked";
    EXPECT_EQ(peer.requests(), (std::vector<Bytes>{out, {}}));

    ASSERT_TRUE(peer.sendTo(clientPath(), {9, 8, 7}));
    unsigned char buf[8] = {0xEE, 0xEE, 0xEE, 0xEE};
    char from[8];
    EXPECT_EQ(client.uds_recv(buf, sizeof(buf), from, sizeof(from)), 3);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{9, 8, 7, 0})) << "the rest of the buffer is cleared";
    EXPECT_EQ(std::string(from), peer.path.substr(0, 7)) << "the sender, cut and terminated";

    client.uds_close();
    EXPECT_EQ(socketMode(clientPath()), -1);
    EXPECT_EQ(client.fd(), -1);
    client.uds_close();  // twice is harmless
    EXPECT_TRUE(log.lines().empty());
}

TEST(UdsClient, SendWithoutServer) {
    const std::string server = SysRoot::path("/var/run/ptp4l-dead");
    LogCapture log;
    udsClient client(server, 0);
    const char datagram[4] = {1, 2, 3, 4};
    // A socket file with nobody behind it (ptp4l killed): quiet, the receive reports it.
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un addr = unixAddress(server);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
    EXPECT_LE(client.uds_send(datagram, sizeof(datagram)), 0);
    EXPECT_TRUE(log.lines().empty());

    // No file at all (ptp4l stopped cleanly) is an error of its own.
    unlink(server.c_str());
    EXPECT_EQ(client.uds_send(datagram, sizeof(datagram)), -1);
    EXPECT_TRUE(log.contains("UDS: Error on sendto = 2 (No such file or directory)", Logger::ERR));
}

TEST(UdsClient, FailedOpenLeavesAnUnusableClient) {
    // A directory at the client path cannot be removed or bound over.
    ASSERT_EQ(mkdir(clientPath().c_str(), 0700), 0);
    {
        LogCapture log;
        ptp4lMng mng(SysRoot::path("/var/run/ptp4l"));
        EXPECT_EQ(mng.fd(), -1);
        char buf[8] = {};
        EXPECT_EQ(mng.uds_send(buf, sizeof(buf)), -1);
        EXPECT_EQ(mng.uds_recv(buf, sizeof(buf), nullptr, 0), -1);
        std::string texts;
        for (const LogCapture::Line& line : log.lines()) {
            texts += (line.level == Logger::ERR ? "" : "?") + line.text + "\n";
        }
        EXPECT_EQ(texts,
                  "uds: bind failed! 98 (Address already in use)\n"
                  "Error on udsClient open 98 (Address already in use)\n"
                  "Attempted send on invalid UDS socket!\n"
                  "Attempted recv on invalid UDS socket!\n");
    }
    EXPECT_EQ(rmdir(clientPath().c_str()), 0) << "the directory was left alone";
}
