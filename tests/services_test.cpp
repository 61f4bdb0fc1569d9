#include <sys/inotify.h>
#include <sys/ioctl.h>

#include "support/testing.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"

namespace ZELT::TokenManager::ServicesTests {

template <typename Service>
Json::Value Issue(const Json::Value& payload, const Json::Value& privilege) {
  Json::Value request;
  request["payload"] = payload;
  return Service().Issue(request, privilege);
}

// Asks about a token that "@r" requested. The object is gone before the next call.
template <typename Service>
bool Validate(const Json::Value& payload, const Json::Value& grants) {
  Json::Value request;
  Json::Value data = Value("{'requester':'@r'}");
  request["payload"] = payload;
  data["payload"] = grants;
  return std::make_unique<Service>()->Validate(request, data);
}

constexpr const char* kFastApi = "service/fastapi.cpp";
constexpr const char* kGrants =
    "[{'api':'A','method':'get','note':1},{'api':'A','method':'get'},"
    "{'api':'A','method':'set','runner':'any'},5]";
constexpr const char* kGet = "{'api':'A','method':'get','runner':'@r'}";

TEST(FastAPITest, IssuesWhatIsGrantedAndPermitsTheRunner) {
  EXPECT_EQ(FastAPI().GetName(), "fastapi");
  CheckRows(kFastApi, Issue<FastAPI>,
            {{"'x'", "null", "22 'payload' Array"},
             {"[5]", "{}", "23 invalid type, Array expected"},
             {"[{'method':1}]", "[5]", "26 'api' String"},
             {"[{'api':'A'}]", "[5]", "27 'method' String"},
             {"[{'api':'A','method':'x'}]", kGrants, "34 'api' String"},
             {"[{'api':'A','method':'get'}]", "[{'api':'B','method':[]}]", "35 'method' String"},
             {"[{'api':'A','method':'get'},{'api':'A','method':'Get'}]",
              "[{'api':'A','method':'get'}]", "47 api=A method=Get is not on the permitted list"},
             {"[{'api':'A','method':'set'},{'api':'A','method':'get'}]", kGrants,
              "[{'api':'A','method':'set','runner':'any'},{'api':'A','method':'get','note':1}]"}});
  CheckRows(kFastApi, Validate<FastAPI>,
            {{"[]", "null", "58 'payload' Object"},
             {"{}", "null", "59 'api' String"},
             {"{'api':'A','runner':5}", "null", "60 'method' String"},
             {"{'api':'A','method':'get'}", "null", "61 'runner' String"},
             {kGet, "{}", "62 'payload' Array"},
             {kGet, "['api']", "67 'api' String"},
             {kGet, "[{'api':'B'}]", "68 'method' String"},
             {kGet, "[{'api':'A','method':'GET'},{'api':'a','method':'get'}]", "false"},
             {kGet, kGrants, "true"},
             {"{'api':'A','method':'set','runner':'@s'}", kGrants, "true"},
             // The first grant decides.
             {"{'api':'A','method':'get','runner':'@s'}",
              "[{'api':'A','method':'get'},{'api':'A','method':'get','runner':'any'}]", "false"}});
}

constexpr const char* kTaskManager = "service/taskmanager.cpp";

TEST(TaskManagerTest, IssuesWhatIsGrantedForAnAction) {
  EXPECT_EQ(TaskManager().GetName(), "taskmanager");
  CheckRows(kTaskManager, Issue<TaskManager>,
            {{"null", "null", "22 'payload' Object"},
             {"{}", "null", "23 'action' String"},
             {"{'action':'x','args':{}}", "null", "24 'args' Array"},
             {"{'action':'x','args':[5]}", "null", "25 invalid type, Array expected"},
             {"{'action':'x','args':[5]}", "[5]", "28 unexpected action, 'issue' expected"},
             {"{'action':'issue','args':[5]}", "[5]", "32 'prefix' String"},
             {"{'action':'issue','args':[{'prefix':'p'}]}", "[5]", "38 'prefix' String"},
             {"{'action':'issue','args':[{'prefix':'p_1'}]}", "[{'prefix':'p_'}]",
              "50 prefix=p_1 is not on the permitted list"},
             {"{'action':'issue','args':[{'prefix':'q'},{'prefix':'p'}]}",
              "[{'note':1,'prefix':'p'},{'prefix':'p'},{'prefix':'q'},5]",
              "[{'prefix':'q'},{'note':1,'prefix':'p'}]"}});
  CheckRows(kTaskManager, Validate<TaskManager>,
            {{"'x'", "null", "73 'payload' Object"},
             {"{'args':[]}", "null", "74 'action' String"},
             {"{'action':'x','args':[]}", "null", "75 'args' Object"},
             {"{'action':'x','args':{}}", "null", "76 'payload' Array"},
             {"{'action':'x','args':{}}", "[]", "82 invalid action: x"}});
}

void CheckAction(const std::string& action, const std::vector<Row>& rows) {
  const auto validate = [&](const Json::Value& args, const Json::Value& grants) {
    Json::Value payload = Value("{'action':'" + action + "'}");
    payload["args"] = args;
    return Validate<TaskManager>(payload, grants);
  };
  CheckRows(kTaskManager, validate, rows);
}

TEST(TaskManagerTest, PermitsEachActionByItsOwnCheck) {
  for (const char* action : {"remove", "update", "read"}) {
    CheckAction(action, {{"{'owner':'@r'}", "[5]", "112 'task' String"},
                         {"{'task':'p_1'}", "[{'prefix':5}]", "113 'prefix' String"},
                         {"{'task':'p_1'}", "[{'prefix':'p_'}]", "120 'owner' String"},
                         {"{'task':'xp_1'}", "[{'prefix':'p_'}]", "false"},
                         {"{'task':'p_1','owner':'@s'}",
                          "[{'prefix':'p_'},{'prefix':'p','owner':['@s']},5]", "true"}});
  }
  CheckAction("create", {{"{}", "[5]", "184 'prefix' String"},
                         {"{'task':5}", "[{'prefix':'p_'}]", "195 required argument is missing"},
                         {"{'prefix':'p_'}", "[{'prefix':'p_'}]", "199 'owner' String"},
                         {"{'prefix':'p_1','task':'p_1'}", "[{'prefix':'p_'}]", "false"},
                         {"{'prefix':5,'task':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
                         {"{'prefix':'p_','owner':'@s'}", "[{'prefix':'p_'}]", "false"}});
  CheckAction("list", {{"{'task':'p_1'}", "[5]", "148 'prefix' String"},
                       {"{'prefix':'p_'}", "['p_']", "149 'prefix' String"},
                       {"{'prefix':'p_'}", "[{'prefix':'p_'}]", "154 'owner' String"},
                       {"{'prefix':'p_1'}", "[{'prefix':'p_'}]", "false"},
                       {"{'prefix':'p_','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
                       {"{'prefix':'p_','owner':'@s'}", "[{'prefix':'p_'}]", "false"}});
}

using GroupsTest = PrivateFiles;

// The bytes of inotify(7)'s events of the group file while bob is looked for in `grants`.
int ReadsOfGroups(const Json::Value& grants) {
  const int watch = inotify_init1(IN_CLOEXEC);
  inotify_add_watch(watch, "/etc/group", IN_OPEN | IN_CLOSE_NOWRITE);
  const Json::Value payload = Value("{'action':'read','args':{'task':'p_1','owner':'bob'}}");
  EXPECT_FALSE(Validate<TaskManager>(payload, grants));
  int bytes = 0;
  ioctl(watch, FIONREAD, &bytes);
  close(watch);
  return bytes;
}

TEST_F(GroupsTest, AreLookedUpOnceForAllGrantsAndAgainForTheNextRequest) {
  Json::Value grants = Value("[{'prefix':'p','owner':['@users2','alice']}]");
  const int once = ReadsOfGroups(grants);
  EXPECT_GT(once, 0);
  for (const char* owner : {"@none", "carol", "@none"}) {
    grants.append(grants[0])["owner"][0] = owner;
  }
  EXPECT_EQ(ReadsOfGroups(grants), once);
}

}  // namespace ZELT::TokenManager::ServicesTests
