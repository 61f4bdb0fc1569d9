#include "people.h"

#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

namespace {

// Far more than machines have that do not use a directory. The rest of a longer file is ignored.
constexpr std::streamsize kMaxFileBytes = 16 << 20;

// Answers of directories that are kept, and questions to them in a second at most.
constexpr std::size_t kMaxAnswers = 1024;
constexpr std::size_t kMaxQuestions = 64;

std::array<long, 4> VersionOf(const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0) return {};
  return {static_cast<long>(file.st_ino), file.st_size, file.st_mtim.tv_sec, file.st_mtim.tv_nsec};
}

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const auto size = std::clamp<std::streamsize>(file.tellg(), 0, kMaxFileBytes);
  std::string text(static_cast<std::size_t>(size), '\0');
  file.seekg(0);
  file.read(text.data(), size);
  return text;
}

// Removes the part of `text` before the separator from it, and returns that part.
std::string_view Cut(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

std::optional<uid_t> Number(std::string_view text) {
  uid_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

People::People(std::string etc) : etc_files(std::move(etc)) { Load(); }

std::vector<People::Version> People::VersionsOfAll() const {
  const std::string& etc = etc_files;
  return {VersionOf(etc + "/passwd"), VersionOf(etc + "/subuid"),
          VersionOf(etc + "/nsswitch.conf")};
}

uid_t People::PersonOf(uid_t id) {
  if (std::binary_search(users.begin(), users.end(), id)) return id;
  const auto after = ranges.upper_bound(id);
  if (after != ranges.begin()) {
    auto& [first, range] = *std::prev(after);
    if (id <= range.last) return OwnerOf(first, range);
  }
  return IsInDirectory(id) ? id : kSomebody;
}

uid_t People::OwnerOf(uid_t first, Range& range) {
  if (!range.owner_known) {
    const passwd* owner = getpwnam(range.owner.c_str());
    const uid_t named = owner != nullptr ? owner->pw_uid : first;
    range.person = Number(range.owner).value_or(named);
    range.owner_known = true;
  }
  return range.person;
}

bool People::IsInDirectory(uid_t id) {
  const auto known = directory.find(id);
  if (known != directory.end()) return known->second;
  if (questions == kMaxQuestions) return false;
  ++questions;
  return directory[id] = getpwuid(id) != nullptr;
}

// Ids that nobody has are asked for again, because a directory may have been out of reach.
void People::EverySecond() try {
  questions = 0;
  std::erase_if(directory, [](const auto& answer) { return !answer.second; });
  if (directory.size() + kMaxQuestions > kMaxAnswers) directory.clear();
  if (versions != VersionsOfAll()) Load();
} catch (const std::bad_alloc&) {  // it is tried again in a second
}

// Lines have the forms NAME:PASSWORD:ID:... and OWNER:FIRST:COUNT.
void People::Load() {
  std::vector<Version> found = VersionsOfAll();
  users.clear();
  ranges.clear();
  directory.clear();
  const std::string passwords = Read(etc_files + "/passwd");
  for (std::string_view rest = passwords; !rest.empty();) {
    std::string_view line = Cut(rest, '\n');
    Cut(line, ':'), Cut(line, ':');
    if (const auto id = Number(Cut(line, ':'))) users.push_back(*id);
  }
  std::sort(users.begin(), users.end());
  const std::string subordinate = Read(etc_files + "/subuid");
  for (std::string_view rest = subordinate; !rest.empty();) {
    std::string_view line = Cut(rest, '\n');
    const std::string owner(Cut(line, ':'));
    const auto first = Number(Cut(line, ':'));
    const auto count = Number(line);
    if (!first || !count || *count == 0) continue;
    const uid_t most = std::numeric_limits<uid_t>::max() - *first;
    ranges[*first] = {.last = *first + std::min(*count - 1, most), .owner = owner};
  }
  versions = std::move(found);
}
