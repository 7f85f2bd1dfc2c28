// What tests of plans share: a share with a history of six snapshots, and an engine that prints a
// table of the test's own.
#ifndef TESTS_CLI_PLAN_WORLD_H_
#define TESTS_CLI_PLAN_WORLD_H_

#include <filesystem>
#include <string>
#include <vector>

#include "tests/cli/cli_world.h"

namespace ZorvTest {

inline constexpr char kCache[] = "/var/cache/zorv-snapusage";
inline constexpr char kCacheOfPhotos[] = "/var/cache/zorv-snapusage/photos";

// The share has five snapshots with a time, of 1 to 5 March 2024, and one without.
class PlanWorld : public CliWorld {
 protected:
  PlanWorld() {
    for (unsigned day = 3; day <= 5; ++day)
      volume_->Snapshot("photos", "photos/.snapshots/" + Day(day));
  }

  static std::string Day(unsigned day) {
    return "GMT-2024.03.0" + std::to_string(day) + "-09.04.09";
  }

  // One set of the table: the days of its members, 0 for the snapshot without a time.
  struct Set {
    std::vector<unsigned> days;
    unsigned long long data;
    unsigned long long metadata = 0;
  };

  std::string IdOf(unsigned day) const { return std::to_string(ID(day == 0 ? kNoTime : Day(day))); }

  std::vector<std::string> IdsOf(const std::vector<unsigned>& days) const {
    std::vector<std::string> ids;
    for (const unsigned day : days) ids.push_back(IdOf(day));
    return ids;
  }

  static std::string Bytes(unsigned long long data, unsigned long long metadata) {
    return "\"data\":" + std::to_string(data) + ",\"metadata\":" + std::to_string(metadata) +
           ",\"profiles\":{}}";
  }

  // Texts with a comma between them.
  static std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : ",") + text;
    return joined;
  }

  static std::string SetText(const std::vector<std::string>& ids, unsigned long long data,
                             unsigned long long metadata = 0) {
    return "{\"subvolumes\":[" + Joined(ids) + "]," + Bytes(data, metadata);
  }

  static std::string DocumentOf(const std::vector<std::string>& ids,
                                const std::vector<std::string>& sets) {
    return "{\"format\":\"zorv-subvolume-size\",\"version\":1,\"generation\":7,\"subvolumes\":[" +
           Joined(ids) + "],\"exclusive\":[],\"sets\":[" + Joined(sets) + "],\"complete\":true}";
  }

  // The engine's document about these sets.
  std::string Document(const std::vector<Set>& sets,
                       const std::vector<unsigned>& days = {1, 2, 3, 4, 5, 0}) const {
    std::vector<std::string> texts;
    for (const Set& set : sets) texts.push_back(SetText(IdsOf(set.days), set.data, set.metadata));
    return DocumentOf(IdsOf(days), texts);
  }

  // An engine that prints a text when it is asked for a table or a plan, and counts how often.
  static void AnsweringEngine(const std::string& document) {
    WriteFile("/tmp/document", document);
    std::filesystem::remove(kAsked);
    table_.clear();
    FakeEngine(std::string("echo >> ") + kAsked + "; cat /tmp/document\n");
  }
  void TableEngine(const std::vector<Set>& sets) const { AnsweringEngine(Document(sets)); }

  // How often the engine was asked.
  static size_t Asked() { return std::filesystem::exists(kAsked) ? ReadFile(kAsked).size() : 0; }

  // What `plan photos ... --format json` printed.
  static Json::Value Planned(std::vector<std::string> words) {
    words.insert(words.begin(), {"plan", "photos", "--format", "json"});
    return ParseJson(MustRun(Argv(words)));
  }

  // The names of a plan's steps, in their order.
  static std::vector<std::string> NamesOf(const Json::Value& plan) {
    std::vector<std::string> names;
    for (const Json::Value& step : plan["steps"]) names.push_back(step["name"].asString());
    return names;
  }

  static constexpr char kAsked[] = "/tmp/engine.asked";
};

}  // namespace ZorvTest

#endif  // TESTS_CLI_PLAN_WORLD_H_
