#include "zelttoken.h"

#include <array>
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
  if (name == "issue") return Issue(" [\"\xc3\xa4\\n\",\n1] ");
  return name == "validate" ? Validate("t", "null") : Name(zelt_revoke("s", "t"));
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
    const std::string request = AnswerOne(daemon, row.at(1));
    if (row[0] == "issue") {
      EXPECT_EQ(request, "{\"payload\":[\"\xc3\xa4\\n\",1],\"service\":\"s\",\"type\":\"issue\"}");
    }
  }
}

TEST_F(CLibraryTest, SendsOnePayloadOrNothing) {
  MountEmpty("/run", "mode=755");
  EXPECT_EQ(Issue("1"), "Unavailable");
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  const std::string payloads[] = {"",
                                  "1,\"type\":\"revoke\"",
                                  "{\"a\":1,\"a\":2}",
                                  "1//",
                                  "\"\xed\xa0\x80\"",
                                  "\"\\ud800\"",
                                  "1e999",
                                  "\"" + std::string(128 << 10, 'x') + "\""};
  for (const std::string& payload : payloads) {
    EXPECT_EQ(Issue(payload), "Invalid") << payload;
  }
  EXPECT_EQ(zelt_revoke("s", "\xff"), ZELT_INVALID);
  EXPECT_EQ(zelt_revoke(nullptr, "t"), ZELT_INVALID);
  EXPECT_EQ(zelt_validate("s", "t", "1", nullptr), ZELT_INVALID);
  EXPECT_EQ(zelt_transfer("s", "t", 0), ZELT_INVALID);
  const std::jthread client([] { EXPECT_EQ(zelt_transfer("s", "t", 77), ZELT_OK); });
  EXPECT_EQ(AnswerOne(daemon, R"({"success":true})"),
            R"({"payload":77,"service":"s","token":"t","type":"transfer"})");
}

}  // namespace ZELT::CLibraryTests
