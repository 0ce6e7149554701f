// The file helpers kept beside the profile files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "FileUtils.h"

namespace {

class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/ostpmc-files-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + m_path + "'").c_str()); }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(FileUtils, Crc32IsTheStandardOneAndContinues) {
    EXPECT_EQ(0xCBF43926u, rc_crc32(0, "123456789", 9));
    EXPECT_EQ(0xCBF43926u, rc_crc32(rc_crc32(0, "1234", 4), "56789", 5));
    EXPECT_EQ(0u, rc_crc32(0, "", 0));
}

TEST(FileUtils, CopyKeepsTheTailOfALongerTargetAndReportsOpenFailures) {
    TempDir dir;
    std::ofstream(dir.file("src")) << "short";
    std::ofstream(dir.file("dst")) << "a much longer old text";
    EXPECT_EQ(0, copy_files_in_fs(dir.file("dst").c_str(), dir.file("src").c_str(), 2));
    EXPECT_EQ("shorth longer old text", read(dir.file("dst")));
    EXPECT_EQ(0, copy_files_in_fs(dir.file("new").c_str(), dir.file("src").c_str(), 0));
    EXPECT_EQ("short", read(dir.file("new")));

    EXPECT_EQ(-1, copy_files_in_fs(dir.file("x").c_str(), dir.file("missing").c_str(), 0));
    EXPECT_EQ(-1, copy_files_in_fs(dir.file("no/such/dir").c_str(), dir.file("src").c_str(), 0));
}

TEST(FileUtils, FileContentLeavesTheByteAfterTheData) {
    TempDir dir;
    std::ofstream(dir.file("f")) << "abc";
    char buf[8];
    std::fill(buf, buf + sizeof(buf), 'x');
    EXPECT_EQ(0, get_file_content(dir.file("f").c_str(), buf));
    EXPECT_EQ(std::string("abcx"), std::string(buf, 4));
    EXPECT_EQ('\0', buf[4]);
    EXPECT_EQ(-1, get_file_content(dir.file("missing").c_str(), buf));
}

}  // namespace
