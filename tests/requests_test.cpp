// Requests as a worker answers them, and --check.
#include <sys/stat.h>

#include <sstream>

#include "check.h"
#include "indexed_store.h"
#include "log.h"
#include "printing.h"
#include "record.h"
#include "request_handler.h"
#include "store_file.h"
#include "support/tables.h"

namespace ZELT::RequestsTests {

const std::string kInstalled = "/var/installed";
const std::string kProcess = std::to_string(getpid());
const StoreOptions kStore{.path = "/var/store/tokens.mdb"};
enum User : uid_t { kRoot = 0, kAlice = 4001, kBob, kAny, kCarol };

void WritePrivilege(const std::string& package, const std::string& text) {
  WriteFile("/var/packages/" + package + "/conf/privilege", Requoted(text));
}
void WriteInstalled(const std::string& package, const std::string& text) {
  WriteFile(kInstalled + "/" + package, Requoted(text));
}

Peer From(uid_t user, pid_t process = getpid()) {
  return {.credential = {.pid = process, .uid = user, .gid = 0},
          .accepted = std::chrono::nanoseconds(Now().boot_time)};
}

// A worker of a daemon. Its store fails to commit while it is full.
struct Worker {
  struct Store : IndexedStore {
    using IndexedStore::IndexedStore;
    void Commit() override {
      if (full) throw std::runtime_error("the store is full");
      IndexedStore::Commit();
    }
    void KeepHouse() override { ++kept; }
    bool full = false;
    int kept = 0;
  };

  explicit Worker(bool audit = false, std::size_t slot = 0)
      : store(kStore, board.slots.at(slot)),
        handler(store, board, board.slots.at(slot), {kInstalled, "9.8", audit}) {}

  std::string Ask(const Peer& peer, const std::string& request) {
    return Requoted(handler.Answer(peer, Requoted(request)));
  }
  std::string AskFor(const std::string& type, const std::string& token,
                     const std::string& payload = "null") {
    return Ask(From(kAlice), "{'type':'" + type + "','service':'fastapi','token':'" + token +
                                 "','payload':" + payload + "}");
  }
  std::string Issue(const Peer& peer = From(kAlice)) {
    return Value(Ask(peer,
                     "{'type':'issue','service':'fastapi',"
                     "'payload':[{'api':'A','method':'m'}]}"))["token"]
        .asString();
  }
  std::string Validate(const std::string& token) {
    return AskFor("validate", token, "{'api':'A','method':'m','runner':'bob'}");
  }

  Board board;
  Store store;
  RequestHandler handler;
};

// On a machine whose packages "notes" of alice and "mail" of bob are granted the same, and "any"
// nothing. What is logged goes to standard error.
struct WorkerTest : PrivateFiles {
  void SetUp() override {
    PrivateFiles::SetUp();
    if (IsSkipped()) return;
    WritePrivilege("notes", "{'username':'alice'}");
    WritePrivilege("mail", "{'username':'bob'}");
    WritePrivilege("any", "{}");
    for (const char* package : {"notes", "mail"}) {
      WriteInstalled(package, "{'fastapi':[{'api':'A','method':'m','runner':'any'}]}");
    }
    lock = std::make_unique<StoreLock>(kStore);
    testing::internal::CaptureStderr();
    OpenLog(true);
  }
  void TearDown() override {
    if (!IsSkipped()) testing::internal::GetCapturedStderr();
  }
  // The lines since the last call, less the program's name and process.
  static std::string TakeLog() {
    const std::string log = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return Requoted(std::regex_replace(log, std::regex("zelttokenmgrd\\[\\d+\\]: "), ""));
  }

