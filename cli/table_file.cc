#include "cli/table_file.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>
#include <vector>

#include "cli/held_bytes_reader.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kFormat[] = "zorv-snapusage-table";
constexpr unsigned long long kVersion = 1;
constexpr long kSecond = 1000000000;  // nanoseconds

void AppendBytes(const FreedBytes& bytes, fmt::memory_buffer& text) {
  fmt::format_to(std::back_inserter(text), "\"data\":{},\"metadata\":{}}}", bytes.data,
                 bytes.metadata);
}

void AppendMembers(const Members& members, fmt::memory_buffer& text) {
  const char* between = "";
  for (const PlaceRange& range : members)
    fmt::format_to(std::back_inserter(text), "{}[{},{}]", std::exchange(between, ","), range.first,
                   range.last);
}

class File {
 public:
  explicit File(std::string_view text) : json_(text) {}

  KeptTable Read() {
    bool complete = false;
    SizeTable& table = kept_.table;
    Moment& taken = kept_.taken;
    json_.Members(
        {{"format", [this] { Require(json_.Text() == kFormat, "another format"); }},
         {"version", [this] { Require(json_.Number() == kVersion, "another version"); }},
         {"file_system", [this] { kept_.fileSystemID = json_.Text(); }},
         {"taken", [&] { taken.seconds = static_cast<time_t>(json_.Number()); }},
         {"taken_nanoseconds", [&] { taken.nanoseconds = static_cast<long>(json_.Number()); }},
         {"generation", [&] { table.generation = json_.Number(); }},
         {"subvolumes", [&] { ReadSubvolumes(); }},
         {"sets", [this] { ReadSets(); }},
         {"summed_sets", [this] { ReadSums(); }},
         {"complete", [&] { complete = json_.Bool(); }}});
    json_.End();
    Require(complete == table.Complete(), "a table that contradicts itself");
    Require(taken.seconds >= 0 && taken.nanoseconds >= 0 && taken.nanoseconds < kSecond,
            "a time that is none");
    return std::move(kept_);
  }

 private:
  void Require(bool right, const char* complaint) const {
    if (!right) json_.Wrong(complaint);
  }

  void ReadSubvolumes() {
    json_.Array([this] { kept_.table.subvolumeIDs.push_back(json_.Number()); });
  }

  // One of the subvolumes, which have been read by then.
  uint32_t Place() {
    const unsigned long long place = json_.Number();
    Require(place < kept_.table.subvolumeIDs.size(), "a place that is none");
    return static_cast<uint32_t>(place);
  }

  Members ReadMembers() {
    Members members;
    json_.Array([&] {
      std::vector<uint32_t> ends;
      json_.Array([&] { ends.push_back(Place()); });
      Require(ends.size() == 2 && ends[0] <= ends[1] &&
                  (members.empty() || ends[0] > members.back().last + 1),
              "a set that is none");
      members.push_back({ends[0], ends[1]});
    });
    Require(!members.empty(), "a set that is none");
    return members;
  }

  void ReadSets() {
    json_.Array([this] {
      HeldSet set;
      set.bytes = bytes_.Read({{"members", [&] { set.members = ReadMembers(); }}});
      kept_.table.sets.push_back(std::move(set));
    });
  }

  void ReadSums() {
    json_.Array([this] {
      SummedSets sum{};
      sum.bytes = bytes_.Read({{"last", [&] { sum.last = Place(); }}});
      kept_.table.sums.push_back(sum);
    });
  }

  JsonReader json_;
  HeldBytesReader bytes_{json_};
  KeptTable kept_;
};

}  // namespace

std::string TableFileText(const KeptTable& kept) {
  fmt::memory_buffer text;
  fmt::format_to(std::back_inserter(text),
                 "{{\"format\":\"{}\",\"version\":{},\"file_system\":\"{}\",\"taken\":{},"
                 "\"taken_nanoseconds\":{},\"generation\":{},\"subvolumes\":[{}],\"sets\":[",
                 kFormat, kVersion, kept.fileSystemID, kept.taken.seconds, kept.taken.nanoseconds,
                 kept.table.generation, fmt::join(kept.table.subvolumeIDs, ","));
  const char* between = "";
  for (const HeldSet& set : kept.table.sets) {
    fmt::format_to(std::back_inserter(text), "{}{{\"members\":[", std::exchange(between, ","));
    AppendMembers(set.members, text);
    fmt::format_to(std::back_inserter(text), "],");
    AppendBytes(set.bytes, text);
  }
  fmt::format_to(std::back_inserter(text), "],\"summed_sets\":[");
  between = "";
  for (const SummedSets& sum : kept.table.sums) {
    fmt::format_to(std::back_inserter(text), "{}{{\"last\":{},", std::exchange(between, ","),
                   sum.last);
    AppendBytes(sum.bytes, text);
  }
  fmt::format_to(std::back_inserter(text), "],\"complete\":{}}}\n", kept.table.Complete());
  return fmt::to_string(text);
}

KeptTable ReadTableFile(std::string_view text) { return File(text).Read(); }

}  // namespace ZorvSnapUsage
