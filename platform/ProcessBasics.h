#pragma once

#include <signal.h>
#include <zmq.h>

class PollFds;

// Turns terminating signals (SIGINT, SIGTERM, SIGQUIT, SIGHUP) into a readable descriptor in
// the poll list (self-pipe: the handlers write the signal number to a non-blocking pipe) and
// keeps SIGPIPE from killing the process. No signal mask is changed, so children such as ptp4l
// get default signals.
//
// SIGPIPE is caught by a handler that does nothing rather than set to SIG_IGN: a write to a
// broken pipe still fails with EPIPE here, while an ignored disposition would be inherited
// through exec by every child the daemon starts (the init script and ptp4l).
//
// Signals are process-wide: one object owns them at a time. A later registration takes them
// over and its destruction hands them back, so objects must nest like scopes.
class ProcessBasics {
  public:
    ProcessBasics() = default;
    // Restores the dispositions found at registration and closes the pipe.
    ~ProcessBasics();
    ProcessBasics(const ProcessBasics&) = delete;
    ProcessBasics& operator=(const ProcessBasics&) = delete;

    // Installs the handlers and adds the pipe's read end to pollFds; 0 or a negative errno
    // value. Registering a second time adds nothing.
    int registerCatchSignals(PollFds& pollFds);
    // True when item is the signal descriptor; drains it and sets the stop flag on a
    // terminating signal.
    bool processSignalHandlerFd(const zmq_pollitem_t& item);
    bool isStopRequested() const { return m_stop_requested; }
    int lastSignal() const { return m_last_signal; }

  private:
    static constexpr int CAUGHT_COUNT = 5;  // the four terminating signals and SIGPIPE

    void restoreSignals();

    bool m_stop_requested = false;
    int m_last_signal = 0;
    int m_read_fd = -1;
    int m_write_fd = -1;
    int m_previous_write_fd = -1;
    bool m_installed = false;
    struct sigaction m_previous[CAUGHT_COUNT] = {};
};
