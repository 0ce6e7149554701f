#include "ProcessBasics.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "Logger.h"
#include "PollFds.h"

namespace {

constexpr int CAUGHT_SIGNALS[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGPIPE};
constexpr int TERMINATING_COUNT = 4;  // the first four of CAUGHT_SIGNALS

// Write end of the owner's pipe, read by the handler; a lock-free atomic is safe there.
std::atomic<int> g_signal_write_fd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free fd");

void onTerminatingSignal(int signo) {
    const int savedErrno = errno;
    const int fd = g_signal_write_fd.load();
    if (fd >= 0) {
        const unsigned char byte = static_cast<unsigned char>(signo);
        // A full pipe already holds enough to wake the loop; the byte may be dropped.
        ssize_t ignored = write(fd, &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

void onBrokenPipe(int) {}

bool isTerminating(int signo) {
    for (int i = 0; i < TERMINATING_COUNT; ++i) {
        if (CAUGHT_SIGNALS[i] == signo) {
            return true;
        }
    }
    return false;
}

}  // namespace

ProcessBasics::~ProcessBasics() {
    restoreSignals();
    if (m_read_fd >= 0) {
        close(m_read_fd);
    }
    if (m_write_fd >= 0) {
        close(m_write_fd);
    }
}

int ProcessBasics::registerCatchSignals(PollFds& pollFds) {
    static_assert(std::size(CAUGHT_SIGNALS) == CAUGHT_COUNT, "one saved disposition each");
    if (m_installed) {
        return 0;
    }
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        const int error = errno;
        Logger::log(Logger::ERR, "ProcessBasics: pipe2 failed: %s", strerror(error));
        return -error;
    }
    m_read_fd = fds[0];
    m_write_fd = fds[1];
    m_previous_write_fd = g_signal_write_fd.exchange(m_write_fd);
    m_installed = true;

    for (int i = 0; i < CAUGHT_COUNT; ++i) {
        struct sigaction action {};
        action.sa_handler = isTerminating(CAUGHT_SIGNALS[i]) ? onTerminatingSignal : onBrokenPipe;
        sigemptyset(&action.sa_mask);
        // Restarting keeps system() and blocking reads working; zmq_poll still returns early.
        action.sa_flags = SA_RESTART;
        if (sigaction(CAUGHT_SIGNALS[i], &action, &m_previous[i]) != 0) {
            const int error = errno;
            Logger::log(Logger::ERR, "ProcessBasics: sigaction(%d) failed: %s", CAUGHT_SIGNALS[i],
                        strerror(error));
            // Only the dispositions already replaced are put back.
            for (int j = 0; j < i; ++j) {
                sigaction(CAUGHT_SIGNALS[j], &m_previous[j], nullptr);
            }
            g_signal_write_fd.store(m_previous_write_fd);
            m_installed = false;
            return -error;
        }
    }
    if (pollFds.addFd(m_read_fd, ZMQ_POLLIN) < 0) {
        Logger::log(Logger::ERR, "ProcessBasics: cannot add the signal descriptor to the list");
        restoreSignals();
        return -EINVAL;
    }
    return 0;
}

bool ProcessBasics::processSignalHandlerFd(const zmq_pollitem_t& item) {
    if (m_read_fd < 0 || item.socket != nullptr || item.fd != m_read_fd) {
        return false;
    }
    const bool wasStopRequested = m_stop_requested;
    unsigned char signals[64];
    ssize_t n;
    while ((n = read(m_read_fd, signals, sizeof(signals))) > 0 || (n < 0 && errno == EINTR)) {
        for (ssize_t i = 0; i < n; ++i) {
            m_last_signal = signals[i];
            if (isTerminating(m_last_signal)) {
                m_stop_requested = true;
            }
        }
    }
    if (m_stop_requested && !wasStopRequested) {
        Logger::log(Logger::INF, "ProcessBasics: signal %d (%s): stop requested", m_last_signal,
                    strsignal(m_last_signal));
    }
    return true;
}

void ProcessBasics::restoreSignals() {
    if (!m_installed) {
        return;
    }
    for (int i = 0; i < CAUGHT_COUNT; ++i) {
        sigaction(CAUGHT_SIGNALS[i], &m_previous[i], nullptr);
    }
    // Hand the signals back to the owner found at registration (none on the device).
    int expected = m_write_fd;
    g_signal_write_fd.compare_exchange_strong(expected, m_previous_write_fd);
    m_installed = false;
}
