// ostpmc-ctl: what the ostPmc daemon thinks, for the people working on the device.
#include <cstdio>

#include "CtlCommandLine.h"
#include "CtlRunner.h"
#include "Logger.h"

int main(int argc, char** argv) {
    CtlRequest request;
    std::string error;
    if (!parseCtlCommandLine(argc, argv, request, error)) {
        // One line: the whole usage would bury the mistake.
        fprintf(stderr, "ostpmc-ctl: %s; try --help\n", error.c_str());
        return CTL_USAGE;
    }
    if (request.command == CtlRequest::Command::Help) {
        fputs(ctlUsage(), stdout);
        return CTL_OK;
    }
    // The client library logs its failures; an operator sees them only when asking for them.
    Logger::createLogger(request.verbose ? (Logger::LOG_TO_STDERR | Logger::DBG) : 0, "",
                         "ostpmc-ctl");
    return runCtl(request, stdout, stderr);
}
