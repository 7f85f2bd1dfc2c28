#include "engine/table_json.h"

#include "engine/holder_lines.h"
#include "engine/name_text.h"
#include "engine/profile_bytes.h"
#include "engine/table_lines.h"

namespace ZorvEngine {
namespace {

// Readers refuse a version that they do not know; new members alone do not raise it.
constexpr char kFormatName[] = "zorv-subvolume-size";
constexpr uint64_t kFormatVersion = 1;

void WriteHeld(const HeldBytes& bytes, JsonText* json) {
  json->Key("data").Number(bytes.data).Key("metadata").Number(bytes.metadata);
}

// The members "data", "metadata" and "profiles" of an object.
void WriteBytes(const SizeTable& table, const std::vector<HeldBytes>& bytes, JsonText* json) {
  WriteHeld(SizeTable::Sum(bytes), json);
  json->Key("profiles").Begin('{');
  for (const ProfileBytes& profile : ByProfile(table, bytes)) {
    json->Key(profile.profile).Begin('{');
    WriteHeld(profile.held, json);
    json->Key("raw_data").Number(profile.raw.data).Key("raw_metadata").Number(profile.raw.metadata);
    json->End('}');
  }
  json->End('}');
}

void WriteExclusive(const SizeTable& table, JsonText* json) {
  json->Key("exclusive").Begin('[');
  for (size_t i = 0; i < table.ids.size(); ++i) {
    json->NewLine().Begin('{').Key("subvolume").Number(table.ids[i]);
    WriteBytes(table, table.rows[i].bytes, json);
    json->End('}');
  }
  json->End(']');
}

void WriteForecast(const SizeTable& table, const std::vector<ForecastStep>& steps, JsonText* json) {
  json->NewLine().Key("forecast").Begin('{').Key("steps").Begin('[');
  HeldBytes soFar;
  for (const ForecastStep& step : steps) {
    json->NewLine().Begin('{').Key("subvolume").Number(table.ids[step.subvolume]);
    WriteBytes(table, step.bytes, json);
    soFar += SizeTable::Sum(step.bytes);
    json->Key("so_far").Begin('{');
    WriteHeld(soFar, json);
    json->End('}').End('}');
  }
  json->End(']').NewLine().Key("all").Begin('{');
  WriteBytes(table, SumOfSteps(table, steps), json);
  json->End('}').End('}');
}

void WriteMembers(const char* key, const std::vector<uint64_t>& ids,
                  const std::vector<uint32_t>& members, JsonText* json) {
  json->Key(key).Begin('[');
  for (const uint32_t member : members) json->Number(ids[member]);
  json->End(']');
}

// The rows that are complete, or those that are not.
void WriteRows(const SizeTable& table, bool complete, JsonText* json) {
  json->Begin('[');
  for (const SetRow& row : table.rows) {
    if (row.complete != complete || !SizeTable::IsWorthSaying(row)) continue;
    json->NewLine().Begin('{');
    if (complete) {
      WriteMembers("subvolumes", table.ids, row.members, json);
    } else {
      json->Key("last").Number(table.ids[row.members.back()]);
    }
    WriteBytes(table, row.bytes, json);
    json->End('}');
  }
  json->End(']');
}

void WriteSets(const SizeTable& table, JsonText* json) {
  json->NewLine().Key("sets");
  WriteRows(table, /*complete=*/true, json);
  json->NewLine().Key("complete").Bool(table.Complete());
  if (table.Complete()) return;
  json->Key("note").Word(kIncompleteTable).NewLine().Key("summed_sets");
  WriteRows(table, /*complete=*/false, json);
}

void WriteFileSum(const FileSum& sum, JsonText* json) {
  json->Key("files").Number(sum.files).Key("data").Number(sum.bytes);
}

void WriteFileRow(const FileRow& row, JsonText* json) {
  const FileNumbers& file = row.numbers;
  json->NewLine().Begin('{').Key("inode").Number(file.inode).Key("data").Number(file.bytes);
  json->Key("shared_data").Number(file.sharedBytes).Key("sharers").Number(file.sharers);
  json->Key("names").Number(file.names);
  if (file.names > 0) json->Key("path").Word(NameText(row.path));
  json->End('}');
}

void WriteFiles(const FileReport& report, JsonText* json) {
  json->NewLine().Key("files").Begin('{').Key("all").Begin('{');
  WriteFileSum(report.all, json);
  json->End('}').Key("unlinked").Begin('{');
  WriteFileSum(report.unlinked, json);
  json->End('}').Key("largest").Begin('[');
  for (const FileRow& row : report.largest) WriteFileRow(row, json);
  json->End(']').NewLine().Key("folders").Begin('[');
  for (const FolderRow& row : report.folders) {
    json->NewLine().Begin('{');
    WriteFileSum(row.sum, json);
    json->Key("path").Word(NameText(row.path)).End('}');
  }
  json->End(']').End('}');
}

void WriteVersion(const PathVersion& version, const std::vector<uint64_t>& ids, JsonText* json) {
  const VersionNumbers& numbers = version.numbers;
  json->NewLine().Begin('{').Key("inode").Number(numbers.inode);
  json->Key("generation").Number(numbers.generation).Key("directory");
  json->Bool(numbers.isDirectory != 0).Key("files").Number(numbers.files);
  json->Key("size").Number(numbers.size).Key("data").Number(numbers.bytes);
  json->Key("modified").Word(ModifiedText(numbers));
  WriteMembers("subvolumes", ids, version.subvolumes, json);
  json->End('}');
}

void WriteHolders(const HolderReport& report, const std::vector<uint64_t>& ids, JsonText* json) {
  json->NewLine().Key("holders").Begin('{').Key("versions").Begin('[');
  for (const PathVersion& version : report.versions) WriteVersion(version, ids, json);
  json->End(']').NewLine();
  WriteMembers("without", ids, report.without, json);
  WriteMembers("nested", ids, report.nested, json);
  json->NewLine().Key("groups").Begin('[');
  for (const HeldGroup& group : report.groups) {
    json->NewLine().Begin('{').Key("outside").Bool(group.outside);
    json->Key("extents").Number(group.extents).Key("data").Number(group.bytes);
    WriteMembers("subvolumes", ids, group.subvolumes, json);
    json->End('}');
  }
  json->End(']').End('}');
}

}  // namespace

bool WriteResultJson(const SizeResult& result, const JsonParts& parts, const JsonText::Sink& sink) {
  const SizeTable& table = result.table;
  JsonText json(sink);
  json.Begin('{').Key("format").Word(kFormatName).Key("version").Number(kFormatVersion);
  json.Key("generation").Number(result.generation).NewLine().Key("subvolumes").Begin('[');
  for (const uint64_t id : table.ids) json.Number(id);
  json.End(']').NewLine();
  WriteExclusive(table, &json);
  if (parts.forecast != nullptr) WriteForecast(table, *parts.forecast, &json);
  if (parts.table) WriteSets(table, &json);
  if (parts.files) WriteFiles(result.files, &json);
  if (parts.holders) WriteHolders(result.holders, table.ids, &json);
  json.End('}');
  return json.Finish();
}

}  // namespace ZorvEngine
