// zorv-snapusage whyheld: which snapshots keep the bytes of a deleted or changed file.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <set>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/deletions.h"
#include "cli/engine_holders.h"
#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/json_output.h"
#include "cli/options.h"
#include "cli/share.h"
#include "cli/share_path.h"
#include "cli/share_place.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/unsorted.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

struct WhyheldOptions {
  std::string share;
  std::string path;
  OutputFormat format;
};

// What is printed. The share's own subvolume is asked about last, behind its snapshots.
struct Kept {
  std::string path;  // in the share
  std::vector<Snapshot> snapshots;
  PathHolders found;
  time_t read;

  bool IsShare(uint32_t place) const { return place == snapshots.size(); }
  bool HasShare(const Places& places) const {
    return std::ranges::find(places, snapshots.size()) != places.end();
  }
  // Whether nobody but snapshots holds it.
  bool CanComeFree(const HeldData& group) const { return !group.outside && !HasShare(group.by); }
};

const Columns& GroupColumns() {
  static const Columns columns = {{"data", "DATA"}, {"comes_free", ""}, {"in_share", ""},
                                  {"outside", ""},  {"group", ""},      {"holders", "HELD BY"}};
  return columns;
}

const Columns& VersionColumns() {
  static const Columns columns = {
      {"version", "VERSION"}, {"size", "SIZE"},         {"data", "DATA"}, {"files", "FILES"},
      {"inode", "INODE"},     {"modified", "MODIFIED"}, {"in_share", ""}, {"in", "IN"}};
  return columns;
}

std::vector<std::string> NamesOf(const Kept& kept, const Places& places) {
  std::vector<std::string> names;
  for (const uint32_t place : places)
    if (!kept.IsShare(place)) names.push_back(kept.snapshots[place].name);
  return names;
}

// Neighbours are named by the first and the last of them.
std::string Listed(const Kept& kept, const Places& places) {
  std::vector<std::string> parts;
  for (size_t at = 0; at < places.size();) {
    if (kept.IsShare(places[at])) break;
    size_t end = at + 1;
    while (end < places.size() && places[end] == places[end - 1] + 1 && !kept.IsShare(places[end]))
      ++end;
    const std::string& first = kept.snapshots[places[at]].name;
    const std::string& last = kept.snapshots[places[end - 1]].name;
    parts.push_back(end == at + 1   ? first
                    : end == at + 2 ? first + ", " + last
                                    : fmt::format("{} to {} ({})", first, last, end - at));
    at = end;
  }
  if (kept.HasShare(places)) parts.emplace_back("the share itself");
  return fmt::format("{}", fmt::join(parts, ", "));
}

Table GroupsTable(const Kept& kept) {
  Table table(GroupColumns());
  for (size_t i = 0; i < kept.found.groups.size(); ++i) {
    const HeldData& group = kept.found.groups[i];
    table.Add({Cell::Bytes(group.data), Cell::Flag(kept.CanComeFree(group)),
               Cell::Flag(kept.HasShare(group.by)), Cell::Flag(group.outside), Cell::Number(i),
               Cell::Text(Listed(kept, group.by) + (group.outside ? ", and outside the share" : ""),
                          kept.CanComeFree(group) ? Tone::kPlain : Tone::kFaint)});
  }
  return table;
}

Table VersionsTable(const Kept& kept) {
  Table table(VersionColumns());
  for (size_t i = 0; i < kept.found.versions.size(); ++i) {
    const PathVersion& version = kept.found.versions[i];
    table.Add({Cell::Number(i + 1), Cell::Bytes(version.size), Cell::Bytes(version.data),
               Cell::Number(version.files), Cell::Number(version.inode),
               Cell::Time(version.modified), Cell::Flag(kept.HasShare(version.in)),
               Cell::Text(Listed(kept, version.in))});
  }
  return table;
}

std::string Conclusion(const Kept& kept, const OutputFormat& format) {
  unsigned long long free = 0, stays = 0;
  std::set<uint32_t> go;
  for (const HeldData& group : kept.found.groups) {
    (kept.CanComeFree(group) ? free : stays) += group.data;
    if (kept.CanComeFree(group)) go.insert(group.by.begin(), group.by.end());
  }
  const auto bytes = [&](unsigned long long count) {
    return BytesText(count, format.ShownUnits());
  };
  std::string text;
  if (free > 0)
    text += fmt::format("{} come free when these go: {}", bytes(free),
                        Escaped(Listed(kept, {go.begin(), go.end()})));
  if (stays > 0)
    text += fmt::format("{}{} stay: the share itself, or somebody else, holds them too",
                        text.empty() ? "" : "\n", bytes(stays));
  return text.empty() ? "no data: what there is stands in the metadata" : text;
}

