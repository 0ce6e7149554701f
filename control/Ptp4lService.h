#pragma once

#include <functional>
#include <string>

#include "BoardModel.h"

// ptp4l as a system service: its profile file installed and the service restarted or stopped
// through the init script, each as one shell command. Nothing of a command's output is looked
// at, only the shell's result, and no failure stops the caller.
class Ptp4lService {
  public:
    // Runs one command line and returns the shell's result (system() on the device).
    using Shell = std::function<int(const std::string&)>;

    explicit Ptp4lService(Shell shell = runWithSystem);

    // "cp <source> /etc/ptp/ptpProfile.cfg". Any non-zero result is logged as a failure.
    void installProfileFile(const std::string& source) const;
    // "<script> restartslave" or "<script> restart". The script path is empty on EGRET boards,
    // whose ptp4l is not ours to drive; the command is still handed to the shell.
    void restart(bool slaveOnly, const BoardModel& board) const;
    // "<script> stop", except on EGRET boards.
    void stop(const BoardModel& board) const;

    std::string installCommand(const std::string& source) const;
    std::string scriptCommand(const BoardModel& board, const char* action) const;

    static int runWithSystem(const std::string& command);

  private:
    // The init script's result is judged inversely to the copy's: only a result above 0 is
    // taken for success, so a clean run of the script is reported too. Operators know this
    // line; it is informational and nothing depends on it.
    static bool scriptFailed(int result) { return result <= 0; }

    Shell m_shell;
};
