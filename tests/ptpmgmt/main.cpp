#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "Logger.h"

// Every device path of these tests lives under a fresh root, set before anything resolves one.
int main(int argc, char** argv) {
    char root[] = "/tmp/ostpmc-ptpmgmt-XXXXXX";
    std::filesystem::create_directories(std::string(mkdtemp(root)) + "/var/run");
    setenv("OSTPMC_SYSROOT", root, 1);
    // Tests assert the log texts through LogCapture; nothing needs to reach the terminal.
    Logger::createLogger(0, "", "ptpmgmt_tests");
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    std::filesystem::remove_all(root);
    return result;
}
