// The bare limit of JSON text: jsoncpp with the library's settings, and with a reader and a writer
// that are made once. One thread.
#pragma once

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>
#include <string>

namespace bare {

inline Json::CharReader* MakeReader() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;
  builder["collectComments"] = false;
  return builder.newCharReader();
}

inline Json::StreamWriter* MakeWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return builder.newStreamWriter();
}

inline Json::Value Parse(const char* begin, const char* end) {
  static const std::unique_ptr<Json::CharReader> reader(MakeReader());
  Json::Value value;
  reader->parse(begin, end, &value, nullptr);
  return value;
}

inline std::string Write(const Json::Value& value) {
  static const std::unique_ptr<Json::StreamWriter> writer(MakeWriter());
  std::ostringstream text;
  writer->write(value, &text);
  return std::move(text).str();
}

}  // namespace bare
