#include "json_text.h"

#include <sys/stat.h>

#include "support/testing.h"

namespace ZELT::TokenManager::JsonTextTests {

using namespace std::string_literals;
using JsonTextTest = PrivateFiles;

std::string Deep(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST_F(JsonTextTest, IsReadStrictlyAndNeverThrows) {
  Json::Value value;
  for (const auto& text : {" [1, 2]\n"s, "null"s, R"(["/*\"//",{"":[]}])"s, Deep(900)}) {
    EXPECT_TRUE(fromString(text, value)) << text;
  }
  for (const auto& text :
       {""s, R"({"a":)"s, "{} x"s, "{} // comment"s, "/* comment */ {}"s, "[1/**/,2]"s,
        R"({"":1, })"s, R"({"a":1,})"s, "[1,]"s, R"({"a":1,"a":1})"s, "{'a':1}"s, "NaN"s, "{}\0{}"s,
        "\"a\0b\""s, Deep(5000)}) {
    EXPECT_FALSE(fromString(text, value)) << text.substr(0, 100);
  }
}

TEST_F(JsonTextTest, IsReadFromRegularFilesOfSomeSize) {
  const std::string four_megabytes(4 << 20, ' ');
  WriteFile("/tmp/long", "5" + four_megabytes.substr(4096));
  WriteFile("/tmp/longer", "5" + four_megabytes);
  WriteFile("/tmp/broken", "{");
  mkfifo("/tmp/fifo", 0600);
  Json::Value value;
  EXPECT_TRUE(fromFile("/tmp/long", value) && value == 5);
  for (const char* path :
       {"/tmp/none", "/tmp", "/tmp/fifo", "/dev/zero", "/tmp/longer", "/tmp/broken"}) {
    EXPECT_FALSE(fromFile(path, value)) << path;
  }
}

}  // namespace ZELT::TokenManager::JsonTextTests
