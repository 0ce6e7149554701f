#include "Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace {

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& extraEnv) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text(*entry);
        std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const std::string& extra : extraEnv) {
            if (extra.substr(0, extra.find('=')) == name) {
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            env.push_back(text);
        }
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& s : strings) {
        result.push_back(s.data());
    }
    result.push_back(nullptr);
    return result;
}

int exitCodeOf(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

}  // namespace

Subprocess::Result Subprocess::run(const std::vector<std::string>& argv,
                                   const std::vector<std::string>& extraEnv,
                                   std::chrono::milliseconds timeout) {
    Result result;
    if (argv.empty()) {
        result.output = "no program to run";
        return result;
    }
    // Everything the child needs is prepared before the fork: only async-signal-safe calls
    // follow it.
    std::vector<std::string> args = argv;
    std::vector<std::string> env = mergedEnvironment(extraEnv);
    std::vector<char*> argp = pointers(args);
    std::vector<char*> envp = pointers(env);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        result.output = std::string("pipe: ") + std::strerror(errno);
        return result;
    }
    pid_t pid = fork();
    if (pid < 0) {
        result.output = std::string("fork: ") + std::strerror(errno);
        close(pipeFds[0]);
        close(pipeFds[1]);
        return result;
    }
    if (pid == 0) {
        int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0) {
            dup2(devNull, STDIN_FILENO);
        }
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        close_range(3, ~0U, 0);
        execvpe(argp[0], argp.data(), envp.data());
        static const char message[] = "exec failed\n";
        ssize_t ignored = write(STDERR_FILENO, message, sizeof message - 1);
        (void)ignored;
        _exit(127);
    }
    close(pipeFds[1]);

    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd item{pipeFds[0], POLLIN, 0};
        int ready = poll(&item, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        char buffer[4096];
        ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;  // every writer has closed: the program is done with its output
        }
        result.output.append(buffer, static_cast<size_t>(n));
    }
    close(pipeFds[0]);

    if (timedOut) {
        kill(pid, SIGKILL);
        result.output += "\n[killed at the deadline]\n";
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = timedOut ? -1 : exitCodeOf(status);
    return result;
}
