#include "json_text.h"

#include <sys/stat.h>

#include <limits>

#include "support/testing.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace ZELT::TokenManager::JsonTextTests {

using namespace std::string_literals;
using JsonTextTest = PrivateFiles;

std::string Deep(int depth) {
  const auto count = static_cast<std::size_t>(depth);
  return std::string(count, '[') + std::string(count, ']');
}

struct ReadRow {
  std::string text;
  Json::ValueType type;
  std::string written;
};

const ReadRow kReadRows[] = {
    {R"({"b":[],"a":{},"/*,}":null})", Json::objectValue, R"({"/*,}":null,"a":{},"b":[]})"},
    {"true", Json::booleanValue, "true"},
    {R"("\u00e4\u0000\/\ud83d\ude00")", Json::stringValue, "\"ä\\u0000/😀\""},
    {R"( "\"\\\b\f\n\r\t\u001f" )", Json::stringValue, R"("\"\\\b\f\n\r\t\u001f")"},
    {"-0", Json::intValue, "0"},
    {"-0.0", Json::realValue, "-0.0"},
    {"1E2", Json::realValue, "100.0"},
    {"-9223372036854775808", Json::intValue, "-9223372036854775808"},
    {"9223372036854775808", Json::uintValue, "9223372036854775808"},
    {"18446744073709551615", Json::uintValue, "18446744073709551615"},
    {"18446744073709551616", Json::realValue, "1.8446744073709552e+19"},
    {R"(["\"",-9223372036854775809,"\\99999999999999999999"])", Json::arrayValue,
     R"(["\"",-9.2233720368547758e+18,"\\99999999999999999999"])"},
    {Deep(kMaxJsonDepth), Json::arrayValue, Deep(kMaxJsonDepth)},
    {'"' + std::string(1 << 17, 'x') + '"', Json::stringValue,
     '"' + std::string(1 << 17, 'x') + '"'},
};

const std::vector<std::string> kRefused = {"",          "{'a':",
                                           "{} x",      "{} // comment",
                                           "[1/**/,2]", "{'a':1,}",
                                           "[1,]",      "[1 2]",
                                           "\"a\"",     "{'a':1,'b':2,'a':1}",
                                           "NaN",       "1e400",
                                           "01",        "{}\0{}"s,
                                           "'a\nb'",    "'\xff'",
                                           "'\\udc00'", "99999999999999999999x",
                                           Deep(1001),  Deep(100000)};

TEST_F(JsonTextTest, IsReadStrictlyAndWrittenAsItIsRead) {
  for (const ReadRow& row : kReadRows) {
    Json::Value value;
    EXPECT_TRUE(fromString(row.text, value)) << row.text;
    EXPECT_EQ(value.type(), row.type) << row.text;
    EXPECT_EQ(toString(value), row.written);
  }
  Json::Value kept = "kept";
  for (const std::string& text : kRefused) EXPECT_FALSE(fromString(Requoted(text), kept)) << text;
  EXPECT_EQ(kept, "kept");
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
