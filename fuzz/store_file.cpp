// The bytes of a store file, read and changed by the file store. The first line of the input is
// the token, the rest is the file.
#include <sys/stat.h>

#include <boost/interprocess/exceptions.hpp>
#include <optional>
#include <stdexcept>

#include "json_text.h"
#include "support.h"
#include "zelttokenmanager/storage/json_file_storage.h"

namespace {

using namespace ZELT::Fuzz;
using ZELT::TokenManager::JsonFileStorage;

constexpr const char* kStore = "/var/store/tokens";

// The record of a token, found the slow and obvious way.
struct Line {
  std::size_t begin;
  std::size_t end;  // after its newline
  std::string data;
};

std::optional<Line> FindLine(std::string_view file, const std::string& token) {
  for (std::string_view rest = file; !rest.empty();) {
    const std::size_t begin = file.size() - rest.size();
    const std::string line = CutLine(rest);
    if (!line.starts_with(token + " ")) continue;
    return Line{begin, file.size() - rest.size(), line.substr(token.size() + 1)};
  }
  return std::nullopt;
}

std::optional<Json::Value> Read(JsonFileStorage& store, const std::string& token, bool empty) {
  try {
    return store.GetAssociatedData(token);
  } catch (const boost::interprocess::interprocess_exception&) {
    Expect(empty, "only an empty file cannot be mapped");
  } catch (const std::runtime_error&) {
  }
  return std::nullopt;
}

void Remove(JsonFileStorage& store, const std::string& token, bool empty) {
  try {
    store.Remove(token);
  } catch (const boost::interprocess::interprocess_exception&) {
    Expect(empty, "only an empty file cannot be mapped");
  }
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  EnterPrivateVar();
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static JsonFileStorage store(kStore);
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const std::string token = CutLine(rest);
  std::string file(rest);
  Overwrite(kStore, file);

  const auto line = FindLine(file, token);
  Json::Value expected;
  const bool valid = line && ZELT::TokenManager::fromString(line->data, expected);
  const auto found = Read(store, token, file.empty());
  Expect(found.has_value() == valid, "a token is found if and only if it has a valid line");
  Expect(!found || *found == expected, "the data is that of the first line");

  Remove(store, token, file.empty());
  if (line) file.erase(line->begin, line->end - line->begin);
  Expect(ReadWhole(kStore) == file, "removing takes the first line away and nothing else");
  return 0;
}
