#include <sys/inotify.h>
#include <sys/ioctl.h>

#include "support/tables.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"

namespace ZELT::TokenManager::ServicesTests {

TEST(ServicesTest, IssueWhatIsGrantedAndPermitWhatATokenHolds) {
  CheckService<FastAPI>("fastapi");
  CheckService<TaskManager>("taskmanager");
}

using GroupsTest = PrivateFiles;

// The bytes of inotify(7)'s events of the group file while bob is looked for in `grants`.
int ReadsOfGroups(const Json::Value& grants) {
  const int watch = inotify_init1(IN_CLOEXEC);
  inotify_add_watch(watch, "/etc/group", IN_OPEN | IN_CLOSE_NOWRITE);
  Json::Value request = Value("{'payload':{'action':'read','args':{'task':'p','owner':'bob'}}}");
  EXPECT_FALSE(TaskManager().Validate(request, grants));
  int bytes = 0;
  ioctl(watch, FIONREAD, &bytes);
  close(watch);
  return bytes;
}

TEST_F(GroupsTest, AreLookedUpOnceForAllGrantsAndAgainForTheNextRequest) {
  const int once = ReadsOfGroups(Value("{'payload':[{'prefix':'p','owner':['alice']}]}"));
  EXPECT_GT(once, 0);
  EXPECT_EQ(ReadsOfGroups(Value("{'payload':[{'prefix':'p','owner':['@users2','alice']},"
                                "{'prefix':'','owner':['@none']},{'prefix':'p','owner':[]}]}")),
            once);
}

}  // namespace ZELT::TokenManager::ServicesTests
