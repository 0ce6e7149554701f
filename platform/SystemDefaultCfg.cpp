#include "SystemDefaultCfg.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "FileMgr.h"
#include "JsonText.h"
#include "Logger.h"
#include "PollFds.h"
#include "SysRoot.h"

namespace {

constexpr uint32_t WATCHED_EVENTS =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM;

void splitPath(const std::string& path, std::string& directory, std::string& name) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        directory = ".";
        name = path;
    } else {
        directory = slash == 0 ? "/" : path.substr(0, slash);
        name = path.substr(slash + 1);
    }
}

}  // namespace

SystemDefaultCfg* SystemDefaultCfg::getInstance() {
    static SystemDefaultCfg instance(SysRoot::path(DEFAULTS_FILE));
    return &instance;
}

SystemDefaultCfg::SystemDefaultCfg(const std::string& filePath) : m_path(filePath) {
    reload();
}

SystemDefaultCfg::~SystemDefaultCfg() {
    if (m_inotify_fd >= 0) {
        close(m_inotify_fd);
    }
}

int SystemDefaultCfg::getClockOffsetFromMasterThreshold(float& threshold) const {
    threshold = m_threshold;
    return 0;
}

int SystemDefaultCfg::reload() {
    int boardModel = BOARD_MODEL_UNDEFINED;
    float threshold = DEFAULT_THRESHOLD_NS;
    bool redundancy = false;
    const int rc = readFile(boardModel, threshold, redundancy);
    if (rc < 0) {
        boardModel = BOARD_MODEL_UNDEFINED;
        threshold = DEFAULT_THRESHOLD_NS;
        redundancy = false;
    }
    m_board_model = boardModel;
    m_threshold = threshold;
    m_redundancy = redundancy;
    Logger::log(Logger::INF,
                "SystemDefaultCfg: %s %s: boardModel %d (%s), clockOffsetFromMasterThreshold %.1f "
                "ns, redundancyEnable %s",
                rc < 0 ? "defaults instead of" : "loaded", m_path.c_str(), m_board_model,
                getBoardModel().getName().c_str(), static_cast<double>(m_threshold),
                m_redundancy ? "true" : "false");
    return rc;
}

int SystemDefaultCfg::readFile(int& boardModel, float& threshold, bool& redundancy) {
    std::string content;
    FileMgr files;
    const int size = files.loadFileContent(m_path, content);
    if (size < 0) {
        Logger::log(Logger::ERR, "SystemDefaultCfg: cannot read %s, using defaults",
                    m_path.c_str());
        return size;
    }
    Json::Value root;
    if (!JsonText::parse(content.data(), content.size(), root) || !root.isObject()) {
        Logger::log(Logger::ERR, "SystemDefaultCfg: %s is not a JSON object, using defaults",
                    m_path.c_str());
        return -EBADMSG;
    }
    const Json::Value& model = root["boardModel"];
    const Json::Value& limit = root["clockOffsetFromMasterThreshold"];
    const Json::Value& redundant = root["redundancyEnable"];
    const char* bad = nullptr;
    if (!model.isNull() && !model.isInt()) {
        bad = "boardModel";
    } else if (!limit.isNull() && (!limit.isNumeric() || !(limit.asDouble() >= 0.0) ||
                                   !std::isfinite(limit.asFloat()))) {
        bad = "clockOffsetFromMasterThreshold";
    } else if (!redundant.isNull() && !redundant.isBool()) {
        bad = "redundancyEnable";
    }
    if (bad) {
        Logger::log(Logger::ERR, "SystemDefaultCfg: %s: bad \"%s\", using defaults", m_path.c_str(),
                    bad);
        return -EBADMSG;
    }
    if (!model.isNull()) {
        boardModel = model.asInt();
    }
    if (!limit.isNull()) {
        threshold = limit.asFloat();
    }
    if (!redundant.isNull()) {
        redundancy = redundant.asBool();
    }
    return 0;
}

int SystemDefaultCfg::initSubscribers(PollFds& pollFds) {
    if (m_inotify_fd >= 0) {
        return 0;
    }
    const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        Logger::log(Logger::ERR, "SystemDefaultCfg: inotify_init1 failed: %s", strerror(error));
        return -error;
    }
    std::string directory;
    std::string name;
    splitPath(m_path, directory, name);
    if (inotify_add_watch(fd, directory.c_str(), WATCHED_EVENTS) < 0) {
        Logger::log(Logger::WRN,
                    "SystemDefaultCfg: cannot watch %s: %s; changes of %s are not seen",
                    directory.c_str(), strerror(errno), name.c_str());
        close(fd);
        return 0;
    }
    if (pollFds.addFd(fd, ZMQ_POLLIN) < 0) {
        Logger::log(Logger::ERR, "SystemDefaultCfg: cannot add the inotify descriptor to the list");
        close(fd);
        return -EINVAL;
    }
    m_inotify_fd = fd;
    return 0;
}

int SystemDefaultCfg::processEvent(const zmq_pollitem_t& item) {
    if (m_inotify_fd < 0 || item.socket != nullptr || item.fd != m_inotify_fd) {
        return 0;
    }
    std::string directory;
    std::string name;
    splitPath(m_path, directory, name);

    // Read every queued event first: an editor's save is several events, one reload is enough.
    bool changed = false;
    bool onlyCreated = true;
    alignas(struct inotify_event) char buffer[4096];
    ssize_t n;
    while ((n = read(m_inotify_fd, buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR)) {
        for (ssize_t offset = 0; offset < n;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
            if (event->mask & IN_Q_OVERFLOW) {
                // Events were lost; one of them may have been ours.
                changed = true;
                onlyCreated = false;
            } else if (event->mask & IN_IGNORED) {
                Logger::log(Logger::WRN,
                            "SystemDefaultCfg: %s is no longer watched; changes of %s are not "
                            "seen",
                            directory.c_str(), name.c_str());
            } else if (event->len > 0 && name == event->name && (event->mask & WATCHED_EVENTS)) {
                changed = true;
                onlyCreated = onlyCreated && (event->mask & IN_CREATE);
            }
        }
    }
    // A writer that has only created the file closes it later, which brings its own event.
    if (!changed || (onlyCreated && isBeingWritten())) {
        return 0;
    }
    reload();
    return 1;
}

bool SystemDefaultCfg::isBeingWritten() const {
    struct stat info {};
    return stat(m_path.c_str(), &info) == 0 && info.st_size == 0;
}
