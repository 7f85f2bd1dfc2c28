#include "cli/table_document.h"

#include <algorithm>
#include <string>
#include <unordered_map>

#include "cli/document_head.h"
#include "cli/held_bytes_reader.h"

namespace ZorvSnapUsage {
namespace {

using Ids = std::vector<unsigned long long>;

using Readers = JsonReader::Readers;

class Document {
 public:
  Document(std::string_view text, const Ids& ids) : json_(text), ids_(ids) {
    for (uint32_t place = 0; place < ids.size(); ++place) places_.emplace(ids[place], place);
  }

  SizeTable ReadTable() {
    SizeTable table;
    bool complete = false;
    Readers members = DocumentHead(json_, ids_, table.generation);
    members["sets"] = [&] { table.sets = Sets(); };
    members["complete"] = [&] { complete = json_.Bool(); };
    json_.Members(members, {{"summed_sets", [&] { table.sums = Sums(); }}});
    json_.End();
    if (complete != table.Complete()) json_.Wrong("a table that contradicts itself");
    table.subvolumeIDs = ids_;
    return table;
  }

  Forecast ReadForecast() {
    Forecast forecast;
    Readers members = DocumentHead(json_, ids_, forecast.generation);
    members["forecast"] = [&] { json_.Members({{"steps", [&] { forecast.steps = Steps(); }}}); };
    json_.Members(members);
    json_.End();
    return forecast;
  }

 private:
  uint32_t Place() {
    const auto place = places_.find(json_.Number());
    if (place == places_.end()) json_.Wrong("a subvolume that was not asked for");
    return place->second;
  }

  Members MembersOfSet() {
    std::vector<uint32_t> places;
    json_.Array([&] { places.push_back(Place()); });
    std::sort(places.begin(), places.end());
    if (places.empty() || std::adjacent_find(places.begin(), places.end()) != places.end())
      json_.Wrong("a set that is none");
    return MembersOf(places);
  }

  std::vector<HeldSet> Sets() {
    std::vector<HeldSet> sets;
    json_.Array([&] {
      HeldSet set;
      set.bytes = bytes_.Read({{"subvolumes", [&] { set.members = MembersOfSet(); }}});
      sets.push_back(std::move(set));
    });
    return sets;
  }

  std::vector<SummedSets> Sums() {
    std::vector<SummedSets> sums;
    json_.Array([&] {
      SummedSets sum{};
      sum.bytes = bytes_.Read({{"last", [&] { sum.last = Place(); }}});
      sums.push_back(sum);
    });
    return sums;
  }

  std::vector<FreedBytes> Steps() {
    std::vector<FreedBytes> steps;
    json_.Array([&] {
      uint32_t place = 0;
      steps.push_back(bytes_.Read({{"subvolume", [&] { place = Place(); }}}));
      if (place + 1 != steps.size()) json_.Wrong("a plan in another order");
    });
    if (steps.size() != ids_.size()) json_.Wrong("a plan of other steps");
    return steps;
  }

  JsonReader json_;
  const Ids& ids_;  // asked for
  std::unordered_map<unsigned long long, uint32_t> places_;
  HeldBytesReader bytes_{json_};
};

}  // namespace

SizeTable ReadTableDocument(std::string_view text, const Ids& ids) {
  return Document(text, ids).ReadTable();
}

Forecast ReadForecastDocument(std::string_view text, const Ids& ids) {
  return Document(text, ids).ReadForecast();
}

}  // namespace ZorvSnapUsage