  std::unique_ptr<StoreLock> lock;
};

constexpr const char* kRefused = "{'success':false}";
constexpr const char* kDone = "{'success':true}";
constexpr const char* kPermitted = "{'permitted':true,'success':true}";

TEST_F(WorkerTest, SaysWhyItRefuses) {
  Worker worker;
  const std::string token = worker.Issue();
  const std::string issue = "{'type':'issue','service':'fastapi','payload':[]}";
  const std::string no_id = "the peer has no process id in the daemon\"s pid namespace";
  const std::string not_root = "only root and the daemon\"s user may ask for this";
  const struct {
    Peer peer;
    std::string request;
    std::string log;  // type, a space, service
    std::string reason;
    std::string cause = "";
  } rows[] = {
      {From(kAlice), "", "none none", "not a JSON object"},
      {From(kAlice), "[1]", "none none", "not a JSON object"},
      {From(kAlice), std::string(10001, '['), "none none", "too many values"},
      {From(kAlice), "{'type':['issue']}", "none none", "unknown type of request"},
      {From(kAlice), "{'type':'is\\nsue\\u0000','service':'" + Repeated("a ", 200) + "'}",
       "'is\\u000asue\\u0000' '" + Repeated("a ", 128) + "'", "unknown type of request"},
      {From(kAlice), "{'type':'revoke','service':'" + token + "','token':'" + token + "'}",
       "'revoke' '...'", "token_manager.cpp:153 unmatched service"},
      {From(kAlice), "{'type':'validate','service':'fastapi','token':'x y'}",
       "'validate' 'fastapi'", "a token cannot contain a space, a newline or a NUL byte"},
      {From(kAlice), "{'type':'validate','token':'" + std::string(65, 'x') + "'}",
       "'validate' none", "the token is too long"},
      {From(kBob, 0), issue, "'issue' 'fastapi'", no_id},
      {From(kBob, 0), "{'type':'revoke'}", "'revoke' none", no_id},
      {From(kBob, 0), "{'type':'transfer'}", "'transfer' none", no_id},
      {From(kAny), issue, "'issue' 'fastapi'",
       "token_manager.cpp:260 failed to get installed config",
       "/var/installed/any: No such file or directory"},
      {From(kCarol), issue, "'issue' 'fastapi'",
       "token_manager.cpp:66 failed to get package name from uid",
       "no package in /var/packages runs as \\'carol\\'"},
      {From(kBob), "{'type':'list'}", "'list' none", not_root},
      {From(kBob), "{'type':'drop','all':true}", "'drop' none", not_root},
      {From(kBob), "{'type':'status'}", "'status' none", not_root},
      {From(kRoot), "{'type':'drop','orphans':false,'all':false}", "'drop' none",
       "no condition and no \\'all\\'"},
      {From(kRoot), "{'type':'drop','ids':[]}", "'drop' none", "\\'ids\\' is empty"},
      {From(kRoot), "{'type':'drop','ids':[-1]}", "'drop' none",
       "an element of \\'ids\\' is not an id"},
      {From(kRoot), "{'type':'drop','ids':1}", "'drop' none", "\\'ids\\' is not an array"},
      {From(kRoot), "{'type':'drop','service':''}", "'drop' ''", "\\'service\\' is empty"},
      {From(kRoot), "{'type':'list','user':'dave'}", "'list' none", "there is no user \\'dave\\'"},
      {From(kRoot), "{'type':'list','user':'1x'}", "'list' none", "there is no user \\'1x\\'"},
      {From(kRoot), "{'type':'list','user':null}", "'list' none", "\\'user\\' is not a string"},
      {From(kRoot), "{'type':'list','orphans':1}", "'list' none", "\\'orphans\\' is not a boolean"},
      {From(kRoot), "{'type':'status','after':-1}", "'status' none", "\\'after\\' is not an id"},
  };
  TakeLog();
  for (const auto& [peer, request, log, reason, cause] : rows) {
    EXPECT_EQ(worker.Ask(peer, request), kRefused) << request;
    const std::size_t space = log.find(' ');
    EXPECT_EQ(TakeLog(), "refused type=" + log.substr(0, space) + " service=" +
                             log.substr(space + 1) + " pid=" + std::to_string(peer.credential.pid) +
                             " uid=" + std::to_string(peer.credential.uid) + " reason='" + reason +
                             "'" + (cause.empty() ? "" : " cause='" + cause + "'") + "\n");
  }
  EXPECT_EQ(worker.AskFor("validate", token), "{'permitted':null,'success':false}");
  EXPECT_EQ(worker.Validate(token), kPermitted);
  WriteFile("/etc/passwd", "\xff:x:4001:0::/:/bin/sh\n");
  EXPECT_EQ(worker.Ask(From(kRoot), "{'type':'status'}"), kRefused);
  fs::remove_all("/var/packages");
  EXPECT_EQ(worker.Issue(), "");
  EXPECT_NE(TakeLog().find("reason='/var/packages: No such file or directory'\n"),
            std::string::npos);
}

TEST_F(WorkerTest, TakesATokenThroughItsLifeAndNotesIt) {
  const pid_t heir = Start([] { return pause(); });
  Worker worker(true);
  const std::string token = worker.Issue();
  EXPECT_EQ(worker.Ask(From(65534, 0), "{'type':'validate','service':'fastapi','token':'" + token +
                                           "','payload':{'api':'A','method':'m','runner':'x'}}"),
            kPermitted);
  EXPECT_EQ(worker.AskFor("transfer", token, std::to_string(heir)), kDone);
  EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
  EXPECT_EQ(worker.AskFor("revoke", worker.Issue()), kDone);
  EXPECT_EQ(worker.Ask(From(kRoot), "{'type':'drop','user':'alice'}"),
            "{'dropped':1,'success':true}");
  EXPECT_EQ(worker.Validate(token), kRefused);
  const std::string by_alice = " service='fastapi' pid=" + kProcess + " uid=4001";
  const std::string heir_id = std::to_string(heir);
  const std::string log = std::regex_replace(TakeLog(), std::regex("refused .*\n"), "");
  EXPECT_EQ(log, "audit issue id=1" + by_alice + "\naudit transfer id=1" + by_alice +
                     " to=" + heir_id + "\naudit issue id=2" + by_alice + "\naudit revoke id=2" +
                     by_alice + "\naudit drop id=1 service='fastapi' pid=" + kProcess +
                     " uid=0 requester=alice\n");
  EndProcess(heir);
}

TEST_F(WorkerTest, DoesNothingWhenTheChangeDoesNotLast) {
  Worker worker;
  const std::string token = worker.Issue();
  worker.store.full = true;
  EXPECT_EQ(worker.Ask(From(kBob), "{'type':'issue','service':'fastapi','payload':[]}"), kRefused);
  EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
  EXPECT_EQ(worker.AskFor("transfer", token, kProcess), kRefused);
  worker.store.full = false;
  EXPECT_EQ(worker.Validate(token), kPermitted);
  EXPECT_EQ(worker.AskFor("revoke", token), kDone);
}

// Another worker has begun a change and does not go on with it.
TEST_F(WorkerTest, WaitsForOthersOnlyToUseTheStore) {
  const pid_t other = Start([] {
    Worker stopped;
    const Change change(stopped.store, From(kRoot));
    WriteFile("/tmp/begun", "");
    return pause();
  });
  ASSERT_TRUE(Eventually([] { return fs::exists("/tmp/begun"); }));
  Worker worker;
  EXPECT_EQ(worker.Issue(From(kCarol)), "");
  EXPECT_EQ(worker.AskFor("transfer", "x", "'x'"), kRefused);
  EXPECT_EQ(worker.Validate("x"), kRefused);
  EndProcess(other);
  EXPECT_NE(worker.Issue(), "");
}

TEST_F(WorkerTest, DoesNotLetAUserFloodTheLog) {
  Worker worker;
  for (int i = 0; i < 1000; ++i) worker.Ask(From(kBob), "");
  worker.Ask(From(kAlice), "");
  EXPECT_NE(TakeLog().find("uid=4001"), std::string::npos);
  EXPECT_TRUE(Eventually([&] {
    worker.handler.OnIdle();
    return TakeLog().find("refusals of user 4002 were not logged") != std::string::npos;
  }));
}

std::string Ids(const Json::Value& answer) {
  std::string ids;
  for (const Json::Value& token : answer["tokens"]) ids += token["id"].asString() + " ";
  return ids;
}

TEST_F(WorkerTest, LetsAnAdministratorLookAfterTokens) {
  const pid_t ended = Start([] { return pause(); });
  Worker worker;
  worker.Issue(From(kAlice, ended));
  const std::string token = worker.Issue();
  worker.Issue(From(kBob));
  EndProcess(ended);
  const struct {
    const char* conditions;
    const char* ids;
  } rows[] = {
      {"'x':1", "1 2 3 "},           {"'user':'alice'", "1 2 "}, {"'user':'4002'", "3 "},
      {"'user':'77'", ""},           {"'service':'x'", ""},      {"'orphans':true", "1 "},
      {"'orphans':false", "1 2 3 "}, {"'after':1", "2 3 "},
  };
  for (const auto& [conditions, ids] : rows) {
    const std::string answer =
        worker.Ask(From(kRoot), "{'type':'list'," + std::string(conditions) + "}");
    EXPECT_EQ(Ids(Value(answer)), ids) << conditions;
    EXPECT_EQ(answer.find(token), std::string::npos);
  }
  for (const char* drop : {"'ids':[2,9]", "'orphans':true,'user':'alice'", "'all':true"}) {
    EXPECT_EQ(worker.Ask(From(kRoot), "{'type':'drop'," + std::string(drop) + "}"),
              "{'dropped':1,'success':true}");
  }
}

TEST_F(WorkerTest, AnswersInPages) {
  Worker worker;
  for (int i = 0; i < 250; ++i) worker.Issue(From(i % 2 == 0 ? kAlice : kBob));
  std::string sizes;
  for (Json::Value after = 0; !after.isNull();) {
    const std::string request = "{'type':'list','after':" + after.asString() + "}";
    const Json::Value page = Value(worker.Ask(From(kRoot), request));
    sizes += std::to_string(page["tokens"].size()) + " ";
    after = page["next"];
  }
  EXPECT_EQ(sizes, "100 100 50 ");
  EXPECT_EQ(worker.Ask(From(kRoot), "{'type':'drop','user':'alice'}"),
            "{'dropped':100,'next':199,'success':true}");
}

TEST(BoardTest, SortsTimesByPowersOfTwo) {
  using std::chrono::nanoseconds;
  const std::pair<nanoseconds, std::size_t> rows[] = {
      {nanoseconds(0), 0},         {nanoseconds(1000), 0}, {nanoseconds(1001), 1},
      {nanoseconds(4000), 2},      {nanoseconds(4001), 3}, {std::chrono::microseconds(1 << 18), 18},
      {std::chrono::hours(1), 19},
  };
  for (const auto& [time, bucket] : rows) EXPECT_EQ(TimeBucket(time), bucket) << time.count();
}

TEST_F(WorkerTest, CountsWhatWorkersDo) {
  Worker worker;
  worker.board.slots[0].pid = worker.board.slots[3].pid = 1;
  worker.board.slots[3].refused[7] = 40;
  worker.board.deaths = 5;
  worker.Issue();
  worker.Issue(From(kBob));
  worker.Issue(From(kCarol));
  worker.Validate("x");
  worker.Ask(From(kBob), "");
  Json::Value status = Value(worker.Ask(From(kRoot), "{'type':'status'}"));
  const WorkerSlot& slot = worker.board.slots[0];
  EXPECT_TRUE(slot.client_user == 0 && slot.client_process == getpid());
  EXPECT_TRUE(slot.type == RequestType::kStatus && slot.activity == Activity::kIdle);
  Json::UInt64 timed = 0;
  for (const Json::Value& count : status["service_times"]["counts"]) timed += count.asUInt64();
  EXPECT_EQ(timed, 5U);
  EXPECT_EQ(status["service_times"]["bounds_us"][18], 1 << 18);
  EXPECT_GT(status["uptime"].asInt64(), 0);
  EXPECT_EQ(Text(status["requests"]["issue"]), "{'done':2,'refused':1}");
  EXPECT_EQ(Text(status["requests"]["validate"]), "{'done':0,'refused':1}");
  EXPECT_EQ(Text(status["requests"]["other"]), "{'done':0,'refused':41}");
  EXPECT_EQ(Text(status["workers"]), "{'deaths':5,'running':2}");
  EXPECT_EQ(status["version"], "9.8");
  for (Json::Value& row : status["usage"]) row.removeMember("bytes");
  EXPECT_EQ(Text(status["usage"]),
            "[{'service':'fastapi','tokens':1,'uid':4001,'user':'alice'},"
            "{'service':'fastapi','tokens':1,'uid':4002,'user':'bob'}]");
}

TEST_F(WorkerTest, NamesOnceWhoMayWriteConfigurations) {
  fs::permissions(kInstalled + "/mail", fs::perms::others_write, fs::perm_options::add);
  std::string log = "/var/installed/mail: it is writable by everybody\n";
  WriteInstalled("mine", "{}");
  fs::permissions(kInstalled + "/mine", fs::perms::group_write, fs::perm_options::add);
  if (chown("/var/installed/notes", kAlice, 0) == 0) {  // not in a user namespace of one user
    WriteInstalled("staffed", "{}");
    fs::permissions(kInstalled + "/staffed", fs::perms::group_write, fs::perm_options::add);
    Check(chown("/var/installed/staffed", 0, 4101), "chown");
    log +=
        "/var/installed/notes: it is writable by user 'alice'\n"
        "/var/installed/staffed: it is writable by group 'staff'\n";
  }
  for (const std::size_t slot : {0U, 1U}) {
    Worker worker(false, slot);
    for (int turn = 0; turn < 100; ++turn) {
      worker.handler.OnIdle();  // looks at turns 0 and 60
      if (turn == 90) fs::permissions(kInstalled + "/mine", fs::perms::all);
    }
    EXPECT_EQ(worker.store.kept, slot == 0 ? 100 : 0);
    EXPECT_EQ(TakeLog(), slot == 0 ? log : "");
  }
}

std::string Checked() {
  std::ostringstream findings;
  const int exit_code = CheckFiles(kInstalled, findings);
  return Requoted(findings.str()) + "exit " + std::to_string(exit_code);
}

std::string Issued(const std::string& user, const std::string& service,
                   const std::string& payload) {
  std::ostringstream output;
  const int exit_code = CheckIssue(kInstalled, user, service, Requoted(payload), output);
  return Requoted(output.str()) + "exit " + std::to_string(exit_code);
}

struct CheckTest : PrivateFiles {};

TEST_F(CheckTest, NamesEachFile) {
  WritePrivilege("a", "{'username':'alice'}");
  WritePrivilege("a.old", "{'username':'bob'}");
  WritePrivilege("b", "{'username':'alice'}");
  WritePrivilege("c", "[]");
  WritePrivilege("d", "{,");
  WritePrivilege("e", "{'username':'e'}" + std::string(64 << 10, ' '));
  WritePrivilege("f", "{'username':['f']}");
  fs::create_directories("/var/packages/g/conf/privilege");
  WriteInstalled("a", "{'fastapi':{},'fastAPI':[],'taskmanager':[{'prefix':'p','owner':5},5]}");
  WriteInstalled("b",
                 "{'fastapi':[{'api':'A','method':'m'},{'api':'A'},"
                 "{'api':'A','method':'m','runner':['bob',{}]}]}");
  WriteInstalled("c", "'text'");
  WriteInstalled("d", "{'fastapi':[],}");
  WriteInstalled("e", "{}" + std::string(4 << 20, ' '));
  fs::create_symlink("f", kInstalled + "/f");
  for (const char* open_to_all :
       {"/var/packages", "/var/packages/b", "/var/packages/c/conf",
        "/var/packages/d/conf/privilege", "/var/installed", "/var/installed/a"}) {
    fs::permissions(open_to_all, fs::perms::others_write, fs::perm_options::add);
  }
  EXPECT_EQ(Checked(), R"(/var/packages: it is writable by everybody
/var/packages/a.old: package 'a' is also claimed by /var/packages/a
/var/packages/b: it is writable by everybody
/var/packages/b: user 'alice' is also claimed by /var/packages/a
/var/packages/c/conf: it is writable by everybody
/var/packages/c/conf/privilege: not a JSON object
/var/packages/d/conf/privilege: it is writable by everybody
/var/packages/d/conf/privilege: not JSON
/var/packages/e/conf/privilege: larger than 64 KiB
/var/packages/f/conf/privilege: 'username' does not name a user
/var/packages/g/conf/privilege: not a regular file
/var/installed: it is writable by everybody
/var/installed/a: it is writable by everybody
/var/installed/a: there is no service 'fastAPI'
/var/installed/a: fastapi: service/fastapi.cpp:23 invalid type, Array expected
/var/installed/a: taskmanager[0]: 'owner': utils.cpp:190 invalid type of permitted list
/var/installed/a: taskmanager[1]: service/taskmanager.cpp:38 invalid type of 'prefix', String expected
/var/installed/b: fastapi[1]: service/fastapi.cpp:35 invalid type of 'method', String expected
/var/installed/b: fastapi[2]: 'runner': utils.cpp:170 invalid type, String expected
/var/installed/c: not a JSON object
/var/installed/d: not JSON
/var/installed/e: larger than 4096 KiB
/var/installed/f: Too many levels of symbolic links
exit 1)");
}

TEST_F(CheckTest, SaysWhatAUserWouldBeGranted) {
  WritePrivilege("notes", "{'username':'alice','other':[]}");
  WriteInstalled("notes",
                 "{'fastapi':[{'api':'A','method':'m','note':1},"
                 "{'api':'A','method':'n','runner':['bob']}],"
                 "'taskmanager':[{'prefix':'p','owner':'any'}]}");
  EXPECT_EQ(Checked(), "exit 0");
  WritePrivilege("any", "[]");
  const struct {
    const char* user;
    const char* service;
    const char* payload;
    const char* output;
  } rows[] = {
      {"alice", "fastapi", "[{'api':'A','method':'m'}]",
       "[{'api':'A','method':'m','note':1}]\nexit 0"},
      {"4001", "fastapi", "[{'api':'A','method':'x'}]",
       "service/fastapi.cpp:47 api=A method=x is not on the permitted list\nexit 1"},
      {"alice", "printing", "[]", "token_manager.cpp:249 invalid service\nexit 1"},
      {"bob", "fastapi", "[]",
       "token_manager.cpp:66 failed to get package name from uid (no package in /var/packages runs "
       "as 'bob'; /var/packages/any/conf/privilege: not a JSON object)\nexit 1"},
      {"any", "fastapi", "[]",
       "token_manager.cpp:260 failed to get installed config (/var/installed/any: No such file or "
       "directory)\nexit 1"},
      {"dave", "fastapi", "[]", "there is no user 'dave'\nexit 1"},
      {"alice", "fastapi", "[1,]", "the payload is not JSON\nexit 64"},
  };
  for (const auto& [user, service, payload, output] : rows) {
    EXPECT_EQ(Issued(user, service, payload), output);
  }
  const std::string many = "[" + Repeated("{'api':'A','method':'m'},", 256);
  EXPECT_NE(Issued("alice", "fastapi", many + "{'api':'A','method':'m'}]").find("grants"),
            std::string::npos);
  fs::remove_all("/var/packages");
  const std::string missing = "/var/packages: No such file or directory\n";
  EXPECT_EQ(Issued("alice", "fastapi", "[]"), missing + "exit 1");
  EXPECT_EQ(Checked(), missing + "exit 1");
}

// The example in the documentation.
TEST(PrintingTest, GrantsPrintersAndPermitsUsers) {
  CheckService<TokenManager::Printing>("printing");
}

}  // namespace ZELT::RequestsTests
