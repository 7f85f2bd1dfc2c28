// options.h: the command line of `subvolume size`.
#ifndef ENGINE_OPTIONS_H_
#define ENGINE_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/ondisk/status.h"
#include "engine/size/file_report.h"

namespace ZorvEngine {

// The first line of --version.  Programs recognise the engine by it; the real btrfs says another.
extern const char kVersionLine[];

// The text of --help.
extern const char kHelpText[];

// Ways of counting; all give the same numbers.
enum class Method {
  kAuto,  // the walk while that stays small, else the scan
  kScan,  // the extent tree, once
  kWalk,  // each subvolume's own blocks, from its root down
};

// What a command line wants to know.
enum class Question {
  kSizes,     // sizes, and what the options add to them
  kEstimate,  // how much a run would read
  kCheck,     // whether a run would work
};

// What a command line asks for.
struct Options {
  bool help = false;
  bool version = false;
  Question question = Question::kSizes;
  bool eachSubvolume = false;  // -v
  bool progress = false;       // -p
  bool countMetadata = false;  // -m
  bool byId = false;           // -r
  std::string directory;       // of -r
  Method method = Method::kAuto;
  bool verify = false;             // count in both ways and compare
  std::vector<uint64_t> forecast;  // the plan: subvolumes in the order of their deletion
  bool table = false;              // each set of subvolumes
  FileListing files;               // which files of the one subvolume to list
  std::string holders;             // path whose bytes' holders to find
  bool json = false;               // one document in place of lines
  bool stats = false;              // what the run did
  size_t tableBytes = 64u << 20;   // memory for the sets of the table
  size_t arrayBytes = 256u << 20;  // memory for large arrays
  bool ring = true;                // false: not even where the system has io_uring
  unsigned threads = 0;            // that verify and count; 0: one a processor, at most 4
  std::vector<std::string> arguments;
};

// Whether `words` (the command line after the program's name) is the command `subvolume size`, in
// full or by prefixes that mean nothing else among the commands of btrfs.
bool IsSizeCommand(const std::vector<std::string>& words);

// Reads what follows `subvolume size`.  Options may stand together (-vpm) and anywhere before "--".
// Fails for an unknown option, a value that is missing or cannot be read, -r or --forecast given
// twice, options that exclude each other, an empty argument, and when there is nothing to ask about
// (unless help or version is asked for).
Status ParseOptions(const std::vector<std::string>& words, Options* out);

// Reads a subvolume ID: decimal digits, leading zeros allowed, at most 64 bits.
Status ParseSubvolumeId(const std::string& text, uint64_t* id);

}  // namespace ZorvEngine

#endif  // ENGINE_OPTIONS_H_
