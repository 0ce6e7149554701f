// Entry point of the in-process server tests: each process gets a device root of its own and
// a quiet logger (the tests read the lines through LogCapture).
#include <gtest/gtest.h>
#include <stdlib.h>

#include "Logger.h"
#include "OstPmcServerProbe.h"

int main(int argc, char** argv) {
    setenv("OSTPMC_SYSROOT", OstPmcServerProbe::probeRoot().c_str(), 1);
    Logger::createLogger(0, "", "ostPmc");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
