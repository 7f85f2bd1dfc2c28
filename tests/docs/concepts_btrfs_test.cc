// docs/concepts.md is true: its commands are run as they stand, and print what stands there; the
// kernel agrees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>

#include "tests/support/btrfs_ioctls.h"
#include "tests/support/btrfs_volume.h"
#include "tests/support/command.h"

using namespace ZorvTest;

namespace {

constexpr unsigned long long kMiB = 1024 * 1024;

// A piece of the document: commands to be done, or one command with what it prints.
struct Step {
  std::string commands;
  bool shown = false;  // whether `output` stands in the document
  std::string output;
};

// The commands of a block, each after "$ ", with the lines below it.
void AddShownCommands(std::istringstream& lines, std::vector<Step>& steps) {
  for (std::string line; std::getline(lines, line) && line != "```";)
    if (line.rfind("$ ", 0) == 0)
      steps.push_back({line.substr(2), true, ""});
    else
      steps.back().output += line + "\n";
}

std::vector<Step> StepsOf(const std::string& document) {
  std::istringstream lines(document);
  std::vector<Step> steps;
  for (std::string line; std::getline(lines, line);)
    if (line == "```sh") {
      steps.push_back({});
      while (std::getline(lines, line) && line != "```") steps.back().commands += line + "\n";
    } else if (line == "```console") {
      AddShownCommands(lines, steps);
    }
  return steps;
}

std::string Shell(const std::string& commands) { return MustRun({"bash", "-ec", commands}); }

// A new file system on which the document's share stands, made by the document's commands.
class Concepts : public testing::Test {
 protected:
  Concepts() : document_(ReadFile(ZORV_SOURCE_DIR "/docs/concepts.md")), volume_("/volume1") {
    std::filesystem::copy_file(ZORV_ENGINE_PATH, "/sbin/btrfs",
                               std::filesystem::copy_options::overwrite_existing);
    for (const Step& step : StepsOf(document_))
      if (!step.shown) Shell(step.commands);
  }

  static constexpr unsigned long long kMonday = 257, kTuesday = 258, kWednesday = 259;

  const std::string document_;
  BtrfsVolume volume_;
};

}  // namespace

TEST_F(Concepts, CommandsPrintWhatTheDocumentShows) {
  int count = 0;
  for (const Step& step : StepsOf(document_)) {
    if (!step.shown) continue;
    SCOPED_TRACE(step.commands);
    EXPECT_EQ(step.output, Shell(step.commands));
    ++count;
  }
  EXPECT_LE(4, count);
}

TEST_F(Concepts, TableOfHoldersIsTrue) {
  const std::regex row(R"(\n\| ([\w.]+), (\d+) MiB \|([^\n]*)\|\n)");
  const std::string folders[] = {"/.snapshots/monday/", "/.snapshots/tuesday/",
                                 "/.snapshots/wednesday/", "/"};
  int files = 0;
  // Rows share their line ends.
  for (auto from = document_.cbegin();; ++files) {
    std::smatch match;
    if (!std::regex_search(from, document_.cend(), match, row)) break;
    SCOPED_TRACE(match[1]);
    std::istringstream cells(match[3]);
    for (const std::string& folder : folders) {
      std::string cell;
      std::getline(cells, cell, '|');
      const std::string path = "/volume1/photos" + folder + match[1].str();
      EXPECT_EQ(cell == " yes ", std::filesystem::exists(path)) << path;
      if (cell == " yes ") {
        EXPECT_EQ(std::stoull(match[2]) * kMiB, std::filesystem::file_size(path));
      }
    }
    from = match[0].second - 1;
  }
  EXPECT_EQ(4, files);
}

TEST_F(Concepts, KernelSaysTheSame) {
  const KernelSizes kernel = volume_.KernelExclusiveOf({{kMonday, kTuesday}});
  for (const unsigned long long id : {kMonday, kTuesday, kWednesday})
    EXPECT_THAT(document_,
                testing::HasSubstr("\nsubvol(" + std::to_string(id) + ") " +
                                   std::to_string(kernel.exclusive.at(id)) + " bytes\n"));
  const std::string both = std::to_string(kernel.sets[0] - 2 * 16384);
  EXPECT_THAT(document_, testing::HasSubstr("forecast all data " + both + " metadata 32768\n"));
}

TEST_F(Concepts, DeletingFreesWhatTheTextSays) {
  const std::string sentences = std::regex_replace(document_, std::regex("\n"), " ");
  CommitAndClean("/volume1");
  const SpaceUsed before = UsedSpace("/volume1");
  volume_.DeleteSubvolume("photos/.snapshots/monday");
  CommitAndClean("/volume1");
  const SpaceUsed between = UsedSpace("/volume1");
  volume_.DeleteSubvolume("photos/.snapshots/tuesday");
  CommitAndClean("/volume1");
  const SpaceUsed after = UsedSpace("/volume1");

  const auto mebibytes = [](unsigned long long bytes) {
    EXPECT_EQ(0u, bytes % kMiB);
    return std::to_string(bytes / kMiB) + " MiB";
  };
  EXPECT_THAT(sentences, testing::HasSubstr("has its draft for itself, " +
                                            mebibytes(before.data - between.data) + "."));
  EXPECT_THAT(sentences, testing::HasSubstr("has grown from 2 MiB to " +
                                            mebibytes(between.data - after.data) + "."));
  EXPECT_THAT(sentences,
              testing::HasSubstr("Deleting both frees " + mebibytes(before.data - after.data)));
}
