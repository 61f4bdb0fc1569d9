#include <fnmatch.h>

#include <filesystem>
#include <map>
#include <regex>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;

// Error texts by their place, the "FILE:LINE" they begin with. In a text of the sources, "*" stands
// for what is known only when it is raised.
using Texts = std::map<std::string, std::string>;

// Adds `format` (as of std::regex_replace) for each match of `pattern` in `text`.
void AddMatches(Texts& texts, const std::string& text, const char* pattern,
                const std::string& format) {
  const std::regex regex(pattern);
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    const std::string found = match->format(format);
    EXPECT_TRUE(texts.emplace(found.substr(0, found.find(' ')), found).second) << found;
  }
}

// To literals that stand in one piece and hold "*" for what is not literal.
const std::vector<std::pair<const char*, const char*>> kSimplifications = {
    {R"(\\")", "'"},
    {R"("\s*\n\s*")", ""},
    {R"re((\.cpp:\d+ [^"]*)("\)? \+))re", "$1*$2"},
    {R"((: | )%z?\w)", "$1*"},
};

Texts Raised() {
  Texts texts;
  const std::filesystem::path root = ZELT_SOURCE_DIR "/src";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string file = entry.path().lexically_relative(root);
    std::string code = entry.is_regular_file() ? ReadFile(entry.path()) : "";
    for (const auto& [pattern, format] : kSimplifications) {
      code = std::regex_replace(code, std::regex(pattern), format);
    }
    AddMatches(texts, code, R"re("([\w/]+\.cpp:\d+ [^"]*)")re", "$1");
    AddMatches(texts, code, R"re((\w+)Member\([^;]*?, "(\w+)",\s*"([^"]+)"\))re",
               "$3 invalid type of '$2', $1 expected");
    AddMatches(texts, code, R"re(Expect(\w+)\(\w+,\s*"([^"]+)"\))re",
               "$2 invalid type, $1 expected");
    AddMatches(texts, code, R"re("%s:%d ([^"]+)",[^,]+,\s*(\d+))re", file + ":$2 $1");
  }
  return texts;
}

TEST(ErrorsTest, AreDocumentedOneByOne) {
  Texts documented;
  AddMatches(documented, SingleQuoted(ReadFile(ZELT_SOURCE_DIR "/docs/errors.md")),
             R"re(\n\| *`([\w/]+\.cpp:\d+ [^`]*)`)re", "$1");
  const Texts raised = Raised();
  EXPECT_GE(raised.size(), 80U) << "the sources are no longer understood";
  for (const auto& [place, text] : raised) {
    EXPECT_EQ(fnmatch(text.c_str(), documented[place].c_str(), 0), 0)
        << "raised: " << text << "\ndocumented: " << documented[place];
    documented.erase(place);
  }
  EXPECT_TRUE(documented.empty()) << documented.begin()->second;
}

}  // namespace
}  // namespace ZELT::TokenManager
