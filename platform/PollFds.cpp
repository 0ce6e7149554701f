#include "PollFds.h"

#include <algorithm>

int PollFds::addSocket(void* socket, short events) {
    if (!socket) {
        return -1;
    }
    zmq_pollitem_t item{};
    item.socket = socket;
    item.fd = -1;
    item.events = events;
    m_items.push_back(item);
    return 0;
}

int PollFds::addFd(int fd, short events) {
    if (fd < 0) {
        return -1;
    }
    zmq_pollitem_t item{};
    item.socket = nullptr;
    item.fd = fd;
    item.events = events;
    m_items.push_back(item);
    return 0;
}

int PollFds::removeFd(int fd) {
    auto it = std::find_if(m_items.begin(), m_items.end(), [fd](const zmq_pollitem_t& item) {
        return item.socket == nullptr && item.fd == fd;
    });
    if (it == m_items.end()) {
        return -1;
    }
    m_items.erase(it);
    return 0;
}
