#include "engine/table_json.h"

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

// The rows that are complete, or those that are not.
void WriteRows(const SizeTable& table, bool complete, JsonText* json) {
  json->Begin('[');
  for (const SetRow& row : table.rows) {
    if (row.complete != complete || !SizeTable::IsWorthSaying(row)) continue;
    json->NewLine().Begin('{');
    if (complete) {
      json->Key("subvolumes").Begin('[');
      for (const uint32_t member : row.members) json->Number(table.ids[member]);
      json->End(']');
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
  json.End('}');
  return json.Finish();
}

}  // namespace ZorvEngine
