// Sessions of the programs, as text in tests/tables/.
#pragma once

#include "support/fake_daemon.h"
#include "support/programs.h"
#include "support/tables.h"

namespace ZELT {

// What happens in a session: lines by the sign with which they begin.
using Session = std::map<char, std::string>;

inline void CheckSession(Session& session) {
  OwnedDescriptor daemon;
  if (session.contains('<')) daemon = ListenAt(kSocket);
  Program program(session['$']);
  std::istringstream answers(session['<']);
  std::string requests;
  for (std::string answer; std::getline(answers, answer);) {
    requests += AnswerOne(daemon, answer) + "\n";
  }
  daemon.Close();
  EXPECT_EQ(program.End(), std::atoi(session['='].c_str())) << session['$'] << program.Errors();
  EXPECT_EQ(program.Output(), session['|']) << session['$'];
  EXPECT_EQ(requests, session['>']) << session['$'];
  std::istringstream errors(program.Errors());
  std::istringstream parts(session['!']);
  for (std::string error, part; std::getline(parts, part);) {
    EXPECT_TRUE(std::getline(errors, error) && error.find(part) != error.npos) << part << error;
  }
  EXPECT_EQ(errors.peek(), EOF) << session['$'] << program.Errors();
}

/// Checks the sessions in a section of tests/tables/FILE. tests/tables/command_line.txt says what
/// they are.
inline void CheckSessions(const std::string& file, const std::string& title) {
  Session common;
  std::vector<Session> sessions;
  for (const std::string& line : SectionLines(file, title)) {
    if (line.front() == '$') sessions.push_back(common);
    Session& session = sessions.empty() ? common : sessions.back();
    session[line.front()] += line.substr(std::min<std::size_t>(2, line.size())) + "\n";
  }
  for (Session& session : sessions) CheckSession(session);
}

}  // namespace ZELT
