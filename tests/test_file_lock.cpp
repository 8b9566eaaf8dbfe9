#include <zarorelayd/file_lock.h>

#include <sys/file.h>

#include "tests/support/unit.h"

static_assert(std::is_convertible_v<const char*, FileLock>);

struct FileLockTest : RootTest {
    FileLockTest() { lock_.AddFile(b_.c_str()); }

    /// How many files below the root are open, with the close-on-exec flag that all must have.
    int Open() {
        int n = 0;
        for (int fd = 3; fd < 100; fd++) {
            std::error_code none;
            const auto file = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
            n += file.string().rfind(root_.Dir(), 0) == 0 && fcntl(fd, F_GETFD) == 1;
        }
        return n;
    }

    /// Whether another process gets the lock.
    bool OtherGets(const std::string& path, int operation) {
        return InChild([&] { return FileLock(path.c_str()).Lock(operation); }) == 1;
    }

    const std::string a_ = root_.Path("/tmp/a"), b_ = root_.Path("/tmp/b");
    FileLock lock_{a_.c_str()};
};

TEST_F(FileLockTest, ExcludesOthersUntilUnlocked) {
    EXPECT_EQ(Signs({lock_.Lock(LOCK_EX), lock_.Lock(LOCK_EX)}), "++");
    EXPECT_EQ(Open(), 2);
    EXPECT_EQ(Signs({OtherGets(a_, LOCK_EX), OtherGets(b_, LOCK_SH)}), "--");
    EXPECT_EQ(Signs({lock_.RemoveFile(b_.c_str()), FileLock(b_.c_str()).Lock(LOCK_SH)}), "--");
    EXPECT_EQ(Signs({lock_.Unlock(), lock_.Unlock()}), "++");
    EXPECT_EQ(Open(), 0);
    EXPECT_TRUE(lock_.Lock(LOCK_SH)); // RemoveFile refused, so the file is still in the set
    EXPECT_EQ(Signs({OtherGets(b_, LOCK_SH), OtherGets(b_, LOCK_EX)}), "+-");
}

TEST_F(FileLockTest, LocksAllOrNone) {
    {
        FileLock busy(b_.c_str());
        EXPECT_EQ(Signs({busy.Lock(LOCK_EX), lock_.Lock(LOCK_EX)}), "+-");
        EXPECT_EQ(Open(), 1);
        EXPECT_TRUE(OtherGets(a_, LOCK_EX));
    }
    EXPECT_TRUE(lock_.Lock(LOCK_EX)); // the other lock is gone
    EXPECT_TRUE(lock_.AddFile(root_.Path("/tmp/none/x").c_str()));
    EXPECT_EQ(Signs({lock_.AddFile(nullptr), lock_.Lock(LOCK_EX)}), "--");
    EXPECT_EQ(Open(), 0);
    EXPECT_EQ(mkfifo(root_.Path("/tmp/fifo").c_str(), 0600), 0);
    EXPECT_TRUE(FileLock(root_.Path("/tmp/fifo").c_str()).Lock(LOCK_EX)); // does not block
    EXPECT_TRUE(FileLock(nullptr).Lock(LOCK_EX));
}
