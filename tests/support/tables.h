// Tables of calls and their outcomes, as files in tests/tables/.
#pragma once

#include <fcntl.h>

#include <string>
#include <vector>

#include "support/testing.h"

namespace ZELT {

/// Opened before a private machine may hide the folder.
inline const int table_folder = open(ZELT_TABLES, O_PATH | O_DIRECTORY | O_CLOEXEC);

/// The lines of a section of tests/tables/FILE, less comments and empty lines. A line "== TITLE"
/// begins the section.
inline std::vector<std::string> SectionLines(const std::string& file, const std::string& title) {
  std::ifstream text("/proc/self/fd/" + std::to_string(table_folder) + "/" + file);
  std::vector<std::string> lines;
  bool found = false;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("== ")) found = line == "== " + title;
    if (line.empty() || line.starts_with("== ") || line.starts_with("# ")) continue;
    if (found) lines.push_back(line);
  }
  EXPECT_FALSE(lines.empty()) << "no section " << title << " in " << file;
  return lines;
}

/// The same as one text.
inline std::string SectionText(const std::string& file, const std::string& title) {
  std::string text;
  for (const std::string& line : SectionLines(file, title)) text += line + "\n";
  return text;
}

using Cells = std::vector<std::string>;

/// The rows of a section: " | " stands between two cells of a line.
inline std::vector<Cells> Section(const std::string& file, const std::string& title) {
  std::vector<Cells> rows;
  for (std::string line : SectionLines(file, title)) {
    Cells& cells = rows.emplace_back();
    for (std::size_t end = 0; (end = line.find(" | ")) != line.npos; line.erase(0, end + 3)) {
      cells.push_back(line.substr(0, end));
    }
    cells.push_back(line);
  }
  return rows;
}

/// The request of a call of clients.
inline std::string RequestOf(const std::string& call) {
  for (const Cells& row : Section("utils.txt", "requests")) {
    if (row.at(0) == call) return row.at(1);
  }
  return "";
}

/// Calls `call` with the first two cells of each row, read as JSON. The last cell is the outcome;
/// of an error the file and the number are enough, and of one in `source` the number.
template <typename Call>
void CheckSection(const std::string& file, const std::string& title, const Call& call,
                  const std::string& source = "") {
  for (const Cells& row : Section(file, title)) {
    const auto value = [](const std::string& cell) { return Value(Requoted(cell)); };
    std::string outcome =
        Requoted(Outcome([&] { return call(value(row.at(0)), value(row.at(1))); }));
    if (outcome.starts_with(source)) outcome.erase(0, source.size());
    if (outcome.starts_with(row.back() + " ")) outcome.resize(row.back().size());
    EXPECT_EQ(outcome, row.back()) << title << ": " << row[0] << " | " << row[1];
  }
}

/// Checks a token service with the sections "NAME issues" and "NAME validates" of services.txt.
template <typename Service>
void CheckService(const std::string& name) {
  const auto with = [](const Json::Value& payload, Json::Value object) {
    object["payload"] = payload;
    return object;
  };
  EXPECT_EQ(Service().GetName(), name);
  const auto issue = [&](const auto& payload, const auto& privilege) {
    return Service().Issue(with(payload, {}), privilege);
  };
  const auto validate = [&](const auto& payload, const auto& held) {
    return Service().Validate(with(payload, {}), with(held, Value("{'requester':'@r'}")));
  };
  const std::string source = "service/" + name + ".cpp";
  CheckSection("services.txt", name + " issues", issue, source);
  CheckSection("services.txt", name + " validates", validate, source);
}

}  // namespace ZELT
