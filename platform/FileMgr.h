#pragma once

#include <string>

// File helpers of the framework.
class FileMgr {
  public:
    // Loads the whole file into content; the size in bytes, or a negative errno value (logged;
    // content is then left as it was). A directory gives -EISDIR.
    int loadFileContent(const std::string& path, std::string& content);
};
