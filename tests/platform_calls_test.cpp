// What the library asks the platform for, with a platform that notes it and can fail.
#include "support/testing.h"
#include "zeltsystem/file.h"
#include "zeltsystem/group.h"
#include "zeltsystem/user.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/token_manager.h"
#include "zelttokenmanager/utils.h"

std::string calls;
bool works = true;

struct QLIBCSzList {
  std::deque<std::string> names{"users", "staff"};
};

int ZELTUserGetLocalByUID(uid_t uid, ZELTUser** user) {
  calls += "user " + std::to_string(uid) + (*user == nullptr ? "," : " not null,");
  if (!works) return -1;
  *user = new ZELTUser{const_cast<char*>("alice")};
  return 0;
}
void ZELTUserFree(ZELTUser* user) { calls += "free user,", delete user; }
QLIBCSzList* QLIBGroupInfoListGet(const char* user_name, int scope) {
  calls += std::string(user_name) + ' ' + std::to_string(scope) + ',';
  return works ? new QLIBCSzList : nullptr;
}
const char* QLIBCSzListShift(QLIBCSzList* list) {
  static std::string shifted;
  if (list->names.empty()) return nullptr;
  shifted = list->names.front(), list->names.pop_front();
  return shifted.c_str();
}
void QLIBCSzListFree(QLIBCSzList* list) { calls += "free,", delete list; }
int QLIBCFileTouch(const char* path) {
  calls += std::string(path) + ',';
  return works ? (std::ofstream(path, std::ios::app), 0) : -1;
}

namespace ZELT::TokenManager::PlatformCallsTests {

struct Row {
  std::function<Json::Value()> call;
  std::string calls;
  std::string outcome;
};

std::function<Json::Value()> IsIn(const char* identity, const char* permitted) {
  return [=]() -> Json::Value { return IsIdentityInPermittedList(identity, Value(permitted), ""); };
}

Json::Value Issue() {
  Json::Value response;
  TokenManager("/none", nullptr, nullptr).IssueToken({1, 7, 0}, Value("{'service':''}"), response);
  return response;
}

Json::Value Store() {
  JsonFileStorage("/tmp/s/tokens").Insert("t", 1);
  return true;
}

const std::string kNoPackage = "token_manager.cpp:66 failed to get package name from uid";
const Row kWorking[] = {
    {Issue, "user 7,free user,", kNoPackage},
    {IsIn("bob", "'any'"), "", "true"},
    {IsIn("@staff", "['@staff']"), "", "true"},
    {IsIn("bob", "[]"), "bob 1,free,", "false"},
    {IsIn("bob", "['@none','@staff',5]"), "bob 1,free,", "true"},
    {IsIn("bob", "[5]"), "bob 1,free,", "utils.cpp:170 invalid type, String expected"},
    {Store, "/tmp/s/tokens.lock,/tmp/s/tokens,", "true"},
    {Store, "/tmp/s/tokens.lock,", "true"}};
const Row kFailing[] = {
    {Issue, "user 7,free user,", "token_manager.cpp:35 failed to get username from uid"},
    {IsIn("bob", "[]"), "bob 1,", "utils.cpp:37 failed to lookup groups of user"},
    {Store, "/tmp/s/tokens.lock,", "storage/json_file_storage.cpp:34 failed to create lock file"}};

using PlatformCallsTest = PrivateFiles;

TEST_F(PlatformCallsTest, AreMadeOnceAndUndoneOnEveryPath) {
  for (works = true; const Row& row : kWorking) {
    EXPECT_EQ(Outcome(row.call), row.outcome);
    EXPECT_EQ(std::exchange(calls, ""), row.calls) << row.outcome;
  }
  for (works = false; const Row& row : kFailing) {
    EXPECT_EQ(Outcome(row.call), row.outcome);
    EXPECT_EQ(std::exchange(calls, ""), row.calls) << row.outcome;
  }
}

}  // namespace ZELT::TokenManager::PlatformCallsTests
