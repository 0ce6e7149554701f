#pragma once

#include <zmq.h>

class PollFds;

// Turns terminating signals (SIGINT, SIGTERM, SIGQUIT, SIGHUP) into a readable descriptor in
// the poll list (self-pipe: the handlers write the signal number to a non-blocking pipe) and
// ignores SIGPIPE. No signal mask is changed, so children such as ptp4l get default signals.
class ProcessBasics {
public:
    ProcessBasics() = default;
    ~ProcessBasics();
    ProcessBasics(const ProcessBasics&) = delete;
    ProcessBasics& operator=(const ProcessBasics&) = delete;

    // Installs the handlers and adds the pipe's read end to pollFds; 0 or a negative code.
    int registerCatchSignals(PollFds& pollFds);
    // True when item is the signal descriptor; drains it and sets the stop flag on a
    // terminating signal.
    bool processSignalHandlerFd(const zmq_pollitem_t& item);
    bool isStopRequested() const { return m_stop_requested; }
    int lastSignal() const { return m_last_signal; }

private:
    bool m_stop_requested = false;
    int m_last_signal = 0;
    int m_read_fd = -1;
};
