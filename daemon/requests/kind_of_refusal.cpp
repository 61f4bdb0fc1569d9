#include "kind_of_refusal.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "token_store.h"

namespace {

struct Beginning {
  std::string_view text;
  RefusalKind kind;
};

// How the texts begin. The library's are part of its interface, and exceptions have no other sign.
constexpr std::array kBeginnings{
    Beginning{"the store has no such token", RefusalKind::kToken},
    Beginning{"service/fastapi.cpp:47 ", RefusalKind::kGrant},
    Beginning{"service/taskmanager.cpp:50 ", RefusalKind::kGrant},
    Beginning{"token_manager.cpp:35 ", RefusalKind::kPackage},
    Beginning{"token_manager.cpp:66 ", RefusalKind::kPackage},
    Beginning{"token_manager.cpp:260 ", RefusalKind::kPackage},
    Beginning{"token_manager.cpp:130 ", RefusalKind::kToken},
    Beginning{"token_manager.cpp:153 ", RefusalKind::kToken},
    Beginning{"token_manager.cpp:156 ", RefusalKind::kToken},
    Beginning{"token_manager.cpp:181 ", RefusalKind::kToken},
    Beginning{"token_manager.cpp:184 ", RefusalKind::kToken},
    Beginning{"storage/json_file_storage.cpp:147 ", RefusalKind::kToken},
    Beginning{"the token is for another service", RefusalKind::kToken},
    Beginning{"the peer has the process id of the owner", RefusalKind::kToken},
    Beginning{"no token has the id ", RefusalKind::kToken},
    Beginning{"user ", RefusalKind::kLimit},
    Beginning{"the store is full", RefusalKind::kLimit},
    Beginning{"too ", RefusalKind::kLimit},
    Beginning{"the token is too long", RefusalKind::kLimit},
    Beginning{"the token would hold ", RefusalKind::kLimit},
    Beginning{"the record of the token would have ", RefusalKind::kLimit},
    Beginning{"the request asks for more than ", RefusalKind::kLimit},
    Beginning{"token_manager.cpp:133 ", RefusalKind::kLimit},
    Beginning{"token_manager.cpp:134 ", RefusalKind::kLimit},
    Beginning{"only root and the daemon's user ", RefusalKind::kSender},
    Beginning{"the peer", RefusalKind::kSender},
    Beginning{"the process that asked for the token is gone", RefusalKind::kSender},
    Beginning{"not a JSON object", RefusalKind::kMalformed},
    Beginning{"unknown type of request", RefusalKind::kMalformed},
    Beginning{"a token cannot contain ", RefusalKind::kMalformed},
    Beginning{"\"", RefusalKind::kMalformed},
    Beginning{"an element of ", RefusalKind::kMalformed},
    Beginning{"no condition ", RefusalKind::kMalformed},
    Beginning{"there is no user ", RefusalKind::kMalformed},
    Beginning{"the text store cannot do this", RefusalKind::kMalformed},
    Beginning{"no living process has the id ", RefusalKind::kMalformed},
    Beginning{"token_manager.cpp:188 ", RefusalKind::kMalformed},
    Beginning{"token_manager.cpp:249 ", RefusalKind::kMalformed},
    Beginning{"service/taskmanager.cpp:", RefusalKind::kMalformed},
};

}  // namespace

RefusalKind KindOf(const std::exception& refusal) {
  if (dynamic_cast<const NoRoom*>(&refusal) != nullptr) return RefusalKind::kLimit;
  const std::string_view text = refusal.what();
  const auto found = std::find_if(kBeginnings.begin(), kBeginnings.end(),
                                  [&](const auto& each) { return text.starts_with(each.text); });
  if (found != kBeginnings.end()) return found->kind;
  const bool has_wrong_type = text.find(" invalid type") != text.npos;
  return has_wrong_type ? RefusalKind::kMalformed : RefusalKind::kFailure;
}
