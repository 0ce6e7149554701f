#include "SysRoot.h"

#include <cstdlib>

namespace SysRoot {

const std::string& prefix() {
    static const std::string root = [] {
        const char* value = std::getenv("OSTPMC_SYSROOT");
        std::string text = value ? value : "";
        while (text.size() > 1 && text.back() == '/') {
            text.pop_back();
        }
        return text == "/" ? std::string() : text;
    }();
    return root;
}

std::string path(const std::string& devicePath) {
    return prefix() + devicePath;
}

}  // namespace SysRoot
