#include "text_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "json_member.h"
#include "json_text.h"
#include "owned_descriptor.h"
#include "process.h"

using ZELT::TokenManager::MemberOrNull;
using ZELT::TokenManager::OwnedDescriptor;
using ZELT::TokenManager::TextOf;
using ZELT::TokenManager::toString;

namespace {

void EndLastLine(const std::string& path) {
  const OwnedDescriptor file(open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC));
  if (!file.IsOpen()) return;  // there is no store yet, or the next use reports the error
  const off_t size = lseek(file.Get(), 0, SEEK_END);
  char last = '\n';
  if (size <= 0 || pread(file.Get(), &last, 1, size - 1) != 1 || last == '\n') return;
  if (write(file.Get(), "\n", 1) == 1) return;
  throw std::system_error(errno, std::generic_category(),
                          "cannot complete an unfinished line of the store");
}

}  // namespace

TextStore::TextStore(const std::string& file) : storage(file) { EndLastLine(file); }

void TextStore::Change(const Peer& /*peer*/, const std::function<void()>& work) {
  removed.reset();
  work();
  if (removed) storage.Remove(*removed);
}

void TextStore::Insert(const std::string& token, const Json::Value& data) {
  ExpectSmallToken(data, toString(data));
  const Json::Value& pid = MemberOrNull(data, "pid");
  if (!IdentifyProcess(pid.isInt() ? pid.asInt() : 0)) {
    throw std::runtime_error("no living process has the id of the new owner");
  }
  if (removed != token) return storage.Insert(token, data);
  const Json::Value old = storage.GetAssociatedData(token);
  storage.Remove(token);
  removed.reset();
  try {
    storage.Insert(token, data);
  } catch (...) {
    storage.Insert(token, old);
    throw;
  }
}

void TextStore::Remove(const std::string& token) { removed = token; }

Json::Value TextStore::GetAssociatedData(const std::string& token) {
  return storage.GetAssociatedData(token);
}

// A line without a valid "created_at" belongs to a token of age 0.
TokenRow TextStore::Inspect(const std::string& token) {
  const Json::Value data = GetAssociatedData(token);
  const Json::Value& pid = MemberOrNull(data, "pid");
  const Json::Value& created = MemberOrNull(data, "created_at");
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const auto age =
      now - std::chrono::nanoseconds(created.isInt64() ? created.asInt64() : now.count());
  TokenRow row{.service = TextOf(MemberOrNull(data, "service")),
               .requester = TextOf(MemberOrNull(data, "requester")),
               .pid = pid.isInt() ? pid.asInt() : 0,
               .age = std::max(std::chrono::duration_cast<std::chrono::seconds>(age),
                               std::chrono::seconds(0)),
               .payload = MemberOrNull(data, "payload")};
  row.alive = IdentifyProcess(row.pid).has_value();
  return row;
}
