// zorv-snapusage explain: the files and folders behind what one snapshot holds alone.
#include <fmt/format.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cli/begin_work.h"
#include "cli/commands.h"
#include "cli/deletions.h"
#include "cli/engine_files.h"
#include "cli/failure.h"
#include "cli/interrupt.h"
#include "cli/json_output.h"
#include "cli/options.h"
#include "cli/share.h"
#include "cli/snapshot_choice.h"
#include "cli/standard_streams.h"
#include "cli/text.h"
#include "cli/time_text.h"
#include "cli/unsorted.h"
#include "cli/wording.h"

namespace ZorvSnapUsage {
namespace {

constexpr int kJsonVersion = 1;

struct ExplainOptions {
  std::string share;
  std::string snapshot;
  ExplanationSize size;
  bool foldersOnly = false;
  OutputFormat format;
};

// What is printed, with the time when it was read.
struct Explained {
  Snapshot snapshot;
  Explanation found;
  time_t read;
};

const Columns& FileColumns() {
  static const Columns columns = {{"data", "DATA"},
                                  {"shared_data", "SHARED"},
                                  {"names", "NAMES"},
                                  {"inode", "INODE"},
                                  {"path", "FILE"}};
  return columns;
}

const Columns& FolderColumns() {
  static const Columns columns = {{"data", "DATA"}, {"files", "FILES"}, {"path", "FOLDER"}};
  return columns;
}

// Of both tables: which one is printed is known when the whole command line is.
Columns AllColumns() {
  Columns columns = FileColumns();
  for (const Column& column : FolderColumns())
    if (FindColumn(columns, column.key) == nullptr) columns.push_back(column);
  return columns;
}

Table FilesTable(const Explanation& found) {
  Table table(FileColumns());
  for (const ExplainedFile& file : found.files)
    table.Add({Cell::Bytes(file.data), Cell::Bytes(file.sharedData), Cell::Number(file.names),
               Cell::Number(file.inode), Cell::Text(file.path.value_or(""))});
  return table;
}

Table FoldersTable(const Explanation& found) {
  Table table(FolderColumns());
  for (const ExplainedFolder& folder : found.folders)
    table.Add(
        {Cell::Bytes(folder.sum.data), Cell::Number(folder.sum.files), Cell::Text(folder.path)});
  return table;
}

// Folders are sorted as files are, where they have the column.
OutputFormat FolderFormat(const OutputFormat& format) {
  const bool has = format.sort && FindColumn(FolderColumns(), format.sort->key) != nullptr;
  return has ? format : Unsorted(format);
}

std::string Sum(const Explanation& found, const OutputFormat& format) {
  const auto bytes = [&](unsigned long long count) {
    return BytesText(count, format.ShownUnits());
  };
  std::string text = fmt::format(
      "{} of data in {}, {} of metadata: {} held by this snapshot alone\n", bytes(found.data),
      CountOf(found.all.files, "file"), bytes(found.metadata), bytes(found.data + found.metadata));
  if (found.unlinked.files > 0)
    text += fmt::format("{} of the data in {} without a name, deleted while still open\n",
                        bytes(found.unlinked.data), CountOf(found.unlinked.files, "file"));
  return text;
}

void PrintLines(const ExplainOptions& options, const Explanation& found) {
  const OutputFormat& format = options.format;
  ToStandardOutput(options.foldersOnly ? FoldersTable(found).Text(FolderFormat(format))
                                       : FilesTable(found).Text(format));
}

void PrintForPeople(const ExplainOptions& options, const Explained& explained) {
  const OutputFormat& format = options.format;
  ToStandardOutput(fmt::format("share {}, snapshot {}, generation {}, read {}\n\n",
                               Escaped(options.share), Escaped(explained.snapshot.name),
                               explained.found.generation, TimeForPeople(explained.read)));
  const Table files = FilesTable(explained.found);
  if (!files.IsEmpty() && !options.foldersOnly) ToStandardOutput(files.Text(format) + "\n");
  const Table folders = FoldersTable(explained.found);
  if (!folders.IsEmpty()) ToStandardOutput(folders.Text(FolderFormat(format)) + "\n");
  ToStandardOutput(Sum(explained.found, format));
}

void PrintForPrograms(const ExplainOptions& options, const Explained& explained) {
  const Explanation& found = explained.found;
  Json::Value document = NewDocument(kJsonVersion);
  document["share"] = ValidUtf8(options.share);
  document["snapshot"] = ValidUtf8(explained.snapshot.name);
  document["subvolume_id"] = Json::UInt64{explained.snapshot.subvolumeID};
  document["generation"] = Json::UInt64{found.generation};
  SetTime(document, "time", explained.read);
  document["data"] = Json::UInt64{found.data};
  document["metadata"] = Json::UInt64{found.metadata};
  document["files"] = Json::UInt64{found.all.files};
  document["unlinked_files"] = Json::UInt64{found.unlinked.files};
  document["unlinked_data"] = Json::UInt64{found.unlinked.data};
  document["largest_files"] = FilesTable(found).Rows(options.format);
  document["largest_folders"] = FoldersTable(found).Rows(FolderFormat(options.format));
  PrintJson(document);
}

int Explain(const ExplainOptions& options) {
  RequireColumn(options.format, options.foldersOnly ? FolderColumns() : FileColumns());
  const Interrupt interrupt;
  BeginWorkOn(options.share);
  RequireShare(options.share);
  const std::vector<Snapshot> snapshots = SnapshotsOf(options.share);
  const Snapshot& snapshot = snapshots[RequireSnapshot(options.share, snapshots, options.snapshot)];
  (void)TellOfDeletions(options.share);
  const Explanation found = AskForFiles(snapshot.path, snapshot.subvolumeID, options.size);
  const Explained explained = {snapshot, found, time(nullptr)};
  if (options.format.json)
    PrintForPrograms(options, explained);
  else if (options.format.plain)
    PrintLines(options, found);
  else
    PrintForPeople(options, explained);
  return kOk;
}

}  // namespace

void AddExplain(CLI::App& program, Action& action) {
  CLI::App* const command =
      program.add_subcommand("explain", "Name the files behind what a snapshot alone holds");
  const auto options = std::make_shared<ExplainOptions>();
  AddShareArgument(*command, options->share);
  command->add_option("SNAPSHOT", options->snapshot, "Name of the snapshot")
      ->type_name("")
      ->required();
  command->add_option("--top", options->size.most, "As many files, and folders (default: 20)")
      ->type_name("N")
      ->check(CLI::Range(1u, 10000u).description(""));
  command->add_option("--depth", options->size.depth, "Folders as deep as this (default: 1)")
      ->type_name("N")
      ->check(CLI::Range(0u, 1000u).description(""));
  command->add_flag("--folders", options->foldersOnly, "Folders only");
  AddOutputFormat(*command, options->format, AllColumns());
  command->footer(
      "Data: what comes free with the file when this snapshot alone is deleted.\n"
      "Shared: what other files of the snapshot have, too; the first has it here.\n"
      "Example: zorv-snapusage explain photos GMT+08-2024.03.05-17.04.09 --top 5");
  command->callback([options, &action] { action = [options] { return Explain(*options); }; });
}

}  // namespace ZorvSnapUsage
