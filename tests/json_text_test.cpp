#include "json_text.h"

#include <sys/stat.h>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;

using JsonFileTest = PrivateFiles;

const std::vector<std::string> kGood = {"{\"a\":1}",
                                        " [1, 2]\n",
                                        "\"a\"",
                                        "5",
                                        "null",
                                        R"(["a/*\"//",{"":[]}])",
                                        std::string(900, '[') + std::string(900, ']')};

const std::vector<std::string> kBad = {"",
                                       " \n",
                                       "{\"a\":",
                                       "{} x",
                                       "1 2",
                                       "{} // comment",
                                       "/* comment */ {}",
                                       "[1/**/,2]",
                                       R"({"a":"/"/**/})",
                                       R"({"":1, })",
                                       "{\"a\":1,}",
                                       "[1,]",
                                       R"({"a":1,"a":1})",
                                       std::string("{}\0", 3),
                                       std::string("{}\0{}", 5),
                                       '"' + std::string("a\0b", 3) + '"',
                                       std::string(5000, '[') + std::string(5000, ']'),
                                       std::string(1 << 20, '['),
                                       "{'a':1}",
                                       "NaN"};

void CheckAll(const std::function<bool(const std::string&, Json::Value&)>& parse) {
  Json::Value value;
  for (const std::string& text : kGood) {
    EXPECT_TRUE(parse(text, value)) << text;
  }
  for (const std::string& text : kBad) {
    EXPECT_FALSE(parse(text, value)) << text.substr(0, 100);
  }
}

TEST(JsonTextTest, IsReadStrictlyAndNeverThrows) { CheckAll(fromString); }

TEST_F(JsonFileTest, IsReadAlike) {
  CheckAll([](const std::string& text, Json::Value& value) {
    WriteFile("/tmp/file", text);
    return fromFile("/tmp/file", value);
  });
  mkfifo("/tmp/fifo", 0600);
  Json::Value value;
  for (const char* path : {"/tmp/none", "/tmp", "/tmp/fifo", "/dev/zero"}) {
    EXPECT_FALSE(fromFile(path, value)) << path;
  }
}

TEST(JsonTextTest, IsOneLineThatReadsBack) {
  const Json::Value value = Value(
      "{'l':'a\\nb\\r\\u2028\\u0000','u':'\xc3\xa4\xf0\x9f\x98\x80','i':-9223372036854775808,"
      "'m':18446744073709551615,'d':0.1,'e':[[],{},null,true]}");
  const std::string text = toString(value);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_NE(text.find("\xc3\xa4\xf0\x9f\x98\x80"), std::string::npos);
  Json::Value read;
  EXPECT_TRUE(fromString(text, read));
  EXPECT_EQ(read, value);
}

}  // namespace
}  // namespace ZELT::TokenManager
