#include "services.h"

#include <array>

#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"

using namespace ZELT::TokenManager;

namespace {

template <typename Kind>
std::shared_ptr<TokenService> Make() {
  return std::make_shared<Kind>();
}

// No real name begins with a NUL byte.
const std::array kServices = {
    Service{.make = Make<FastAPI>,
            .probe = R"([{"api":"\u0000","method":"\u0000"}])",
            .keys = {"api", "method"},
            .permitted_list = "runner"},
    Service{.make = Make<ZELT::TokenManager::TaskManager>,
            .probe = R"({"action":"issue","args":[{"prefix":"\u0000"}]})",
            .keys = {"prefix", "prefix"},
            .permitted_list = "owner"},
};

}  // namespace

std::span<const Service> Services() { return kServices; }

void AddServices(ZELT::TokenManager::TokenManager& manager) {
  for (const Service& service : kServices) manager.AddService(service.make());
}
