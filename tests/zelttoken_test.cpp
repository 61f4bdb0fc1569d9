#include "zelttoken.h"

#include <cerrno>

#include "daemon_socket.h"
#include "support/fake_daemon.h"
#include "support/tables.h"

namespace ZELT::CLibraryTests {

using CLibraryTest = PrivateFiles;
using TokenManager::kSocketPath;

// By their numbers, which are a promise.
constexpr std::array kNames{"None",        "Refused", "Unavailable",
                            "Interrupted", "Invalid", "Malformed"};
std::string Name(int code) { return kNames.at(static_cast<std::size_t>(code)); }

std::string Issue(const std::string& payload) {
  std::string token(ZELT_TOKEN_SIZE, '?');
  const int code = zelt_issue("s", payload.c_str(), token.data());
  EXPECT_TRUE(code == ZELT_OK || token[0] == '\0');
  return code == ZELT_OK ? token.c_str() : Name(code);
}

std::string Validate(const char* token, const std::string& payload) {
  bool permitted = true;
  const int code = zelt_validate("s", token, payload.c_str(), &permitted);
  EXPECT_FALSE(code != ZELT_OK && permitted);
  return code != ZELT_OK ? Name(code) : permitted ? "True" : "False";
}

std::string Call(const std::string& name) {
  if (name == "issue") return Issue(" {\"a\":\n[1]} ");
  return name == "validate" ? Validate("t", "[\"äࠀ한𐀀\\n\"]") : Name(zelt_revoke("s", "t"));
}

TEST_F(CLibraryTest, BelievesTrueAndNothingElse) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  std::vector<Cells> rows = Section("answers.txt", "answers");
  rows.push_back(
      {"validate", "{\"success\":true,\"permitted\":true,\"x\":\"\xff\"}", "Interrupted"});
  for (const Cells& row : rows) {
    const std::jthread client([&row] {
      errno = 77;
      EXPECT_EQ(Call(row.at(0)), row.at(2)) << row[0] << " " << row[1];
      EXPECT_EQ(errno, 77);
    });
    EXPECT_EQ(AnswerOne(daemon, row.at(1)), RequestOf(row[0]));
  }
}

TEST_F(CLibraryTest, SendsOnePayloadOrNothing) {
  MountEmpty("/run", "mode=755");
  EXPECT_EQ(Issue("1"), "Unavailable");
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  for (const char* payload : {"", "1,\"type\":\"revoke\"", "\"\\ud800\""}) {
    EXPECT_EQ(Issue(payload), "Invalid") << payload;
  }
  EXPECT_EQ(Issue('"' + std::string(128 << 10, 'x') + '"'), "Invalid");
  for (const char* text :
       {static_cast<const char*>(nullptr), "\xff", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xc3x", "\xe2\x82x"}) {
    bool permitted = true;
    for (const int code :
         {zelt_revoke("s", text), zelt_revoke(text, "t"), zelt_validate(text, "t", "1", &permitted),
          zelt_validate("s", text, "1", &permitted), zelt_validate("s", "t", text, &permitted),
          zelt_transfer(text, "t", 7), zelt_transfer("s", text, 7)}) {
      EXPECT_EQ(code, ZELT_INVALID) << text;
    }
    EXPECT_FALSE(permitted);
  }
  EXPECT_EQ(zelt_issue("s", "1", nullptr), ZELT_INVALID);
  EXPECT_STREQ(zelt_error_text(ZELT_MALFORMED), "the payload cannot be judged");
  EXPECT_EQ(zelt_validate("s", "t", "1", nullptr), ZELT_INVALID);
  EXPECT_EQ(zelt_transfer("s", "t", 0), ZELT_INVALID);
  const std::jthread client([] { EXPECT_EQ(zelt_transfer("s", "t", 77), ZELT_OK); });
  EXPECT_EQ(AnswerOne(daemon, R"({"success":true})"),
            R"({"payload":77,"service":"s","token":"t","type":"transfer"})");
}

}  // namespace ZELT::CLibraryTests
