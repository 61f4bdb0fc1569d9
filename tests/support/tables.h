// Tables of calls and their outcomes, as files in tests/tables/.
#pragma once

#include <fcntl.h>

#include <string>
#include <vector>

#include "support/testing.h"

namespace ZELT {

/// Opened before a private machine may hide the folder.
inline const int table_folder = open(ZELT_TABLES, O_PATH | O_DIRECTORY | O_CLOEXEC);

using Cells = std::vector<std::string>;

/// The rows of a section of tests/tables/FILE, less comments and empty lines. A line "== TITLE"
/// begins the section, and " | " stands between two cells.
inline std::vector<Cells> Section(const std::string& file, const std::string& title) {
  std::ifstream lines("/proc/self/fd/" + std::to_string(table_folder) + "/" + file);
  std::vector<Cells> rows;
  bool found = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("== ")) found = line == "== " + title;
    if (!found || line.empty() || line.starts_with("== ") || line.starts_with("# ")) continue;
    Cells& cells = rows.emplace_back();
    for (std::size_t end = 0; (end = line.find(" | ")) != line.npos; line.erase(0, end + 3)) {
      cells.push_back(line.substr(0, end));
    }
    cells.push_back(line);
  }
  EXPECT_FALSE(rows.empty()) << "no section " << title << " in " << file;
  return rows;
}

/// The first cells of a section, each with a newline.
inline std::string Lines(const std::string& file, const std::string& title) {
  std::string lines;
  for (const Cells& row : Section(file, title)) lines += row[0] + "\n";
  return lines;
}

/// Calls `call` with the first two cells of each row, read as JSON. The last cell is the outcome.
template <typename Call>
void CheckSection(const std::string& file, const std::string& title, const Call& call) {
  for (const Cells& row : Section(file, title)) {
    const auto value = [](const std::string& cell) { return Value(Requoted(cell)); };
    EXPECT_EQ(Requoted(Outcome([&] { return call(value(row.at(0)), value(row.at(1))); })),
              row.back())
        << title << ": " << row[0] << " | " << row[1];
  }
}

}  // namespace ZELT
