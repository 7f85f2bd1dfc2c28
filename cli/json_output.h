// What all JSON documents of the program have in common.
#ifndef CLI_JSON_OUTPUT_H_
#define CLI_JSON_OUTPUT_H_

#include <json/value.h>
#include <time.h>

#include <optional>
#include <string>
#include <vector>

namespace ZorvSnapUsage {

// A document with its "__header": the version of that kind of document, and nothing else yet. The
// version changes when a member changes its meaning or goes; new members do not change it.
Json::Value NewDocument(int version);

// Sets `key` and its timestamp ("time" and "timestamp", "calculated" and "calculated_timestamp"):
// the time as a text with its zone, and in seconds since the epoch; both null for none.
void SetTime(Json::Value& object, const std::string& key, std::optional<time_t> time);

// The number, or null.
Json::Value NumberJson(std::optional<unsigned long long> number);

// The names as an array of texts.
Json::Value NamesJson(const std::vector<std::string>& names);

// Prints the document to standard output.
void PrintJson(const Json::Value& document);

}  // namespace ZorvSnapUsage

#endif  // CLI_JSON_OUTPUT_H_
