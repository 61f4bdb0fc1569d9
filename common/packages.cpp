#include "packages.h"

#include <fcntl.h>
#include <json/value.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "json_member.h"

namespace ZELT::TokenManager {
namespace {

// Whether the file was not looked at, because descriptors or memory ran out. EBADF is from the
// descriptor of `kPackages`, which could not be opened.
bool IsExhausted(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EBADF;
}

}  // namespace

std::string_view PackageName(std::string_view entry) {
  // Not std::filesystem::path::stem, which returns ".name" for ".name".
  return entry.substr(0, entry.rfind('.'));
}

PrivilegeReader::PrivilegeReader() : packages(open(kPackages, O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

Privilege PrivilegeReader::Read(const std::string& entry) {
  Json::Value file;
  const std::string path = entry + '/' + kPrivilegeFile;
  const FileProblem read = reader.Read(packages.Get(), path.c_str(), file);
  if (IsExhausted(read.error)) {  // the file may name another user than the one by default
    throw std::system_error(read.error, std::generic_category(), kPackages + ('/' + path));
  }
  if (read.error == ENOENT || read.error == ENOTDIR) return {};
  if (read.text != nullptr) return {.username = "", .problem = read.text};
  if (!file.isObject()) return {.username = "", .problem = "not a JSON object"};
  std::string username = TextOf(MemberOrNull(file, "username"));
  const bool is_unnamed = username.empty() && file.isMember("username");
  return {.username = std::move(username),
          .problem = is_unnamed ? "\"username\" does not name a user" : nullptr};
}

}  // namespace ZELT::TokenManager
