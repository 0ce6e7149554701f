#pragma once

#include <string>

// File helpers of the framework.
class FileMgr {
public:
    // Loads the whole file into content; the size in bytes, or a negative errno value.
    int loadFileContent(const std::string& path, std::string& content);
};
