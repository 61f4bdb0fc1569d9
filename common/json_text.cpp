#include "json_text.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <memory>
#include <sstream>
#include <utility>

#include "owned_descriptor.h"

namespace ZELT::TokenManager {
namespace {

Json::StreamWriterBuilder OnOneLine() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return builder;
}

Json::CharReaderBuilder WithoutComments() {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;  // they are read all the same, but not kept
  return builder;
}

bool ReadAll(int file, std::string& text) {
  std::array<char, 16384> chunk;  // NOLINT(*-member-init): written before it is read
  for (;;) {
    const ssize_t count = read(file, chunk.data(), chunk.size());
    if (count == 0) return true;
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > kMaxFileBytes) return false;
  }
}

}  // namespace

// Builders take longer to make than a text to parse. They are never destroyed, so that handlers of
// atexit(3) and static destructors can use them.

std::string toString(const Json::Value& value) {
  static const auto& builder = *new Json::StreamWriterBuilder(OnOneLine());
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  std::ostringstream text;
  text.exceptions(std::ios::badbit);  // otherwise a failed allocation only cuts the text off
  writer->write(value, &text);
  return std::move(text).str();
}

bool fromString(const std::string& text, Json::Value& value) {
  static const auto& builder = *new Json::CharReaderBuilder(WithoutComments());
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value parsed;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr)) return false;
  } catch (const Json::Exception&) {  // nested too deeply
    return false;
  }
  value.swap(parsed);
  return true;
}

bool fromFile(const std::string& path, Json::Value& value) {
  // Without O_NONBLOCK, opening a FIFO waits for a writer (fifo(7)).
  const OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  std::string text;
  return file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
         ReadAll(file.Get(), text) && fromString(text, value);
}

}  // namespace ZELT::TokenManager
