#include "zelttokenmanager/service/fastapi.h"

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;

constexpr const char* kGrant = "[{'api':'A','method':'get'}]";
constexpr const char* kGrants =
    "[{'api':'A','method':'get','note':1},{'api':'A','method':'get'},"
    "{'api':'A','method':'set','runner':'any'},5]";

// Requests with their privilege entries, in the order of the checks.
const std::vector<Row> kIssueRows = {
    {"'payload'", "null", "22 invalid type of 'payload', Array expected"},
    {"{}", "null", "22 invalid type of 'payload', Array expected"},
    {"{'payload':[]}", "null", "23 invalid type, Array expected"},
    {"{'payload':[5]}", "{}", "23 invalid type, Array expected"},
    {"{'payload':[{'method':1}]}", "[5]", "26 invalid type of 'api', String expected"},
    {"{'payload':[{'api':'A'}]}", "[5]", "27 invalid type of 'method', String expected"},
    {"{'payload':[{'api':'A','method':'x'}]}", kGrants,
     "34 invalid type of 'api', String expected"},
    {"{'payload':[{'api':'A','method':'get'}]}", "[{'api':'B','method':[]}]",
     "35 invalid type of 'method', String expected"},
    {"{'payload':[{'api':'A','method':'Get'}]}", kGrant,
     "47 api=A method=Get is not on the permitted list"},
    {"{'payload':[{'api':'A','method':'get'},{'api':'','method':'get'}]}", kGrant,
     "47 api= method=get is not on the permitted list"},
    {"{'payload':[]}", "[5]", "[]"},
    {"{'payload':[{'api':'A','method':'set'},{'api':'A','method':'get'}]}", kGrants,
     "[{'api':'A','method':'set','runner':'any'},{'api':'A','method':'get','note':1}]"},
    {"{'payload':[{'api':'A','method':'get'},{'api':'A','method':'get'}]}", kGrant,
     "[{'api':'A','method':'get'},{'api':'A','method':'get'}]"},
};

constexpr const char* kCall = "{'payload':{'api':'A','method':'get','runner':'@r'}}";

// Requests with the associated data of their tokens.
const std::vector<Row> kValidateRows = {
    {"[]", "null", "58 invalid type of 'payload', Object expected"},
    {"{'payload':{}}", "null", "59 invalid type of 'api', String expected"},
    {"{'payload':{'api':'A','runner':5}}", "null", "60 invalid type of 'method', String expected"},
    {"{'payload':{'api':'A','method':'get'}}", "{'payload':[]}",
     "61 invalid type of 'runner', String expected"},
    {kCall, "{'payload':{}}", "62 invalid type of 'payload', Array expected"},
    {kCall, "{'payload':['api']}", "67 invalid type of 'api', String expected"},
    {kCall, "{'payload':[{'api':'B'}]}", "68 invalid type of 'method', String expected"},
    {kCall, "{'payload':[]}", "false"},
    {kCall, "{'payload':[{'api':'A','method':'GET'},{'api':'a','method':'get'}]}", "false"},
    {kCall, "{'payload':[{'api':'A','method':'get'},5],'requester':'@r'}", "true"},
    {kCall, "{'payload':[{'api':'A','method':'get'}],'requester':'@s'}", "false"},
    {kCall, "{'payload':[{'api':'A','method':'get'}],'requester':['@r']}", "false"},
    {"{'payload':{'api':'A','method':'get','runner':''}}",
     "{'payload':[{'api':'A','method':'get'}],'requester':{}}", "true"},
    {kCall, "{'payload':[{'api':'A','method':'get','runner':'any'}]}", "true"},
    {kCall, "{'payload':[{'api':'A','method':'get','runner':null}]}",
     "utils.cpp:190 invalid type of permitted list"},
    {kCall, "{'payload':[{'api':'A','method':'get','runner':['@q','@r']}]}", "true"},
    // The first entry decides.
    {kCall,
     "{'payload':[{'api':'A','method':'get','runner':[]},"
     "{'api':'A','method':'get','runner':'any'}],'requester':'@r'}",
     "false"},
};

TEST(FastAPITest, IssuesWhatIsGrantedAndPermitsTheRunner) {
  FastAPI service;
  EXPECT_EQ(service.GetName(), "fastapi");
  CheckRows("service/fastapi.cpp", kIssueRows, [&](const auto& request, const auto& privilege) {
    return service.Issue(request, privilege);
  });
  CheckRows("service/fastapi.cpp", kValidateRows,
            [&](const auto& request, const auto& data) { return service.Validate(request, data); });
}

}  // namespace
}  // namespace ZELT::TokenManager
