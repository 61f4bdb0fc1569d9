#include "zelttokenmanager/storage/json_file_storage.h"

#include <fnmatch.h>

#include "support/testing.h"

namespace ZELT::TokenManager::JsonFileStorageTests {

using JsonFileStorageTest = PrivateFiles;

constexpr const char* kStore = "/tmp/a/b/tokens";
constexpr const char* kLock = "/tmp/a/b/tokens.lock";

TEST_F(JsonFileStorageTest, MakesTheDirectoryAndTheLockFile) {
  for (const char* lock : {"", "kept"}) {
    const JsonFileStorage storage(kStore);
    EXPECT_EQ(fs::status("/tmp/a/b").permissions(), fs::perms::owner_write | fs::perms::owner_exec);
    EXPECT_EQ(ReadFile(kLock), lock);
    WriteFile(kLock, "kept");
    fs::permissions("/tmp/a/b", fs::perms::all);
  }
  EXPECT_FALSE(fs::exists(kStore));
  JsonFileStorage storage(kStore);
  storage.Insert("abc", Value("{'a':'line\\nbreak'}"));
  storage.Insert("abc", 2);
  EXPECT_EQ(ReadFile(kStore), "abc {\"a\":\"line\\nbreak\"}\nabc 2\n");
}

TEST_F(JsonFileStorageTest, NeedsNoDirectoryAndNoAccessToALockFileThatExists) {
  fs::current_path("/tmp");
  for (const auto& [path, mode] : {std::pair{"plain", 0755}, {"./dotted", 0300}}) {
    JsonFileStorage storage(path);
    storage.Insert("abc", 1);
    EXPECT_EQ(storage.GetAssociatedData("abc"), 1);
    EXPECT_EQ(static_cast<int>(fs::status("/tmp").permissions()), mode);
    Check(mount("plain.lock", "plain.lock", nullptr, MS_BIND, nullptr), path);
    Check(mount(nullptr, "plain.lock", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), path);
    EXPECT_EQ(Outcome([] { JsonFileStorage again("plain"); }), "done");
  }
}

// A store, the outcome of reading "abc", and what is left of the store once "abc" was removed.
constexpr const char* kInvalid = "storage/json_file_storage.cpp:147 invalid token";
const Row kLineRows[] = {
    {"abcd 2\nabc 1\n", "1", "abcd 2\n"}, {"xabc 2\nabc 1\ny 2\n", "1", "xabc 2\ny 2\n"},
    {"abc 1\nabc 2\n", "1", "abc 2\n"},   {"x \"abc 5\"\nabc 1\n", "1", "x \"abc 5\"\n"},
    {"x 0\nabc 1", "1", "x 0\n"},         {"x 0\nabc {\"a\":", kInvalid, "x 0\n"},
    {"x 0\nabc", kInvalid, "x 0\nabc"},   {"\n\n \n#\nabc 1\n\n", "1", "\n\n \n#\n\n"},
};

TEST_F(JsonFileStorageTest, FindsTheFirstLineOfAToken) {
  JsonFileStorage storage(kStore);
  for (const Row& row : kLineRows) {
    WriteFile(kStore, row.first);
    EXPECT_EQ(Outcome([&] { return storage.GetAssociatedData("abc"); }), row.second) << row.first;
    storage.Remove("abc");
    EXPECT_EQ(ReadFile(kStore), row.outcome) << row.first;
  }
}

struct FailureRow {
  const char* damage;  // to the store, which holds "abc 1": commands of the shell
  const char* insert;  // the outcomes, as of fnmatch(3)
  const char* remove;
  const char* get;
};

constexpr const char* kNoLock = "token_storage.cpp:27 failed to lock: No such file or directory";
constexpr const char* kMissing = "storage/json_file_storage.cpp:115 invalid token";
constexpr const char* kUnmapped = "~*";  // whatever the mapping throws
constexpr const char* kLoop = "boost::filesystem::*: Too many levels of symbolic links*";
const FailureRow kFailureRows[] = {
    {"rm tokens.lock", kNoLock, kNoLock, kNoLock},
    {"rm tokens", "done", "done", kMissing},
    {": >tokens", "done", kUnmapped, kUnmapped},
    {"ln -sf none/none tokens", "storage/json_file_storage.cpp:43 failed to create storage", "done",
     kMissing},
    {"rm tokens; ln -s tokens tokens", kLoop, kLoop, kLoop},
    {"ln -sf /dev/full tokens", "storage/json_file_storage.cpp:55 failed to update storage",
     kUnmapped, kUnmapped},
    {"rm tokens; mkdir tokens", "storage/json_file_storage.cpp:48 failed to open storage",
     kUnmapped, kUnmapped},
};

TEST_F(JsonFileStorageTest, ReportsEachFailureAndKeepsNothingOpen) {
  JsonFileStorage storage(kStore);
  fs::current_path("/tmp/a/b");
  const long descriptors = OpenDescriptors();
  for (const FailureRow& row : kFailureRows) {
    const auto expect = [&](const char* outcome, const std::function<void()>& call) {
      fs::remove_all(kStore);
      WriteFile(kLock, "");
      WriteFile(kStore, "abc 1\n");
      EXPECT_EQ(std::system(row.damage), 0);
      const std::string seen = Outcome(call);
      EXPECT_EQ(fnmatch(outcome, seen.c_str(), 0), 0) << row.damage << ": " << seen;
    };
    expect(row.insert, [&] { storage.Insert("new", 5); });
    expect(row.remove, [&] { storage.Remove("abc"); });
    expect(row.get, [&] { storage.GetAssociatedData("abc"); });
  }
  EXPECT_EQ(std::system("ln -sf none/none tokens.lock"), 0);
  EXPECT_EQ(Outcome([] { JsonFileStorage again(kStore); }),
            "storage/json_file_storage.cpp:34 failed to create lock file");
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(JsonFileStorageTest, LosesNothingOnAFullDevice) {
  fs::create_directory("/tmp/small");
  MountEmpty("/tmp/small", "size=65536");
  JsonFileStorage storage("/tmp/small/tokens");
  storage.Insert("abc", 1);
  EXPECT_EQ(Outcome([&] { storage.Insert("large", std::string(1 << 20, 'x')); }),
            "storage/json_file_storage.cpp:55 failed to update storage");
  storage.Insert("next", 2);
  EXPECT_EQ(ReadFile("/tmp/small/tokens"), "abc 1\nnext 2\n");
}

TEST_F(JsonFileStorageTest, SharesTheLockToReadAndNotToWrite) {
  JsonFileStorage storage(kStore);
  storage.Insert("abc", 1);
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"READ", [&] { storage.GetAssociatedData("abc"); }},
      {"WRITE", [&] { storage.Insert("abc", 2); }},
      {"WRITE", [&] { storage.Remove("abc"); }}};
  for (const auto& [lock, operation] : operations) {
    auto held = std::make_unique<FileLock>(kLock, true);
    const pid_t process = Start([call = operation] { return call(), 0; });
    EXPECT_TRUE(WaitsToLock(process, lock));
    held.reset();
    EXPECT_EQ(Finish(process), 0);
  }
  EXPECT_EQ(ReadFile(kStore), "abc 2\n");
}

