#include "json_text.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "owned_descriptor.h"

namespace ZELT::TokenManager {
namespace {

constexpr FileProblem kTooLarge = {.text = "larger than 4 MiB"};

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

// Builders take longer to make than a text to parse. They are never destroyed, so that handlers of
// atexit(3) and static destructors can use them.

std::unique_ptr<Json::StreamWriter> MakeWriter() {
  static const auto& builder = *new Json::StreamWriterBuilder(OnOneLine());
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

std::unique_ptr<Json::CharReader> MakeReader() {
  static const auto& builder = *new Json::CharReaderBuilder(WithoutComments());
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

bool Parse(Json::CharReader& reader, const std::string& text, Json::Value& value) {
  Json::Value parsed;
  try {
    if (!reader.parse(text.data(), text.data() + text.size(), &parsed, nullptr)) return false;
  } catch (const Json::Exception& error) {  // nested too deeply, or no memory for a string
    const bool lacks_memory = std::strstr(error.what(), "allocate") != nullptr;
    if (lacks_memory) throw std::bad_alloc();
    return false;
  }
  value.swap(parsed);
  return true;
}

FileProblem SystemProblem() { return {.text = strerrordesc_np(errno), .error = errno}; }

// `size` is the file's: it only saves a last read(2) that returns 0, because some regular files
// report no size (proc(5)), and a file may grow.
FileProblem ReadAll(int file, off_t size, std::string& text) {
  std::array<char, 16384> chunk;  // NOLINT(*-member-init): written before it is read
  for (;;) {
    const ssize_t count = read(file, chunk.data(), chunk.size());
    if (count < 0 && errno != EINTR) return SystemProblem();
    if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > kMaxFileBytes) return kTooLarge;
    if (count == 0 || std::cmp_equal(text.size(), size)) return {};
  }
}

FileProblem ReadRegularFile(int directory, const char* path, std::string& text) {
  // Without O_NONBLOCK, opening a FIFO waits for a writer (fifo(7)).
  const OwnedDescriptor file(openat(directory, path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  text.clear();
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return SystemProblem();
  if (!S_ISREG(status.st_mode)) return {.text = "not a regular file"};
  if (std::cmp_greater(status.st_size, kMaxFileBytes)) return kTooLarge;
  return ReadAll(file.Get(), status.st_size, text);
}

}  // namespace

std::string toString(const Json::Value& value) {
  std::ostringstream text;
  text.exceptions(std::ios::badbit);  // otherwise a failed allocation only cuts the text off
  MakeWriter()->write(value, &text);
  return std::move(text).str();
}

bool fromString(const std::string& text, Json::Value& value) {
  return Parse(*MakeReader(), text, value);
}

JsonFileReader::JsonFileReader() : reader(MakeReader()) {}

FileProblem JsonFileReader::Read(int directory, const char* path, Json::Value& value) {
  const FileProblem problem = ReadRegularFile(directory, path, text);
  if (problem.text != nullptr || Parse(*reader, text, value)) return problem;
  return {.text = "not JSON"};
}

bool fromFile(const std::string& path, Json::Value& value) {
  return JsonFileReader().Read(AT_FDCWD, path.c_str(), value).text == nullptr;
}

}  // namespace ZELT::TokenManager
