#include "json_text.h"

#include <sys/stat.h>

#include <limits>

#include "support/tables.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace ZELT::TokenManager::JsonTextTests {

using namespace std::string_literals;
using JsonTextTest = PrivateFiles;

std::string Deep(int depth) {
  const auto count = static_cast<std::size_t>(depth);
  return std::string(count, '[') + std::string(count, ']');
}

TEST_F(JsonTextTest, IsReadStrictlyAndWrittenAsItIsRead) {
  const std::string long_text = '"' + std::string(1 << 17, 'x') + '"';
  std::vector<Cells> rows = Section("json_text.txt", "read");
  rows.insert(rows.end(), {{Deep(kMaxJsonDepth), Deep(kMaxJsonDepth)}, {long_text, long_text}});
  Json::Value value;
  for (const Cells& row : rows) {
    EXPECT_TRUE(fromString(row.at(0), value)) << row[0];
    EXPECT_EQ(toString(value), row.at(1));
  }
  Cells refused = SectionLines("json_text.txt", "refused");
  refused.insert(refused.end(),
                 {"", "{}\0{}"s, "\"a\nb\"", "\"\xff\"", Deep(kMaxJsonDepth + 1), Deep(100000)});
  for (const std::string& text : refused) EXPECT_FALSE(fromString(text, value)) << text;
  EXPECT_EQ(toString(value), long_text) << "unchanged";
}

TEST_F(JsonTextTest, IsNotWrittenWhenNobodyCouldReadIt) {
  Json::Value deep(Json::arrayValue);
  for (int depth = 1; depth <= kMaxJsonDepth; ++depth) {
    Json::Value outer;
    outer["a"].swap(deep);
    deep.swap(outer);
  }
  Json::Value name;
  name["\xc3"] = 1;
  const double infinity = std::numeric_limits<double>::infinity();
  JsonFileStorage storage("/tmp/tokens");
  LRUCacheStorage cache(65536);
  for (const auto& [value, error] :
       {std::pair{deep, "json_text.cpp:54 JSON may be nested 1,000 deep at most"},
        {-infinity, "json_text.cpp:61 JSON has no infinite and undefined numbers"},
        {infinity - infinity, "json_text.cpp:61 JSON has no infinite and undefined numbers"},
        {"\xed\xa0\x80", "json_text.cpp:68 JSON text must be UTF-8"},
        {name, "json_text.cpp:68 JSON text must be UTF-8"}}) {
    EXPECT_EQ(Outcome([&, &unwritable = value] { storage.Insert("t", unwritable); }), error);
    cache.Insert("t", value);
    EXPECT_EQ(Outcome([&] { cache.GetAssociatedData("t"); }), "~std::exception");
  }
  EXPECT_FALSE(fs::exists("/tmp/tokens"));
}

TEST_F(JsonTextTest, IsReadFromRegularFilesOfSomeSize) {
  const std::string four_megabytes(4 << 20, ' ');
  WriteFile("/tmp/long", "5" + four_megabytes.substr(4096));
  WriteFile("/tmp/longer", "5" + four_megabytes);
  WriteFile("/tmp/broken", "{");
  mkfifo("/tmp/fifo", 0600);
  Json::Value value;
  EXPECT_TRUE(fromFile("/tmp/long", value) && value == 5);
  EXPECT_FALSE(fromFile("/tmp/long", value, (4U << 20) - 4096));
  for (const char* path :
       {"/tmp/none", "/tmp", "/tmp/fifo", "/dev/zero", "/tmp/longer", "/tmp/broken"}) {
    EXPECT_FALSE(fromFile(path, value)) << path;
  }
}

}  // namespace ZELT::TokenManager::JsonTextTests
