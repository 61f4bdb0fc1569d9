// How a store is opened, taken over or refused, and the text store.
#include <fnmatch.h>

#include "database.h"
#include "support/logged.h"
#include "support/one_worker.h"
#include "support/tables.h"

namespace ZELT::StoreTests {

using StoreStartTest = PrivateFiles;

TEST_F(StoreStartTest, RefusesWhatIsDamagedOrForeignAndLeavesItAsItIs) {
  for (const Cells& row : Section("store.txt", "damage")) {
    MountEmpty("/tmp", "mode=755");
    {
      const Daemon daemon;  // with some hundred tokens
      for (int i = 0; i < 300; ++i) daemon.Issue("t" + std::to_string(i));
      const Database fresh("/tmp/store/fresh", Database::Use::kMake, 1U << 20);
    }
    Shell("cd /tmp/store; " + row[0]);
    const auto look = [] { return Shell("stat -c '%n %f %u %s %h' /tmp /tmp/store /tmp/store/*"); };
    const std::string before = look();
    const std::string seen = Outcome([] { const Daemon daemon; });
    EXPECT_EQ(fnmatch(row[1].c_str(), seen.c_str(), 0), 0) << row[0] << ": " << seen;
    EXPECT_EQ(look(), before) << row[0];
  }
}

MDB_dbi Open(const Transaction& change, const char* name) {
  MDB_dbi table = 0;
  Expect(mdb_dbi_open(change.get(), name, MDB_CREATE, &table), name);
  return table;
}

void Put(const Transaction& change, const char* name, std::string_view key,
         std::string_view value) {
  MDB_val put_key = ValueOf(key);
  MDB_val put_value = ValueOf(value);
  Expect(mdb_put(change.get(), Open(change, name), &put_key, &put_value, 0), name);
}

TEST_F(StoreStartTest, RefusesTokensWithoutTotals) {
  Daemon().Issue("a");
  {
    Database database(kPath, Database::Use::kServe);
    Transaction change = database.Begin();
    mdb_drop(change.get(), Open(change, "usage2"), 0);
    database.Commit(std::move(change));
  }
  EXPECT_THAT(Outcome([] { const Daemon daemon; }), HasSubstr("the totals are inconsistent"));
}

// Whose tokens were their own keys, and had ids in front of their headers.
TEST_F(StoreStartTest, TakesOverAStoreOfTheLastRelease) {
  { const StoreLock directory(kOptions); }
  {
    Database made(kPath, Database::Use::kMake, 1U << 20);
    Transaction change = made.Begin();
    const std::string text = R"({"pid":7,"service":"fastapi"})";
    RecordHeader header;
    header.service_size = 7;
    header.text_size = static_cast<std::uint32_t>(text.size());
    header.SetOwner(*IdentifyProcess(getpid()));
    std::string record = EncodeRecord({header, "fastapi", text});
    record.replace(offsetof(RecordHeader, lifetime), 16, std::string(sizeof(Moment), '\0'));
    Put(change, "meta", "format", "Zelt token store 1");
    Put(change, "tokens", "a", "01234567" + record);
    Put(change, "usage", std::string(4, '\0') + "fastapi", std::string("\1").append(7, '\0'));
    made.Commit(std::move(change));
  }
  const Daemon daemon;
  EXPECT_EQ(daemon.Pid("a"), "7");
  EXPECT_EQ(daemon.Transfer("a", getppid()), "done");
  EXPECT_EQ(daemon.opened.store->Usage(0).rows[0].service, "fastapi");
}

TEST_F(StoreStartTest, GoesOnWithTheOldFileIfThereIsNoSpaceForANewOne) {
  MountEmpty("/tmp", "mode=755,size=4m");
  for (const char* token : {"a", "b"}) {
    const std::string log = Logged([&] {
      const Daemon daemon({.path = kPath, .bytes = 1U << 20});
      EXPECT_EQ(daemon.Issue(token), "done");
      EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
    });
    EXPECT_EQ(log.find("the store needs 3145728 bytes") == log.npos, *token == 'a') << log;
  }
}

TEST_F(StoreStartTest, KeepsMoreThanItsSizeNow) {
  const std::string large = "'" + std::string(60'000, 'x') + "'";
  for (int i = 0; i < 40; ++i) Daemon().Issue(std::to_string(i), From(kAlice), large);
  EXPECT_EQ(Daemon({.path = kPath, .bytes = 1}).Pid("39"), std::to_string(getpid()));
}

TEST_F(StoreStartTest, IsUsedByOneDaemonOnly) {
  const Daemon daemon;
  EXPECT_EQ(Outcome([&] { StoreLock(daemon.options, std::chrono::milliseconds(1)); }),
            "another daemon uses the store /tmp/store/tokens.mdb");
  fs::rename("/tmp/store/tokens.mdb", "/tmp/store/old");
  for (int replaced = 0; replaced < 2; ++replaced) {
    WorkerSlot slot;
    EXPECT_EQ(Outcome([&] { OpenStore(daemon.options, daemon.lock, slot); }),
              "/tmp/store/tokens.mdb was removed, replaced or truncated; restart the daemon");
    fs::copy_file("/tmp/store/old", "/tmp/store/tokens.mdb", fs::copy_options::overwrite_existing);
  }
}

TEST_F(StoreStartTest, MakesItsDirectory) {
  const mode_t mask = umask(0);
  Daemon({.path = "/tmp/a/b/tokens"});
  Daemon({.path = "/tmp/c/tokens", .public_directory = "/tmp/c"});
  umask(mask);
  EXPECT_EQ(Shell("stat -c %a /tmp/a /tmp/a/b /tmp/a/b/tokens /tmp/c"), "755\n700\n600\n755\n");
}

TEST_F(StoreStartTest, TheTextStoreHasItsOwnDirectoryAndOneOwnerForAToken) {
  StoreOptions options{.path = "/tmp/tokens", .format = StoreFormat::kText};
  EXPECT_THAT(Outcome([&] { Daemon{options}; }),
              StartsWith("/tmp was not created by the text store, which would change its mode;"));
  options.path = "/tmp/text/tokens";
  {
    const Daemon daemon(options);
    EXPECT_THAT(Outcome([&] { StoreLock(options, {}); }), HasSubstr(" uses the store /tmp/text"));
    EXPECT_EQ(daemon.Issue("a", From(kAlice, 1)), "done");
    EXPECT_THAT(daemon.Transfer("a", 0), StartsWith("no living process"));
    EXPECT_EQ(daemon.Issue("c", From(kAlice, 1)), "done");
    LimitFiles(fs::file_size(options.path));
    EXPECT_NE(daemon.Transfer("a", getpid()), "done");  // which needs more bytes
    LimitFiles(RLIM_INFINITY);
    EXPECT_EQ(daemon.Pid("a"), "1");
    EXPECT_EQ(daemon.Transfer("a", getpid()), "done");
    EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
    EXPECT_EQ(daemon.Issue("b", From(kAlice), "[]", std::chrono::seconds(1)),
              "the text store cannot do this");
  }
  std::ofstream(options.path, std::ios::app) << "torn {";
  const Daemon daemon(options);
  for (const auto& outcome : {daemon.Issue("b"), daemon.Revoke("a")}) EXPECT_EQ(outcome, "done");
  EXPECT_EQ(daemon.Pid("b"), std::to_string(getpid()));
}

}  // namespace ZELT::StoreTests
