#include "json_text.h"

#include <json/reader.h>
#include <sys/stat.h>

#include "strict_json.h"
#include "support/tables.h"
#include "write_json.h"

namespace ZELT::TokenManager::JsonTextTests {

using namespace std::string_literals;
using JsonTextTest = PrivateFiles;

std::string Deep(int depth) {
  const auto count = static_cast<std::size_t>(depth);
  return std::string(count, '[') + std::string(count, ']');
}

// What only the library accepts, because jsoncpp does, and what neither accepts.
Cells TextsThatAreNotStrict() {
  Cells texts = SectionLines("json_text.txt", "refused by the daemon");
  texts.insert(texts.end(), {"", "{}\0{}"s, "\"a\nb\"", "\"\xff\"", "\xef\xbb\xbf{}", "1\n2",
                             Deep(kMaxJsonDepth + 1), Deep(100000), std::string(1001, '1'),
                             "0." + std::string(999, '1')});
  return texts;
}

bool ReadByJsoncpp(const std::string& text, Json::Value& value) {
  std::istringstream stream(text);
  try {
    return Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, nullptr);
  } catch (const Json::Exception&) {
    return false;
  }
}

void CheckAgainstJsoncpp(const std::string& text) {
  Json::Value theirs;
  Json::Value ours = "unchanged";
  const bool accepted = ReadByJsoncpp(text, theirs);
  EXPECT_EQ(fromString(text, ours), accepted) << text;
  EXPECT_TRUE(ours == (accepted ? theirs : "unchanged")) << text;
  EXPECT_EQ(toString(ours).find('\n'), std::string::npos) << text;
  EXPECT_EQ(WriteJson(ours), toString(ours));
}

TEST_F(JsonTextTest, IsReadByTheLibraryAsByJsoncpp) {
  Cells texts = TextsThatAreNotStrict();
  for (const Cells& row : Section("json_text.txt", "read")) texts.push_back(row.at(0));
  for (const std::string& text : texts) {
    for (const std::string& form : {text, "[" + text + "]", "{\"a\":" + text + "}"}) {
      CheckAgainstJsoncpp(form);
    }
  }
}

TEST_F(JsonTextTest, IsReadStrictlyByTheDaemonAndWrittenAsItIsRead) {
  const std::string long_text = "\"\\\"" + std::string(1 << 16, '1') + '"';
  std::vector<Cells> rows = Section("json_text.txt", "read");
  rows.insert(rows.end(), {{Deep(kMaxJsonDepth), Deep(kMaxJsonDepth)}, {long_text, long_text}});
  Json::Value value;
  for (const Cells& row : rows) {
    EXPECT_TRUE(ReadStrictJson(row.at(0), value)) << row[0];
    EXPECT_EQ(toString(value), row.at(1));
  }
  for (const std::string& text : TextsThatAreNotStrict()) {
    EXPECT_FALSE(ReadStrictJson(text, value)) << text;
  }
  EXPECT_EQ(toString(value), long_text) << "unchanged";
}

TEST_F(JsonTextTest, IsReadFromRegularFilesOfSomeSize) {
  WriteFile("/tmp/long", "5" + std::string(kMaxFileBytes - 1, ' '));
  mkfifo("/tmp/fifo", 0600);
  Json::Value value;
  EXPECT_TRUE(fromFile("/tmp/long", value) && value == 5);
  for (const char* path : {"/tmp/fifo", "/dev/zero"}) EXPECT_FALSE(fromFile(path, value)) << path;
}

}  // namespace ZELT::TokenManager::JsonTextTests
