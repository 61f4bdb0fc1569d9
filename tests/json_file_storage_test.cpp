#include "zelttokenmanager/storage/json_file_storage.h"

#include <boost/interprocess/exceptions.hpp>
#include <boost/system/system_error.hpp>
#include <filesystem>
#include <memory>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

namespace fs = std::filesystem;
using namespace TestSupport;
using JsonFileStorageTest = PrivateFiles;

constexpr const char* kStore = "/tmp/a/b/tokens";
constexpr const char* kLock = "/tmp/a/b/tokens.lock";
constexpr fs::perms kMode = fs::perms::owner_write | fs::perms::owner_exec;

TEST_F(JsonFileStorageTest, MakesTheDirectoryAndTheLockFile) {
  const JsonFileStorage first(kStore);
  EXPECT_EQ(fs::status("/tmp/a/b").permissions(), kMode);
  EXPECT_EQ(fs::file_size(kLock), 0U);
  EXPECT_FALSE(fs::exists(kStore));
  fs::permissions("/tmp/a/b", fs::perms::all);
  WriteFile(kLock, "kept");
  JsonFileStorage second(kStore);
  EXPECT_EQ(fs::status("/tmp/a/b").permissions(), kMode);
  EXPECT_EQ(ReadFile(kLock), "kept");
  second.Insert("abc", Value("{'a':'line\\nbreak'}"));
  second.Insert("abc", 2);
  EXPECT_EQ(ReadFile(kStore), "abc {\"a\":\"line\\nbreak\"}\nabc 2\n");
  EXPECT_TRUE(second.GetStatistics().isNull());
}

const std::string kLong(1 << 20, 'x');
constexpr const char* kInvalid = "storage/json_file_storage.cpp:147 invalid token";

struct LineRow {
  const char* name;
  std::string file;
  std::string outcome;  // of reading "abc"
  std::string rest;     // of the file, once "abc" was removed
};

const std::vector<LineRow> kLineRows = {
    {"first of two", "abc 1\nabcd 2\n", "1", "abcd 2\n"},
    {"after a longer token", "abcd 2\nabc 1\n", "1", "abcd 2\n"},
    {"after a token that ends alike", "xabc 2\nabc 1\n", "1", "xabc 2\n"},
    {"between others", "x 0\nabc 1\ny 2\n", "1", "x 0\ny 2\n"},
    {"first of its own two", "abc 1\nabc 2\n", "1", "abc 2\n"},
    {"in another's data", "x \"abc 5\"\nabc 1\n", "1", "x \"abc 5\"\n"},
    {"only in another's data", "x \" abc abc 5\"\n", kInvalid, "x \" abc abc 5\"\n"},
    {"last without a newline", "x 0\nabc 1", "1", "x 0\n"},
    {"only and without a newline", "abc 1", "1", ""},
    {"torn in the data", "x 0\nabc {\"a\":", kInvalid, "x 0\n"},
    {"torn after the token", "x 0\nabc", kInvalid, "x 0\nabc"},
    {"torn after the space", "x 0\nabc ", kInvalid, "x 0\n"},
    {"without data", "abc \nx 0\n", kInvalid, "x 0\n"},
    {"with foreign data", "abc not json\nx 0\n", kInvalid, "x 0\n"},
    {"swallowed by a torn line", "x {\"a\"abc 1\n", kInvalid, "x {\"a\"abc 1\n"},
    {"amid empty and foreign lines", "\n\n \n#\nabc 1\n\n", "1", "\n\n \n#\n\n"},
    {"behind a very long line", "x \"" + kLong + "\"\nabc 1\n", "1", "x \"" + kLong + "\"\n"},
    {"a very long line", "abc \"" + kLong + "\"\nx 0\n", "'" + kLong + "'", "x 0\n"},
};

TEST_F(JsonFileStorageTest, FindsTheFirstLineOfAToken) {
  JsonFileStorage storage(kStore);
  for (const LineRow& row : kLineRows) {
    SCOPED_TRACE(row.name);
    WriteFile(kStore, row.file);
    EXPECT_EQ(Outcome([&] { return storage.GetAssociatedData("abc"); }), row.outcome);
    EXPECT_EQ(ReadFile(kStore), row.file);
    EXPECT_EQ(Outcome([&] { storage.Remove("abc"); }), "done");
    EXPECT_EQ(ReadFile(kStore), row.rest);
  }
}

