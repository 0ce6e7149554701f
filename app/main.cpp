// ostPmc: the device's PTP clock service.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Check.h"
#include "Logger.h"
#include "OstPmcServer.h"

namespace {

void usage(const char* program) {
    fprintf(stderr, "%s\n    [-L <log_filename>] [-l <log_level 0..7>] [-s]\n\n", program);
    fprintf(stderr, "  -d                       : daemonize\n\n");
    fprintf(stderr, "  -L <log_filename>        : file to log debug output to\n");
    fprintf(stderr, "  -l <log_level>           : 2=ERR 3=WRN 4=NTF 5=INF, 6=DBG 7=VERBOSE\n");
}

// A single fork: the init system tracks the service by its session, not by a pid file.
void daemonize() {
    pid_t pid = fork();
    if (pid < 0) {
        exit(1);
    }
    if (pid > 0) {
        exit(0);
    }
    umask(0);
    if (setsid() < 0) {
        exit(1);
    }
    if (chdir("/") < 0) {
        exit(1);
    }
}

void terminateHandler() {
    Logger::log(Logger::INF, "Terminate handler called");
    abort();
}

void unexpectedHandler() {
    Logger::log(Logger::INF, "Unexpected handler called");
}

}  // namespace

int main(int argc, char** argv) {
    std::string logFileName;
    long level = 5;
    unsigned int options = Logger::LOG_TO_STDERR;
    bool detach = false;

    int opt;
    // "-L" takes no argument here although the usage shows one; operators' scripts rely on
    // the option string as it is.
    while ((opt = getopt(argc, argv, "dl:L")) != -1) {
        switch (opt) {
            case 'd':
                detach = true;
                break;
            case 'l':
                level = strtol(optarg, nullptr, 10);
                break;
            case 'L':
                logFileName = optarg ? optarg : "";
                options = Logger::LOG_TO_STDERR | Logger::LOG_TO_FILE;
                break;
            default:
                usage(argv[0]);
                return 1;
        }
    }

    if (detach) {
        puts("\nOSTPMC: daemonizing");
        fflush(stdout);
        daemonize();
    }

    std::set_terminate(terminateHandler);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    std::set_unexpected(unexpectedHandler);
#pragma GCC diagnostic pop

    Logger::createLogger((static_cast<unsigned int>(level) & Logger::LEVEL_MASK) | options,
                         logFileName, "ostPmc");

    OstPmcServer* server = new OstPmcServer();
    Logger::log(Logger::INF, "OSTPMC: Initializing ...");
    int rc = server->init();
    if (rc < 0) {
        // The server is left as it is: its destructor would stop a ptp4l it never owned.
        return logCheck("int main(int, char**)", __LINE__, rc);
    }

    Logger::log(Logger::INF, "OSTPMC: main loop");
    server->mainLoop();

    Logger::log(Logger::NTF, "Deleting OstPmcServer object");
    delete server;
    Logger::log(Logger::WRN, "OSTPMC:: bye");
    return 0;
}
