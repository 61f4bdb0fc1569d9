#include "support/tables.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"

namespace ZELT::TokenManager::ServicesTests {

TEST(ServicesTest, IssueWhatIsGrantedAndPermitWhatATokenHolds) {
  CheckService<FastAPI>("fastapi");
  CheckService<TaskManager>("taskmanager");
}

}  // namespace ZELT::TokenManager::ServicesTests
