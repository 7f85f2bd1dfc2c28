#include "cli/json_output.h"

#include <json/writer.h>

#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"

namespace ZorvSnapUsage {

Json::Value NewDocument(int version) {
  Json::Value document(Json::objectValue);
  document["__header"]["version"] = version;
  return document;
}

void SetTime(Json::Value& object, const std::string& key, std::optional<time_t> time) {
  const std::string timestamp = key == "time" ? "timestamp" : key + "_timestamp";
  object[key] = time ? Json::Value(TimeForPrograms(*time)) : Json::Value();
  object[timestamp] = time ? Json::Value(Json::Int64{*time}) : Json::Value();
}

Json::Value NumberJson(std::optional<unsigned long long> number) {
  return number ? Json::Value(Json::UInt64{*number}) : Json::Value();
}

Json::Value NamesJson(const std::vector<std::string>& names) {
  Json::Value array(Json::arrayValue);
  for (const std::string& name : names) array.append(ValidUtf8(name));
  return array;
}

void PrintJson(const Json::Value& document) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  writer["emitUTF8"] = true;
  ToStandardOutput(Json::writeString(writer, document) + "\n");
}

}  // namespace ZorvSnapUsage
