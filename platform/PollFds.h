#pragma once

#include <zmq.h>

#include <vector>

// The main loop's poll list: ZeroMQ sockets and plain descriptors. The list may grow while the
// loop runs; callers re-read getPollList() and getPollListSize() after any handler.
class PollFds {
  public:
    int addSocket(void* socket, short events);
    int addFd(int fd, short events);
    // Removes the item of a plain descriptor; 0, or -1 when it is not in the list.
    int removeFd(int fd);

    zmq_pollitem_t* getPollList() { return m_items.data(); }
    int getPollListSize() const { return static_cast<int>(m_items.size()); }

  private:
    std::vector<zmq_pollitem_t> m_items;
};
