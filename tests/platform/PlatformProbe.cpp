// Prints how this process resolves device paths, for the tests that need a fresh process:
// the root prefix is read once, at first use.
#include <cstdio>
#include <cstdlib>

#include "SysRoot.h"
#include "SystemDefaultCfg.h"

int main() {
    std::printf("path=%s\n", SysRoot::path("/etc/ost/").c_str());
    setenv("OSTPMC_SYSROOT", "/changed-later", 1);
    std::printf("again=%s\n", SysRoot::path("/etc/ost/").c_str());
    std::printf("board=%d\n", SystemDefaultCfg::getInstance()->getBoardModel().getValue());
    return 0;
}
