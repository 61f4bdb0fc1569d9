#include "json_text.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

namespace ZELT::TokenManager {
namespace {

// Bounds what a file that somebody else may write can make this process hold in memory.
constexpr std::size_t kMaxFileBytes = 4U << 20;

// A builder costs several times a parse or a write, and what it builds, or a stream, a quarter of
// one: each thread keeps a reader, a writer and a stream, which hold nothing of what went through.
Json::StreamWriterBuilder WriterBuilder() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return builder;
}

Json::CharReaderBuilder ReaderBuilder() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;
  builder["collectComments"] = false;
  return builder;
}

// Whether a brace of `text`, be it inside a string, stands behind a comma.
bool HoldsBraceAfterComma(std::string_view text) {
  for (std::size_t brace = text.find('}'); brace != text.npos; brace = text.find('}', brace + 1)) {
    const std::size_t before = text.substr(0, brace).find_last_not_of(" \t\r\n");
    if (before != text.npos && text[before] == ',') return true;
  }
  return false;
}

// Whatever its settings, the reader lets a comment through between the elements of an array or an
// object, and a comma before the brace that ends an object whose last key is empty. Few texts have
// to be gone through for it.
bool HoldsWhatTheReaderMisses(std::string_view text) {
  if (text.find('/') == text.npos && !HoldsBraceAfterComma(text)) return false;
  bool in_string = false;
  char before = '\0';  // the last character outside strings and white space
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') ++i;
      in_string = c != '"';
      continue;
    }
    if (c == '/' || (c == '}' && before == ',')) return true;
    in_string = c == '"';
    if (std::isspace(static_cast<unsigned char>(c)) == 0) before = c;
  }
  return false;
}

class File {
 public:
  // Without O_NONBLOCK a FIFO would hold this process up until somebody writes to it.
  explicit File(const std::string& path)
      : fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {}
  ~File() {
    if (fd >= 0) close(fd);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool IsRegular() const {
    struct stat status {};
    return fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  }

  // The size in the file's status is not asked: it may change meanwhile.
  bool ReadAll(std::string& text) const {
    std::array<char, 4096> chunk;  // NOLINT(*-member-init): written before it is read
    while (text.size() <= kMaxFileBytes) {
      const ssize_t count = read(fd, chunk.data(), chunk.size());
      if (count == 0) return true;
      if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
      if (count < 0 && errno != EINTR) return false;
    }
    return false;
  }

 private:
  int fd;
};

}  // namespace

std::string toString(const Json::Value& value) {
  thread_local const std::unique_ptr<Json::StreamWriter> writer(WriterBuilder().newStreamWriter());
  thread_local std::ostringstream text;
  text.clear();
  text.exceptions(std::ios::badbit);  // running out of memory must not cut the text short
  text.str({});
  writer->write(value, &text);
  return std::move(text).str();
}

bool fromString(const std::string& text, Json::Value& value) {
  thread_local const std::unique_ptr<Json::CharReader> reader(ReaderBuilder().newCharReader());
  // The reader ignores whatever follows a NUL byte.
  if (text.find('\0') != std::string::npos || HoldsWhatTheReaderMisses(text)) return false;
  Json::Value parsed;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr)) return false;
  } catch (const Json::Exception&) {  // too deeply nested
    return false;
  }
  value = std::move(parsed);
  return true;
}

bool fromFile(const std::string& path, Json::Value& value) {
  const File file(path);
  std::string text;
  return file.IsRegular() && file.ReadAll(text) && fromString(text, value);
}

}  // namespace ZELT::TokenManager