// The failures of the layers below the store go through as they are.
std::string Failure(const std::function<void()>& call) {
  try {
    call();
    return "done";
  } catch (const boost::interprocess::interprocess_exception&) {
    return "mapping";
  } catch (const boost::system::system_error&) {
    return "file system";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

struct FailureRow {
  const char* name;
  std::function<void()> damage;  // to the directory of the store, which holds "abc 1"
  const char* insert;
  const char* remove;
  const char* get;
};

void Link(const char* target, const char* path) {
  fs::remove(path);
  fs::create_symlink(target, path);
}

constexpr const char* kNoLock = "token_storage.cpp:27 failed to lock: No such file or directory";
constexpr const char* kMissing = "storage/json_file_storage.cpp:115 invalid token";

const std::vector<FailureRow> kFailureRows = {
    {"no lock", [] { fs::remove(kLock); }, kNoLock, kNoLock, kNoLock},
    {"no store", [] { fs::remove(kStore); }, "done", "done", kMissing},
    {"an empty store", [] { WriteFile(kStore, ""); }, "done", "mapping", "mapping"},
    {"a link to nowhere", [] { Link("/tmp/none/none", kStore); },
     "storage/json_file_storage.cpp:43 failed to create storage", "done", kMissing},
    {"a link to itself", [] { Link(kStore, kStore); }, "file system", "file system", "file system"},
    {"a full device", [] { Link("/dev/full", kStore); },
     "storage/json_file_storage.cpp:55 failed to update storage", "mapping", "mapping"},
    {"a directory", [] { fs::remove(kStore), fs::create_directory(kStore); },
     "storage/json_file_storage.cpp:48 failed to open storage", "mapping", "mapping"},
};

TEST_F(JsonFileStorageTest, ReportsEachFailureAndKeepsNothingOpen) {
  JsonFileStorage storage(kStore);
  const long descriptors = OpenDescriptors();
  for (const FailureRow& row : kFailureRows) {
    SCOPED_TRACE(row.name);
    const auto failure = [&](const std::function<void()>& call) {
      fs::remove_all(kStore);
      WriteFile(kLock, "");
      WriteFile(kStore, "abc 1\n");
      row.damage();
      return Failure(call);
    };
    EXPECT_EQ(failure([&] { storage.Insert("new", 5); }), row.insert);
    EXPECT_EQ(failure([&] { storage.Remove("abc"); }), row.remove);
    EXPECT_EQ(failure([&] { storage.GetAssociatedData("abc"); }), row.get);
  }
  Link("/tmp/none/none", kLock);
  EXPECT_EQ(Failure([] { JsonFileStorage again(kStore); }),
            "storage/json_file_storage.cpp:34 failed to create lock file");
  EXPECT_EQ(Failure([] { JsonFileStorage("/dev/null/tokens"); }), "file system");
  EXPECT_EQ(Failure([] { JsonFileStorage("tokens"); }), "file system");
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(JsonFileStorageTest, LosesNothingOnAFullDevice) {
  fs::create_directory("/tmp/small");
  MountEmpty("/tmp/small", "size=65536");
  JsonFileStorage storage("/tmp/small/tokens");
  storage.Insert("abc", 1);
  EXPECT_EQ(Outcome([&] { storage.Insert("large", kLong); }),
            "storage/json_file_storage.cpp:55 failed to update storage");
  storage.Insert("next", 2);
  EXPECT_EQ(ReadFile("/tmp/small/tokens"), "abc 1\nnext 2\n");
}

TEST_F(JsonFileStorageTest, SharesTheLockToReadAndNotToWrite) {
  JsonFileStorage storage(kStore);
  storage.Insert("abc", 1);
  const std::vector<std::pair<const char*, std::function<void()>>> operations = {
      {"READ", [&] { storage.GetAssociatedData("abc"); }},
      {"WRITE", [&] { storage.Insert("abc", 2); }},
      {"WRITE", [&] { storage.Remove("abc"); }}};
  for (const auto& [lock, operation] : operations) {
    auto held = std::make_unique<FileLock>(kLock, true);
    const pid_t process = Start([call = operation] { return call(), 0; });
    EXPECT_EQ(WaitedLock(process), lock);
    held.reset();
    EXPECT_EQ(Finish(process), 0);
  }
  EXPECT_EQ(ReadFile(kStore), "abc 2\n");
}

TEST_F(JsonFileStorageTest, KeepsTheRecordsOfManyProcessesApart) {
  JsonFileStorage storage(kStore);
  std::vector<pid_t> processes;
  for (const std::string name : {"a", "b", "c", "d"}) {
    processes.push_back(Start([&] {
      for (int round = 0; round < 50; ++round) {
        storage.Insert("passing-" + name, round);
        storage.Insert(name + std::to_string(round), round);
        storage.Remove("passing-" + name);
      }
      return 0;
    }));
  }
  for (const pid_t process : processes) {
    EXPECT_EQ(Finish(process), 0);
  }
  std::string::size_type size = 0;
  for (const std::string name : {"a", "b", "c", "d"}) {
    for (int round = 0; round < 50; ++round) {
      EXPECT_EQ(storage.GetAssociatedData(name + std::to_string(round)), round);
      size += (name + std::to_string(round) + " " + std::to_string(round) + "\n").size();
    }
  }
  EXPECT_EQ(ReadFile(kStore).size(), size);
}

}  // namespace
}  // namespace ZELT::TokenManager