// Two processes that wait for each other: the kernel refuses the later lock.
TEST_F(JsonFileStorageTest, ClosesALockFileWhenTheLockIsRefused) {
  for (const char* path : {"/tmp/lock", "/tmp/other"}) WriteFile(path, "");
  const long descriptors = OpenDescriptors();
  auto held = std::make_unique<FileLock>("/tmp/lock", true);
  const pid_t other = Start([] {
    const FileLock first("/tmp/other", true);
    return FileLock("/tmp/lock", false), 0;
  });
  ASSERT_TRUE(WaitsToLock(other, "READ"));
  EXPECT_EQ(Outcome([] { FileLock("/tmp/other", true); }),
            "token_storage.cpp:27 failed to lock: Resource deadlock avoided");
  held.reset();
  EXPECT_EQ(Finish(other), 0);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(JsonFileStorageTest, LogsAFailureToUnlock) {
  WriteFile("/tmp/lock", "");
  const int next = dup(STDIN_FILENO);
  close(next);
  auto lock = std::make_unique<FileLock>("/tmp/lock", true);
  close(next);
  TakeLog();
  lock.reset();
  EXPECT_EQ(TakeLog(), "<3>token_storage.cpp:40 failed to unlock: Bad file descriptor\n");
}

}  // namespace ZELT::TokenManager::JsonFileStorageTests
