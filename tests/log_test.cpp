#include <fcntl.h>
#include <syslog.h>

#include "line_allowance.h"
#include "support/logged.h"
#include "unix_address.h"

namespace ZELT::LogTests {

using LogTest = PrivateFiles;

const std::pair<std::string, std::string> kTexts[] = {
    {"plain \\ ä€😀 text", "plain \\ ä€😀 text"},
    {"a\nb\tc\x1b[2J\x7f", "a\\u000ab\\u0009c\\u001b[2J\\u007f"},
    {"\u0080\u009b\u009f\u00a0", "\\u0080\\u009b\\u009f\u00a0"},
    {"\u202e\u2066\u2069\u200f\u061c\u2028", "\\u202e\\u2066\\u2069\\u200f\\u061c\\u2028"},
    {"\x9b \xc3 \xe2\x82 \xff", "\\x9b \\xc3 \\xe2\\x82 \\xff"},
    // Noncharacters, and what is encoded too long, is a surrogate or is too large.
    {"\ufffe\uffff\ufdd0\U0010fffe\ufffd", "\\ufffe\\uffff\\ufdd0\\U0010fffe\ufffd"},
    {"\xc0\x80 \xe0\x9f\xbf", "\\xc0\\x80 \\xe0\\x9f\\xbf"},
    {"\xed\xa0\x80 \xf4\x90\x80\x80", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80"},
    {"\u200b\ufeff\u2064\U000e0041\u00ad", "\\u200b\\ufeff\\u2064\\U000e0041\\u00ad"},
    {std::string(2047, '\x80'),
     std::regex_replace(std::string(512, 'x'), std::regex("x"), "\\x80")},
};

TEST_F(LogTest, WhatAJournalDoesNotPrintIsEscaped) {
  for (const auto& row : kTexts) {
    EXPECT_EQ(Logged([&] { Log(LOG_INFO, "%s", row.first.c_str()); }), row.second + "\n");
  }
}

// Nobody reads while the lines are written, then the lost ones are told of.
void CheckLost(const std::function<std::string()>& read) {
  Log(LOG_INFO, "before");
  read();
  for (int i = 0; i < 10000; ++i) Log(LOG_INFO, "a line");
  std::string text = read();
  Log(LOG_INFO, "after");
  text += read();
  const auto lines = std::count(text.begin(), text.end(), '\n') - 2;
  EXPECT_GT(lines, 0);
  const std::regex lost("\\]: " + std::to_string(10000 - lines) +
                        " log lines were lost\n(<30>|zelt)[^\n]*\\]: after\n$");
  EXPECT_TRUE(std::regex_search(text, lost)) << lines;
  EXPECT_TRUE(std::cmp_less_equal(10000 - lines, ReportLostLines()) && ReportLostLines() == 0);
}

TEST_F(LogTest, ALoggerThatStallsOrStartsAgainLosesLines) {
  MountEmpty("/dev", "mode=755");
  for (int i = 0; i < 2; ++i) {
    fs::remove("/dev/log");
    const int logger = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    Check(TokenManager::UnixAddress("/dev/log").Bind(logger), "/dev/log");
    CheckLost([&] {
      std::string text;
      std::array<char, 256> line{};
      for (ssize_t n = 0; (n = recv(logger, line.data(), line.size(), 0)) > 0; text += '\n') {
        text.append(line.data(), static_cast<std::size_t>(n));
      }
      return text;
    });
    close(logger);
  }
  Check(umount("/dev"), "/dev");
  std::array<int, 2> ends{};
  Check(pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), "pipe");
  const int usual = dup(2);
  dup2(ends[1], 2);
  fcntl(2, F_SETFL, 0);
  OpenLog(true);
  CheckLost([&] {
    std::string text(1 << 20, '\0');
    const ssize_t size = read(ends[0], text.data(), text.size());
    return text.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  });
  dup2(usual, 2);
  OpenLog(false);
}

TEST(LineTotalTest, KeepsLinesForOthersInEachSecond) {
  LineTotal total;
  const auto take = [&](int now, unsigned own) {
    return total.Take(std::chrono::seconds(now), own);
  };
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(take(1, 0));
  EXPECT_TRUE(take(1, 9) && !take(1, 10) && take(2, 10));
}

}  // namespace ZELT::LogTests
