#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
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

bool isSocket(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Leaves a socket file behind with nobody bound to it, as a killed ptp4l does.
void leaveDeadSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    unlink(path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
}

}  // namespace

TEST(UdsClient, BindsItsPerProcessPathAndRemovesItOnClose) {
    LogCapture log;
    {
        udsClient client(SysRoot::path("/var/run/ptp4l"), 0);
        EXPECT_GE(client.fd(), 0);
        EXPECT_EQ(client.clientPath(), clientPath());
        ASSERT_TRUE(isSocket(clientPath()));
        struct stat st;
        ASSERT_EQ(stat(clientPath().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0660u);

        client.uds_close();
        EXPECT_FALSE(exists(clientPath()));
        EXPECT_EQ(client.fd(), -1);
        EXPECT_TRUE(client.clientPath().empty());
        client.uds_close();  // twice is harmless
    }
    {
        ptp4lMng mng(SysRoot::path("/var/run/ptp4l"));
        EXPECT_TRUE(isSocket(clientPath()));
    }
    EXPECT_FALSE(exists(clientPath())) << "destruction removes the socket file";
    EXPECT_TRUE(log.lines().empty());
}

TEST(UdsClient, StaleFileAtTheClientPathIsReplaced) {
    std::ofstream(clientPath()) << "left over from an earlier run";
    ASSERT_TRUE(exists(clientPath()));
    LogCapture log;
    udsClient client(SysRoot::path("/var/run/ptp4l"), 0);
    EXPECT_GE(client.fd(), 0);
    EXPECT_TRUE(isSocket(clientPath()));
    EXPECT_TRUE(log.lines().empty());
}

TEST(UdsClient, SendWithoutServer) {
    LogCapture log;
    udsClient client(SysRoot::path("/var/run/ptp4l-dead"), 0);
    const char datagram[4] = {1, 2, 3, 4};

    // A socket file with nobody behind it (ptp4l killed): quiet, the receive reports it.
    leaveDeadSocket(SysRoot::path("/var/run/ptp4l-dead"));
    EXPECT_LE(client.uds_send(datagram, sizeof(datagram)), 0);
    EXPECT_TRUE(log.lines().empty());

    // No file at all (ptp4l stopped cleanly) is an error of its own.
    unlink(SysRoot::path("/var/run/ptp4l-dead").c_str());
    EXPECT_EQ(client.uds_send(datagram, sizeof(datagram)), -1);
    EXPECT_TRUE(log.contains("UDS: Error on sendto = 2 (No such file or directory)", Logger::ERR));
}

TEST(UdsClient, ExchangesDatagramsWithTheServer) {
    ScriptedPeer peer(SysRoot::path("/var/run/ptp4l"));
    LogCapture log;
    udsClient client(peer.path(), 0);

    const Bytes out = {0x0D, 0x02, 0x00, 0x30};
    EXPECT_EQ(client.uds_send(out.data(), static_cast<unsigned>(out.size())), 4);
    ASSERT_TRUE(peer.waitForRequests(1));
    EXPECT_EQ(peer.lastRequest(), out);

    ASSERT_TRUE(peer.sendTo(clientPath(), {9, 8, 7}));
    unsigned char buf[16];
    std::memset(buf, 0xEE, sizeof(buf));
    char from[132];
    std::memset(from, 'x', sizeof(from));
    EXPECT_EQ(client.uds_recv(buf, sizeof(buf), from, sizeof(from)), 3);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{9, 8, 7, 0})) << "the rest of the buffer is cleared";
    EXPECT_EQ(std::string(from), peer.path());

    ASSERT_TRUE(peer.sendTo(clientPath(), {1}));
    char shortFrom[8];
    EXPECT_EQ(client.uds_recv(buf, sizeof(buf), shortFrom, sizeof(shortFrom)), 1);
    EXPECT_EQ(std::string(shortFrom), peer.path().substr(0, 7)) << "cut, still terminated";

    ASSERT_TRUE(peer.sendTo(clientPath(), {2}));
    EXPECT_EQ(client.uds_recv(buf, sizeof(buf), nullptr, 0), 1);

    // An empty datagram is sent as asked.
    EXPECT_EQ(client.uds_send(out.data(), 0), 0);
    ASSERT_TRUE(peer.waitForRequests(2));
    EXPECT_TRUE(peer.lastRequest().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST(UdsClient, FailedOpenLeavesAnUnusableClient) {
    // A directory at the client path cannot be removed or bound over.
    ASSERT_EQ(mkdir(clientPath().c_str(), 0700), 0);
    {
        LogCapture log;
        ptp4lMng mng(SysRoot::path("/var/run/ptp4l"));
        EXPECT_EQ(mng.fd(), -1);
        EXPECT_TRUE(log.contains("uds: bind failed! 98 (Address already in use)", Logger::ERR));
        EXPECT_TRUE(
            log.contains("Error on udsClient open 98 (Address already in use)", Logger::ERR));

        log.clear();
        char buf[8];
        EXPECT_EQ(mng.uds_send(buf, sizeof(buf)), -1);
        EXPECT_TRUE(log.contains("Attempted send on invalid UDS socket!", Logger::ERR));
        EXPECT_EQ(mng.uds_recv(buf, sizeof(buf), nullptr, 0), -1);
        EXPECT_TRUE(log.contains("Attempted recv on invalid UDS socket!", Logger::ERR));

        log.clear();
        defaultDS ds;
        EXPECT_EQ(mng.get_default_ds(ds), -1);
        EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
        EXPECT_TRUE(
            log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    }
    EXPECT_EQ(rmdir(clientPath().c_str()), 0) << "the directory was left alone";
}
