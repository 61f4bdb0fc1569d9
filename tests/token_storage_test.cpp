#include "zelttokenmanager/token_storage.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;
using FileLockTest = PrivateFiles;

// What keeps another process from a write lock on the whole of /tmp/lock: F_RDLCK, F_WRLCK, or
// F_UNLCK for nothing; 99 when it covers a part of the file only.
int SeenByAnother() {
  return Finish(Start([] {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    fcntl(open("/tmp/lock", O_RDWR | O_CLOEXEC), F_GETLK, &lock);
    return lock.l_start == 0 && lock.l_len == 0 ? lock.l_type : 99;
  }));
}

TEST_F(FileLockTest, LocksTheWholeFileForItsLifetime) {
  const std::string failed = "token_storage.cpp:27 failed to lock: ";
  EXPECT_EQ(Outcome([] { FileLock("/tmp/lock", false); }), failed + "No such file or directory");
  WriteFile("/tmp/lock", "");
  const long descriptors = OpenDescriptors();
  for (const bool exclusive : {true, false}) {
    const FileLock lock("/tmp/lock", exclusive);
    EXPECT_EQ(SeenByAnother(), exclusive ? F_WRLCK : F_RDLCK);
  }
  EXPECT_EQ(SeenByAnother(), F_UNLCK);
  EXPECT_EQ(Outcome([] { FileLock("/tmp", false); }), failed + "Is a directory");
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

// Two processes that wait for each other: the kernel refuses the later lock.
TEST_F(FileLockTest, ClosesTheFileOfALockThatIsRefused) {
  WriteFile("/tmp/lock", "");
  WriteFile("/tmp/other", "");
  const long descriptors = OpenDescriptors();
  auto held = std::make_unique<FileLock>("/tmp/lock", true);
  const pid_t other = Start([] {
    const FileLock first("/tmp/other", true);
    const FileLock second("/tmp/lock", true);
    return 0;
  });
  ASSERT_EQ(WaitedLock(other), "WRITE");
  EXPECT_EQ(Outcome([] { FileLock("/tmp/other", true); }),
            "token_storage.cpp:27 failed to lock: Resource deadlock avoided");
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);
  held.reset();
  EXPECT_EQ(Finish(other), 0);
}

TEST_F(FileLockTest, LogsAFailureToUnlock) {
  WriteFile("/tmp/lock", "");
  const int next = dup(STDIN_FILENO);
  close(next);
  TakeLog();
  {
    const FileLock lock("/tmp/lock", true);
    close(next);
  }
  EXPECT_EQ(TakeLog(), "<3>token_storage.cpp:40 failed to unlock: Bad file descriptor\n");
}

TEST(CacheMissTest, HasTheGenericText) {
  EXPECT_STREQ(cache_miss().what(), std::exception().what());
}

}  // namespace
}  // namespace ZELT::TokenManager
