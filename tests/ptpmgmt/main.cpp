#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "Logger.h"

// Every device path of these tests lives under a fresh root, set before anything resolves one.
int main(int argc, char** argv) {
    char root[] = "/tmp/ostpmc-ptpmgmt-XXXXXX";
    if (!mkdtemp(root)) {
        perror("mkdtemp");
        return 1;
    }
    std::filesystem::create_directories(std::string(root) + "/var/run");
    setenv("OSTPMC_SYSROOT", root, 1);

    // Tests assert the log texts through LogCapture; nothing needs to reach the terminal.
    Logger::createLogger(0, "", "ptpmgmt_tests");

    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();

    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return result;
}
