#include "zelttokenmanager/storage/json_file_storage.h"

#include "support/tables.h"

namespace ZELT::TokenManager::JsonFileStorageTests {

using JsonFileStorageTest = PrivateFiles;

constexpr const char* kStore = "/tmp/a/b/tokens";
constexpr const char* kLock = "/tmp/a/b/tokens.lock";

void Operate(JsonFileStorage& storage, std::size_t which) {
  if (which == 0) storage.Insert("abc", 2);
  if (which == 1) storage.Remove("abc");
  if (which == 2) storage.GetAssociatedData("abc");
}

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
  EXPECT_EQ(storage.GetStatistics().type(), Json::nullValue);
}

TEST_F(JsonFileStorageTest, NeedsADirectory) {
  fs::current_path("/tmp");
  const std::string refused = Outcome([] { JsonFileStorage storage("plain"); });
  EXPECT_NE(refused.find("Invalid argument"), refused.npos) << refused;
  EXPECT_FALSE(fs::exists("plain.lock"));
  JsonFileStorage("./dotted").Insert("abc", 1);
  EXPECT_EQ(fs::status("/tmp").permissions(), fs::perms::owner_write | fs::perms::owner_exec);
}

TEST_F(JsonFileStorageTest, FindsTheFirstLineOfAToken) {
  JsonFileStorage storage(kStore);
  for (const Cells& row : Section("storage.txt", "files")) {
    WriteFile(kStore, Value(Requoted(row.at(0))).asString());
    EXPECT_EQ(Outcome([&] { return storage.GetAssociatedData("abc"); }), row.at(1)) << row[0];
    storage.Remove("abc");
    EXPECT_EQ(ReadFile(kStore), Value(Requoted(row.at(2))).asString()) << row[0];
  }
}

TEST_F(JsonFileStorageTest, ReportsEachFailureAndKeepsNothingOpen) {
  JsonFileStorage storage(kStore);
  fs::current_path("/tmp/a/b");
  const long descriptors = OpenDescriptors();
  for (const Cells& row : Section("storage.txt", "failures")) {
    for (std::size_t i = 0; i < 3; ++i) {
      Shell("rm -rf tokens; touch tokens.lock; echo abc 1 >tokens; " + row[0]);
      const std::string seen = Outcome([&] { Operate(storage, i); });
      EXPECT_NE(seen.find(row.at(i + 1)), std::string::npos) << row[0] << ": " << seen;
    }
  }
  for (const char* make : {"mkfifo", "ln -s none/none"}) {
    Shell(std::string("rm tokens.lock; ") + make + " tokens.lock");
    EXPECT_EQ(Outcome([] { JsonFileStorage again(kStore); }),
              "storage/json_file_storage.cpp:34 failed to create lock file");
  }
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
  for (const std::size_t which : {2U, 0U, 1U}) {
    auto held = std::make_unique<FileLock>(kLock, true);
    const pid_t process = Start([&] {
      struct sigaction action {};  // without SA_RESTART
      action.sa_handler = [](int) {};
      sigaction(SIGUSR1, &action, nullptr);
      return Operate(storage, which), 0;
    });
    EXPECT_TRUE(WaitsToLock(process, which == 2 ? "READ" : "WRITE"));
    kill(process, SIGUSR1);
    held.reset();
    EXPECT_EQ(Finish(process), 0);
  }
  EXPECT_EQ(ReadFile(kStore), "abc 2\n");
}

// Opening the pipe waits for its other end, with the lock held.
TEST_F(JsonFileStorageTest, KeepsTheLockUntilItIsDone) {
  JsonFileStorage storage(kStore);
  mkfifo(kStore, 0600);
  for (const std::size_t which : {0U, 2U}) {
    const pid_t process = Start([&] { return Operate(storage, which), 0; });
    const std::string held = (which == 0 ? "WRITE " : "READ ") + std::to_string(process) + " ";
    EXPECT_EVENTUALLY(ReadFile("/proc/locks").find(held) != held.npos);
    EndProcess(process);
  }
}

}  // namespace ZELT::TokenManager::JsonFileStorageTests
