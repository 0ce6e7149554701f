#include "OstPmcServer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Check.h"
#include "Logger.h"
#include "SystemDefaultCfg.h"
#include "ZmqUtils.h"
#include "ptp4lMng.h"

namespace {
const char* const INIT_FUNCTION = "int OstPmcServer::init()";
}  // namespace

OstPmcServer::OstPmcServer() {
    Logger::log(Logger::VERBOSE, "OstPmcServer ctor");
}

OstPmcServer::~OstPmcServer() {
    Logger::log(Logger::VERBOSE, "OstPmcServer dtor");
    delete m_ptp4l_mng;
    m_ptp4l_mng = nullptr;

    // On EGRET ptp4l is not ours to stop.
    m_ptp4l_service.stop(SystemDefaultCfg::getInstance()->getBoardModel());

    if (m_ipc_socket->handle() != nullptr) {
        m_ipc_socket->close();
    }
    delete m_ipc_socket;
    m_ipc_socket = nullptr;
}

int OstPmcServer::init() {
    m_ptp4l_mng = new ptp4lMng(false);

    zmq::context_t& context = ZmqUtils::getInstance()->getContext();
    int rc = m_publisher.init(context);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    try {
        m_ipc_socket = new zmq::socket_t(context, zmq::socket_type::rep);
        configureServerSocket(*m_ipc_socket);
        m_ipc_socket->bind(m_ipc_address.getBindAddress());
    } catch (const zmq::error_t& e) {
        Logger::log(Logger::ERR, "OstPmcServer: Error binding on socket %s. Error [%d]::%s",
                    m_ipc_address.getBindAddress().c_str(), e.num(), e.what());
        return -35;
    }

    rc = m_poll_fds.addSocket(m_ipc_socket->handle(), ZMQ_POLLIN);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    rc = m_process_basics.registerCatchSignals(m_poll_fds);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    rc = SystemDefaultCfg::getInstance()->initSubscribers(m_poll_fds);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    float threshold = 0.0f;
    SystemDefaultCfg::getInstance()->getClockOffsetFromMasterThreshold(threshold);
    rc = m_ptp_status_fsm.setStabilityThreshold(threshold);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    return 0;
}

int OstPmcServer::mainLoop() {
    Logger::log(Logger::INF, "OSTPMC: Ready to receive commands");
    while (!m_process_basics.isStopRequested()) {
        int rc = zmq_poll(m_poll_fds.getPollList(), m_poll_fds.getPollListSize(), -1);
        if (rc == -1) {
            if (errno != EINTR) {
                Logger::log(Logger::ERR, "OSTPMC:: Poll event received: %u %s", errno,
                            strerror(errno));
            }
            continue;
        }
        if (rc > 1) {
            Logger::log(Logger::DBG, "OSTPMC:: Poll event received: %d events", rc);
        }
        // Handlers may grow the list: re-read it for every item, and copy the item first.
        for (int i = 0; i < m_poll_fds.getPollListSize(); ++i) {
            const zmq_pollitem_t item = m_poll_fds.getPollList()[i];
            if (item.revents == 0) {
                continue;
            }
            if (item.socket != nullptr && item.socket == m_ipc_socket->handle()) {
                ipcPreProcessMsg(m_ipc_socket);
                continue;
            }
            // A status cycle, the system defaults, anything but a request may change what a
            // kept reply shows.
            dropKeptReplies();
            if (m_process_basics.processSignalHandlerFd(item)) {
                Logger::log(Logger::NTF, "OSTPMC: Signal handler detected event");
            } else if (item.socket == nullptr && m_timer.processTimerFd(item)) {
                monitorPTPStatus();
            } else {
                SystemDefaultCfg::getInstance()->processEvent(item);
            }
        }
    }
    Logger::log(Logger::WRN, "OSTPMC:: Main loop interrupted.");
    return 0;
}
