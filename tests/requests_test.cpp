// Requests as a worker answers them, and --check.
#include <sys/stat.h>

#include <cstdarg>
#include <sstream>

#include "check.h"
#include "configuration.h"
#include "printing.h"
#include "support/testing.h"

namespace ZELT::RequestsTests {

const std::string kInstalled = "/var/installed";

std::string Checked() {
  std::ostringstream findings;
  const int exit_code = CheckFiles(kInstalled, findings);
  return findings.str() + "exit " + std::to_string(exit_code);
}

std::string Issued(const std::string& user, const std::string& service, const char* payload) {
  std::ostringstream output;
  const int exit_code = CheckIssue(kInstalled, user, service, Requoted(payload), output);
  return Requoted(output.str()) + "exit " + std::to_string(exit_code);
}

void WritePrivilege(const std::string& package, const std::string& text) {
  WriteFile("/var/packages/" + package + "/conf/privilege", Requoted(text));
}
void WriteInstalled(const std::string& package, const std::string& text) {
  WriteFile(kInstalled + "/" + package, Requoted(text));
}

struct CheckTest : PrivateFiles {};

TEST_F(CheckTest, FindsNothingWrongWithWhatServes) {
  WritePrivilege("notes", "{'username':'alice','other':[]}");
  WritePrivilege("mail", "{}");
  WriteInstalled("notes",
                 "{'fastapi':[{'api':'A','method':'m'},{'api':'A','method':'n','runner':['bob']}],"
                 "'taskmanager':[{'prefix':'p','owner':'any'}]}");
  WriteInstalled("mail", "{'fastapi':[]}");
  EXPECT_EQ(Checked(), "exit 0");
}

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
  EXPECT_EQ(Requoted(Checked()), R"(/var/packages: it may be written by everybody
/var/packages/a.old: package 'a' is claimed by /var/packages/a too
/var/packages/b: it may be written by everybody
/var/packages/b: user 'alice' is claimed by /var/packages/a too
/var/packages/c/conf: it may be written by everybody
/var/packages/c/conf/privilege: not a JSON object
/var/packages/d/conf/privilege: it may be written by everybody
/var/packages/d/conf/privilege: not JSON
/var/packages/e/conf/privilege: larger than 64 KiB
/var/packages/f/conf/privilege: 'username' does not name a user
/var/packages/g/conf/privilege: not a regular file
/var/installed: it may be written by everybody
/var/installed/a: it may be written by everybody
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
  WritePrivilege("notes", "{'username':'alice'}");
  WriteInstalled("notes", "{'fastapi':[{'api':'A','method':'m','note':1}]}");
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
  fs::remove_all("/var/packages");
  const std::string missing = "/var/packages: No such file or directory\n";
  EXPECT_EQ(Issued("alice", "fastapi", "[]"), missing + "exit 1");
  EXPECT_EQ(Checked(), missing + "exit 1");
}

}  // namespace ZELT::RequestsTests

void Log(int /*priority*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vprintf(format, arguments);
  va_end(arguments);
}
