// What every document of the engine begins with.
#ifndef CLI_DOCUMENT_HEAD_H_
#define CLI_DOCUMENT_HEAD_H_

#include <vector>

#include "cli/json_reader.h"

namespace ZorvSnapUsage {

// How its members are read. A format or version that is not known, and other subvolumes than `ids`
// in this order, throw JsonError. `json` and `generation` outlive the readers.
JsonReader::Readers DocumentHead(JsonReader& json, const std::vector<unsigned long long>& ids,
                                 unsigned long long& generation);

}  // namespace ZorvSnapUsage

#endif  // CLI_DOCUMENT_HEAD_H_
