// table_json.h: the JSON document that says a result.
#ifndef ENGINE_TABLE_JSON_H_
#define ENGINE_TABLE_JSON_H_

#include "engine/json_text.h"
#include "engine/size/newest_state_run.h"

namespace ZorvEngine {

// What goes into the document beside the exclusive sizes.
struct JsonParts {
  const std::vector<ForecastStep>* forecast = nullptr;  // a plan, when one was asked for
  bool table = false;                                   // each set
  bool files = false;                                   // the files of the one subvolume
  bool holders = false;                                 // who holds the data of a path
};

// Writes the document of a result to `sink`.  False when the sink was.
bool WriteResultJson(const SizeResult& result, const JsonParts& parts, const JsonText::Sink& sink);

}  // namespace ZorvEngine

#endif  // ENGINE_TABLE_JSON_H_
