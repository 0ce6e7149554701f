#include "FileMgr.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Logger.h"

int FileMgr::loadFileContent(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        int error = errno ? errno : ENOENT;
        Logger::log(Logger::ERR, "FileMgr: cannot open %s: %s", path.c_str(), strerror(error));
        return -error;
    }
    std::ostringstream data;
    data << in.rdbuf();
    if (in.bad()) {
        Logger::log(Logger::ERR, "FileMgr: error reading %s", path.c_str());
        return -EIO;
    }
    content = data.str();
    return static_cast<int>(content.size());
}
