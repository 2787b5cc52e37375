// The test kit itself: it handles key material, so it must keep it private
// and inside its scratch directory.
#include "fixture.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace sktest {
namespace {

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

unsigned modeOf(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// TMPDIR pointing nowhere: no directory, and no path that would put a key
// anywhere else (an empty directory name would mean "/"). With a directory,
// key files are the owner's only, also when they replace a readable file.
TEST(ScratchKit, KeyFilesStayInsideTheDirectoryAndPrivate)
{
    ASSERT_NE(bootstrapPair(), nullptr);
    const char* saved = std::getenv("TMPDIR");
    const std::string savedValue = saved != nullptr ? saved : "";
    setenv("TMPDIR", "/nonexistent-kv-scratch", 1);
    ScratchDir nowhere;
    if (saved != nullptr) {
        setenv("TMPDIR", savedValue.c_str(), 1);
    } else {
        unsetenv("TMPDIR");
    }
    EXPECT_FALSE(nowhere.ok());
    for (const char* name : {"bootstrap", "systemkey"}) {
        const std::string path = nowhere.file(name);
        const bool existed = exists("/" + std::string(name));
        EXPECT_EQ(path, "") << name;
        EXPECT_FALSE(writeFile(path, "0123456789abcdef")) << name;
        EXPECT_FALSE(writePrivatePem(bootstrapPair(), path, false)) << name;
        if (!existed && exists("/" + std::string(name))) {
            unlink(("/" + std::string(name)).c_str());
            ADD_FAILURE() << "wrote /" << name;
        }
    }

    ScratchDir dir;
    ASSERT_TRUE(dir.ok());
    EXPECT_EQ(modeOf(dir.path()), 0700u);
    const std::string key = dir.file("systemkey");
    const std::string pem = dir.file("bootstrap");
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "new files" : "replacing readable files");
        ASSERT_TRUE(writeFile(key, "0123456789abcdef"));
        ASSERT_TRUE(writePrivatePem(bootstrapPair(), pem, round == 1));
        EXPECT_EQ(modeOf(key), 0600u);
        EXPECT_EQ(modeOf(pem), 0600u);
        chmod(key.c_str(), 0644);
        chmod(pem.c_str(), 0644);
    }
}

} // namespace
} // namespace sktest
