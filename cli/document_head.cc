#include "cli/document_head.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kFormat[] = "zorv-subvolume-size";
constexpr unsigned long long kVersion = 1;

}  // namespace

JsonReader::Readers DocumentHead(JsonReader& json, const std::vector<unsigned long long>& ids,
                                 unsigned long long& generation) {
  return {{"format",
           [&json] {
             if (json.Text() != kFormat) json.Wrong("another format");
           }},
          {"version",
           [&json] {
             if (json.Number() != kVersion) json.Wrong("another version");
           }},
          {"generation", [&json, &generation] { generation = json.Number(); }},
          {"subvolumes", [&json, ids] {
             std::vector<unsigned long long> found;
             json.Array([&] { found.push_back(json.Number()); });
             if (found != ids) json.Wrong("other subvolumes than asked for");
           }}};
}

}  // namespace ZorvSnapUsage
