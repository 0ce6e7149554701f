#include "PhcClockDriver.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Logger.h"
#include "SysRoot.h"

int PhcClockDriver::setAvbMode(bool enable) {
    const int fd = open(SysRoot::path("/dev/ostphc").c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        Logger::log(Logger::ERR, "Open of PHC driver to set AVB mode failed errno==%d (%s)", errno,
                    strerror(errno));
        return -1;
    }
    // The command word, the enable flag, then seven reserved words.
    uint32_t request[REQUEST_WORDS] = {AVB_MODE_COMMAND, enable ? 1u : 0u};
    if (ioctl(fd, AVB_MODE_REQUEST, request) < 0) {
        const int error = errno;
        Logger::log(Logger::ERR, "Error in ioctl to PHC to set AVB mode errno=%d (%s)", error,
                    strerror(error));
        close(fd);
        return -1;
    }
    Logger::log(Logger::INF, "Success sending ioctl to Ostelio PTP Hardware Clock to %s AVB mode",
                enable ? "enable" : "disable");
    close(fd);
    return 0;
}
