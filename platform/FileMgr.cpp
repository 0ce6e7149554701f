#include "FileMgr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "Logger.h"

int FileMgr::loadFileContent(const std::string& path, std::string& content) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        Logger::log(Logger::ERR, "FileMgr: cannot open %s: %s", path.c_str(), strerror(error));
        return -error;
    }
    std::string data;
    int error = 0;
    try {
        char buffer[4096];
        for (;;) {
            const ssize_t n = read(fd, buffer, sizeof(buffer));
            if (n > 0) {
                // The size is returned as an int: a larger file (or an endless device) is
                // refused before it exhausts memory.
                if (data.size() + static_cast<size_t>(n) > static_cast<size_t>(INT_MAX)) {
                    error = EFBIG;
                    break;
                }
                data.append(buffer, static_cast<size_t>(n));
            } else if (n == 0) {
                break;
            } else if (errno != EINTR) {
                error = errno;
                break;
            }
        }
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    close(fd);
    if (error != 0) {
        Logger::log(Logger::ERR, "FileMgr: error reading %s: %s", path.c_str(), strerror(error));
        return -error;
    }
    content.swap(data);
    return static_cast<int>(content.size());
}
