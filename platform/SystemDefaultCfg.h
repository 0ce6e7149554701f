#pragma once

#include <zmq.h>

#include <string>

#include "BoardModel.h"

class PollFds;

// Device-wide defaults from "/etc/ost/system-defaults.json" (under the root prefix):
// {"boardModel": <int>, "clockOffsetFromMasterThreshold": <ns>, "redundancyEnable": <bool>}.
// A missing file or key gives model 0, threshold 1500.0 and redundancy off; a malformed file
// (not a JSON object, a value of the wrong type, a negative threshold) is logged and gives the
// same defaults. initSubscribers watches the file's directory (inotify) and processEvent
// reloads the file when it changes.
class SystemDefaultCfg {
  public:
    static constexpr const char* DEFAULTS_FILE = "/etc/ost/system-defaults.json";
    static constexpr float DEFAULT_THRESHOLD_NS = 1500.0f;

    // The process's reader of SysRoot::path(DEFAULTS_FILE), loaded on first use.
    static SystemDefaultCfg* getInstance();

    // For tests and tools: a reader of an explicit file.
    explicit SystemDefaultCfg(const std::string& filePath);
    ~SystemDefaultCfg();
    SystemDefaultCfg(const SystemDefaultCfg&) = delete;
    SystemDefaultCfg& operator=(const SystemDefaultCfg&) = delete;

    BoardModel getBoardModel() const { return BoardModel(m_board_model); }
    int getClockOffsetFromMasterThreshold(float& threshold) const;
    bool isRedundancyEnable() const { return m_redundancy; }

    // Adds an inotify descriptor watching the file's directory to pollFds (once; later calls
    // add nothing). Returns a negative errno value only when inotify itself is unavailable. A
    // directory that cannot be watched (missing, say) is logged as a warning and start-up goes
    // on with the values read so far: the device works on its defaults, only live changes are
    // not seen.
    int initSubscribers(PollFds& pollFds);
    // Handles an item nobody else claimed; reloads the file when it changed. Returns 1 when the
    // item was the subscriber's and the defaults were reloaded, 0 when it was not ours or
    // nothing of interest changed.
    int processEvent(const zmq_pollitem_t& item);
    // Reads the file again; 0, or a negative code when it was malformed or unreadable (then the
    // defaults apply).
    int reload();

  private:
    // Reads and checks the file; fills the three values only on success.
    int readFile(int& boardModel, float& threshold, bool& redundancy);
    // True when the file is being written: created but still empty.
    bool isBeingWritten() const;

    std::string m_path;
    int m_board_model = 0;
    float m_threshold = DEFAULT_THRESHOLD_NS;
    bool m_redundancy = false;
    int m_inotify_fd = -1;
};
