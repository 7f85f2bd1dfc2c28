#include "cli/engine_holders.h"

#include <algorithm>
#include <charconv>
#include <unordered_map>

#include "cli/document_head.h"
#include "cli/engine_document.h"

namespace ZorvSnapUsage {
namespace {

// Versions and groups are sets of subvolumes: of a thousand, each kept in some of thousands of
// sets.
constexpr size_t kMostOutput = size_t{256} << 20;

using Ids = std::vector<unsigned long long>;

class Document {
 public:
  Document(std::string_view text, const Ids& ids) : json_(text), ids_(ids) {
    for (uint32_t place = 0; place < ids.size(); ++place) places_.emplace(ids[place], place);
  }

  PathHolders Read() {
    PathHolders found;
    JsonReader::Readers members = DocumentHead(json_, ids_, found.generation);
    members["holders"] = [&] {
      json_.Members(
          {{"versions", [&] { json_.Array([&] { found.versions.push_back(Version()); }); }},
           {"without", [&] { found.without = ReadPlaces(); }},
           {"nested", [&] { found.nested = ReadPlaces(); }},
           {"groups", [&] { json_.Array([&] { found.groups.push_back(Group()); }); }}});
    };
    json_.Members(members);
    json_.End();
    return found;
  }

 private:
  Places ReadPlaces() {
    Places places;
    json_.Array([&] {
      const auto place = places_.find(json_.Number());
      if (place == places_.end()) json_.Wrong("a subvolume that was not asked for");
      places.push_back(place->second);
    });
    std::ranges::sort(places);
    return places;
  }

  PathVersion Version() {
    PathVersion version;
    json_.Members({{"inode", [&] { version.inode = json_.Number(); }},
                   {"directory", [&] { version.directory = json_.Bool(); }},
                   {"files", [&] { version.files = json_.Number(); }},
                   {"size", [&] { version.size = json_.Number(); }},
                   {"data", [&] { version.data = json_.Number(); }},
                   {"modified", [&] { version.modified = Seconds(); }},
                   {"subvolumes", [&] { version.in = ReadPlaces(); }}});
    return version;
  }

  // Of "-5.000000001" the whole seconds.
  time_t Seconds() {
    const std::string text = json_.Text();
    time_t seconds = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (end.ec != std::errc() || end.ptr == text.data() + text.size() || *end.ptr != '.')
      json_.Wrong("no time");
    return seconds;
  }

  HeldData Group() {
    HeldData group;
    json_.Members({{"outside", [&] { group.outside = json_.Bool(); }},
                   {"data", [&] { group.data = json_.Number(); }},
                   {"subvolumes", [&] { group.by = ReadPlaces(); }}});
    if (group.by.empty()) json_.Wrong("a set that is none");
    return group;
  }

  JsonReader json_;
  const Ids& ids_;  // asked for
  std::unordered_map<unsigned long long, uint32_t> places_;
};

}  // namespace

PathHolders ReadHoldersDocument(std::string_view text, const Ids& subvolumeIDs) {
  return Document(text, subvolumeIDs).Read();
}

PathHolders AskForHolders(const std::string& directory, const std::string& path,
                          const Ids& subvolumeIDs) {
  const std::string document =
      AskEngine({{"--holders=" + path}, directory, subvolumeIDs, kMostOutput});
  return Understood([&] { return ReadHoldersDocument(document, subvolumeIDs); });
}

}  // namespace ZorvSnapUsage