void PrintForPeople(const WhyheldOptions& options, const Kept& kept) {
  const OutputFormat& format = options.format;
  if (!format.plain) {
    ToStandardOutput(fmt::format("share {}, {}, generation {}, read {}\n\n", Escaped(options.share),
                                 Escaped(kept.path), kept.found.generation,
                                 TimeForPeople(kept.read)));
    ToStandardOutput(VersionsTable(kept).Text(Unsorted(format)) + "\n");
  }
  const Table groups = GroupsTable(kept);
  if (!groups.IsEmpty()) ToStandardOutput(groups.Text(format));
  if (!format.plain)
    ToStandardOutput((groups.IsEmpty() ? "" : "\n") + Conclusion(kept, format) + "\n");
}

void PrintForPrograms(const WhyheldOptions& options, const Kept& kept) {
  Json::Value document = NewDocument(kJsonVersion);
  document["share"] = ValidUtf8(options.share);
  document["path"] = ValidUtf8(kept.path);
  document["generation"] = Json::UInt64{kept.found.generation};
  SetTime(document, "time", kept.read);
  Json::Value versions = VersionsTable(kept).Rows(Unsorted(options.format));
  for (Json::Value& row : versions) {
    const PathVersion& version = kept.found.versions[row["version"].asUInt() - 1];
    row.removeMember("in");
    row["directory"] = version.directory;
    row["snapshots"] = NamesJson(NamesOf(kept, version.in));
  }
  document["versions"] = versions;
  document["without"] = NamesJson(NamesOf(kept, kept.found.without));
  Json::Value groups = GroupsTable(kept).Rows(options.format);
  for (Json::Value& row : groups) {
    row["snapshots"] = NamesJson(NamesOf(kept, kept.found.groups[row["group"].asUInt()].by));
    row.removeMember("group");
    row.removeMember("holders");
  }
  document["held"] = groups;
  PrintJson(document);
}

[[noreturn]] void RefuseUnknownPath(const std::string& share, const Kept& kept,
                                    const std::string& sharePath) {
  if (!kept.found.nested.empty())
    throw Failure(kUnknownPath,
                  fmt::format("{} is in a subvolume of its own inside share {}, which snapshots of "
                              "the share do not contain",
                              Quoted(kept.path), Quoted(share)),
                  "ask about the share that it is, if it is one");
  std::vector<std::string> directories = {sharePath};
  for (auto at = kept.snapshots.rbegin(); at != kept.snapshots.rend(); ++at)
    directories.push_back(at->path);
  const std::string nearest = NearestPath(kept.path, directories);
  throw Failure(kUnknownPath,
                fmt::format("there is no {} in share {}, nor in any of its {}", Quoted(kept.path),
                            Quoted(share), CountOf(kept.snapshots.size(), "snapshot")),
                nearest.empty() ? "give its path from the root of the share"
                                : fmt::format("did you mean {}?", Quoted(nearest)));
}

int Whyheld(const WhyheldOptions& options) {
  const Interrupt interrupt;
  BeginWorkOn(options.share);
  const SharePlace place = PlaceOfShare(options.share);
  Kept kept;
  kept.path = PathInShare(options.path, options.share, place.path);
  kept.snapshots = SnapshotsOf(options.share);
  std::vector<unsigned long long> ids;
  for (const Snapshot& snapshot : kept.snapshots) ids.push_back(snapshot.subvolumeID);
  ids.push_back(place.subvolumeID);
  (void)TellOfDeletions(options.share);
  kept.found = AskForHolders(place.path, kept.path, ids);
  kept.read = time(nullptr);
  if (kept.found.versions.empty()) RefuseUnknownPath(options.share, kept, place.path);
  if (options.format.json)
    PrintForPrograms(options, kept);
  else
    PrintForPeople(options, kept);
  return kOk;
}

}  // namespace

void AddWhyheld(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("whyheld", "Name the snapshots that keep a file's data");
  const auto options = std::make_shared<WhyheldOptions>();
  AddShareArgument(*command, options->share);
  command->add_option("PATH", options->path, "File or folder of the share, also one that is gone")
      ->type_name("")
      ->required();
  AddOutputFormat(*command, options->format, GroupColumns());
  command->footer(
      "Held by: all of these must go before the data comes free.\n"
      "Example: zorv-snapusage whyheld photos 2023/film.mp4");
  command->callback([options, &action] { action = [options] { return Whyheld(*options); }; });
}

}  // namespace ZorvSnapUsage
