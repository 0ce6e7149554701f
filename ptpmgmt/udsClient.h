#pragma once

#include <string>

// Datagram client on a Unix-domain socket: binds a private path of its own ("/var/run/
// udsClient.<pid>"), sends to one fixed server path and receives the replies. Every blocking
// call is bounded by 2-second socket time-outs. Knows nothing of PTP.
class udsClient {
  public:
    udsClient(std::string serverPath, int typeFlags);
    ~udsClient();
    udsClient(const udsClient&) = delete;
    udsClient& operator=(const udsClient&) = delete;

    int uds_open();
    // Bytes sent, or 0 or less on failure (no log line when nobody listens at the server path).
    int uds_send(const void* buf, unsigned int len);
    // Bytes received, or -1 (also after the 2-second time-out). The sender's path is copied to
    // fromPath (cleared first, at most fromLen bytes) when fromPath is given.
    int uds_recv(void* buf, int len, char* fromPath, int fromLen);
    void uds_close();

    const std::string& serverPath() const { return m_server_path; }
    const std::string& clientPath() const { return m_client_path; }
    int fd() const { return m_fd; }
    int typeFlags() const { return m_type_flags; }

  private:
    int m_fd;
    int m_type_flags;
    std::string m_server_path;
    std::string m_client_path;
};
