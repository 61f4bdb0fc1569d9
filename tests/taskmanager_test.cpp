#include "zelttokenmanager/service/taskmanager.h"

#include <memory>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;

constexpr const char* kSource = "service/taskmanager.cpp";

// Requests with their privilege entries, in the order of the checks.
const std::vector<Row> kIssueRows = {
    {"null", "null", "22 invalid type of 'payload', Object expected"},
    {"{'payload':{}}", "null", "23 invalid type of 'action', String expected"},
    {"{'payload':{'action':'x','args':{}}}", "null", "24 invalid type of 'args', Array expected"},
    {"{'payload':{'action':'x','args':[5]}}", "null", "25 invalid type, Array expected"},
    {"{'payload':{'action':'validate','args':[5]}}", "[5]",
     "28 unexpected action, 'issue' expected"},
    {"{'payload':{'action':'issue','args':[5]}}", "[5]",
     "32 invalid type of 'prefix', String expected"},
    {"{'payload':{'action':'issue','args':[{'prefix':'p_'}]}}", "[5]",
     "38 invalid type of 'prefix', String expected"},
    {"{'payload':{'action':'issue','args':[{'prefix':'p'}]}}", "[{'prefix':'p_'}]",
     "50 prefix=p is not on the permitted list"},
    {"{'payload':{'action':'issue','args':[{'prefix':'p_1'}]}}", "[{'prefix':'p_'}]",
     "50 prefix=p_1 is not on the permitted list"},
    {"{'payload':{'action':'issue','args':[]}}", "[5]", "[]"},
    {"{'payload':{'action':'issue','args':[{'prefix':'q'},{'prefix':'p'}]}}",
     "[{'prefix':'p','note':1},{'prefix':'p','note':2},{'prefix':'q','owner':[]},5]",
     "[{'owner':[],'prefix':'q'},{'note':1,'prefix':'p'}]"},
};

// Requests with the associated data of their tokens.
const std::vector<Row> kShapeRows = {
    {"'payload'", "[]", "73 invalid type of 'payload', Object expected"},
    {"{'payload':{'args':[]}}", "[]", "74 invalid type of 'action', String expected"},
    {"{'payload':{'action':'x','args':[]}}", "[]", "75 invalid type of 'args', Object expected"},
    {"{'payload':{'action':'x','args':{}}}", "{'payload':null}",
     "76 invalid type of 'payload', Array expected"},
    {"{'payload':{'action':'delete','args':{}}}", "{'payload':[]}", "82 invalid action: delete"},
};

// The arguments of an action with the grants of a token that "@r" requested.
const std::vector<Row> kTaskRows = {
    {"{}", "[]", "false"},
    {"{'owner':'@r'}", "[5]", "112 invalid type of 'task', String expected"},
    {"{'task':'p_1'}", "[{'prefix':5}]", "113 invalid type of 'prefix', String expected"},
    {"{'task':'p_1'}", "[{'prefix':'p_'}]", "120 invalid type of 'owner', String expected"},
    {"{'task':'q_1'}", "[{'prefix':'p_'}]", "false"},
    {"{'task':'p'}", "[{'prefix':'p_'}]", "false"},
    {"{'task':'xp_1','owner':'@r'}", "[{'prefix':'p_'}]", "false"},
    {"{'task':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
    {"{'task':'','owner':'@r'}", "[{'prefix':''}]", "true"},
    {"{'task':'p_1','owner':'@s'}", "[{'prefix':'p_'}]", "false"},
    {"{'task':'p_1','owner':'@s'}", "[{'prefix':'p_','owner':'any'}]", "true"},
    {"{'task':'p_1','owner':'@s'}", "[{'prefix':'p_','owner':5},{'prefix':'p','owner':'any'}]",
     "utils.cpp:190 invalid type of permitted list"},
    {"{'task':'p_1','owner':'@s'}", "[{'prefix':'p_'},{'prefix':'p','owner':['@s']},5]", "true"},
};

const std::vector<Row> kCreateRows = {
    {"{}", "[]", "false"},
    {"{}", "[5]", "184 invalid type of 'prefix', String expected"},
    {"{'prefix':5,'task':null}", "[{'prefix':'p_'}]", "195 required argument is missing"},
    {"{'prefix':'p_'}", "[{'prefix':'p_'}]", "199 invalid type of 'owner', String expected"},
    {"{'task':'p_1'}", "[{'prefix':'p_'}]", "199 invalid type of 'owner', String expected"},
    {"{'task':'q'}", "[{'prefix':'p_'}]", "false"},
    {"{'prefix':'o_','task':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "false"},
    {"{'prefix':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "false"},
    {"{'prefix':5,'task':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
    {"{'prefix':'p_','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
};

const std::vector<Row> kListRows = {
    {"{}", "[]", "false"},
    {"{'task':'p_1'}", "[5]", "148 invalid type of 'prefix', String expected"},
    {"{'prefix':'p_'}", "['p_']", "149 invalid type of 'prefix', String expected"},
    {"{'prefix':'p_'}", "[{'prefix':'p_'}]", "154 invalid type of 'owner', String expected"},
    {"{'prefix':'p'}", "[{'prefix':'p_'}]", "false"},
    {"{'prefix':'p_1','owner':'@r'}", "[{'prefix':'p_'}]", "false"},
    {"{'prefix':'p_','owner':'@r'}", "[{'prefix':'p_'}]", "true"},
};

// The table of actions must not need the object that made it, which is gone after the first row.
Json::Value ValidateAnew(const Json::Value& request, const Json::Value& data) {
  return std::make_unique<TaskManager>()->Validate(request, data);
}

void CheckAction(const std::string& action, const std::vector<Row>& rows) {
  SCOPED_TRACE(action);
  CheckRows(kSource, rows, [&](const Json::Value& args, const Json::Value& grants) {
    Json::Value request;
    request["payload"]["action"] = action;
    request["payload"]["args"] = args;
    Json::Value data;
    data["requester"] = "@r";
    data["payload"] = grants;
    return ValidateAnew(request, data);
  });
}

TEST(TaskManagerTest, IssuesWhatIsGrantedAndPermitsEachActionByItsOwnCheck) {
  TaskManager service;
  EXPECT_EQ(service.GetName(), "taskmanager");
  CheckRows(kSource, kIssueRows, [&](const auto& request, const auto& privilege) {
    return service.Issue(request, privilege);
  });
  CheckRows(kSource, kShapeRows, ValidateAnew);
  for (const char* action : {"remove", "update", "read"}) {
    CheckAction(action, kTaskRows);
  }
  CheckAction("create", kCreateRows);
  CheckAction("list", kListRows);
}

}  // namespace
}  // namespace ZELT::TokenManager
