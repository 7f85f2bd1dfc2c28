#include "engine/options.h"

#include <algorithm>

namespace ZorvEngine {
namespace {

const char kSeeHelp[] = "; see btrfs subvolume size --help";

// Commands as users of btrfs know them; a prefix counts when it is that of one alone.
const char* const kGroups[] = {
    "subvolume", "filesystem", "balance", "device",  "scrub",           "check",
    "rescue",    "restore",    "receive", "replace", "property",        "send",
    "quota",     "qgroup",     "help",    "version", "inspect-internal"};
const char* const kSubvolumeCommands[] = {"create",      "delete",      "list",     "snapshot",
                                          "get-default", "set-default", "find-new", "show",
                                          "sync",        "size"};

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Whether `word` is `meant`, or a prefix of it and of nothing else in `all`.
template <size_t N>
bool Means(const std::string& word, const std::string& meant, const char* const (&all)[N]) {
  if (word == meant) return true;
  if (word.empty() || !StartsWith(meant, word)) return false;
  return std::count_if(std::begin(all), std::end(all),
                       [&](const char* other) { return StartsWith(other, word); }) == 1;
}

// Reads options one word at a time.
class Parser {
 public:
  Parser(const std::vector<std::string>& words, Options* options)
      : words_(words), options_(options) {}

  Status Run() {
    for (; at_ < words_.size(); ++at_) {
      const std::string& word = words_[at_];
      if (word.empty()) return Status::Failed(std::string("an argument is empty") + kSeeHelp);
      if (onlyArguments_ || word[0] != '-')
        options_->arguments.push_back(word);
      else if (word == "--")
        onlyArguments_ = true;
      else if (StartsWith(word, "--"))
        ENGINE_TRY(LongOption(word));
      else
        ENGINE_TRY(ShortOptions(word));
    }
    return Status();
  }

 private:
  Status LongOption(const std::string& word) {
    if (word == "--help")
      options_->help = true;
    else if (word == "--version")
      options_->version = true;
    else if (word == "--verify")
      options_->verify = true;
    else if (StartsWith(word, "--method"))
      return SetMethod(word);
    else
      return Unknown(word);
    return Status();
  }

  // The name of the method stands behind "=", or is the next word.
  Status SetMethod(const std::string& word) {
    std::string name;
    if (StartsWith(word, "--method="))
      name = word.substr(word.find('=') + 1);
    else if (word != "--method")
      return Unknown(word);
    else if (at_ + 1 < words_.size())
      name = words_[++at_];
    if (name == "auto")
      options_->method = Method::kAuto;
    else if (name == "scan")
      options_->method = Method::kScan;
    else if (name == "walk")
      options_->method = Method::kWalk;
    else
      return Status::Failed(std::string("--method is auto, scan or walk") + kSeeHelp);
    return Status();
  }

  Status ShortOptions(const std::string& word) {
    if (word.size() == 1) return Unknown(word);
    for (size_t i = 1; i < word.size(); ++i) switch (word[i]) {
        case 'v':
          options_->eachSubvolume = true;
          break;
        case 'p':
          options_->progress = true;
          break;
        case 'm':
          options_->countMetadata = true;
          break;
        case 'h':
          options_->help = true;
          break;
        case 'r':
          return Directory(word.substr(i + 1));
        default:
          return Unknown(word);
      }
    return Status();
  }

  // The directory of -r is the rest of its word, or else the next word.
  Status Directory(std::string directory) {
    if (options_->byId) return Status::Failed(std::string("-r is given twice") + kSeeHelp);
    if (directory.empty() && at_ + 1 < words_.size()) directory = words_[++at_];
    if (directory.empty()) return Status::Failed(std::string("-r needs a directory") + kSeeHelp);
    options_->byId = true;
    options_->directory = directory;
    return Status();
  }

  static Status Unknown(const std::string& word) {
    return Status::Failed(word + " is neither an option nor a subvolume" + kSeeHelp);
  }

  const std::vector<std::string>& words_;
  Options* options_;
  size_t at_ = 0;
  bool onlyArguments_ = false;
};

}  // namespace

const char kVersionLine[] = "zorv btrfs engine 1.0.0\n";

const char kHelpText[] =
    "usage: btrfs subvolume size [-v] [-p] [-m] PATH...\n"
    "       btrfs subvolume size [-v] [-p] [-m] -r DIR ID...\n"
    "\n"
    "Says how many bytes each subvolume or snapshot owns exclusively: what comes free\n"
    "when it alone is deleted.  Exact, and without quotas.  Needs root.\n"
    "\n"
    "  -v          a line for each subvolume:  subvol(ID) BYTES bytes\n"
    "  -p          progress while reading:  bytes read, exclusive bytes found so far\n"
    "  -m          count tree blocks (metadata) too; without it data alone\n"
    "  -r DIR      the arguments are subvolume IDs on the file system mounted at DIR;\n"
    "              without it they are root directories of subvolumes\n"
    "  -h, --help  this text\n"
    "  --version   name and version of this engine\n"
    "  --method M  scan (the default): read the extent tree once; walk: read the blocks\n"
    "              that only these subvolumes hold; auto: walk while that stays small,\n"
    "              else scan.  The numbers are the same.\n"
    "  --verify    count in both ways, and fail when they differ\n"
    "\n"
    "examples:\n"
    "  btrfs subvolume size -vm /volume1/photos/.snapshots/*\n"
    "  btrfs subvolume size -vpm -r /volume1 257 258\n"
    "\n"
    "All numbers belong to one committed state of the file system, whose generation is\n"
    "printed.  On failure the exit status is 1, the reason is on standard error, and no\n"
    "number is printed that is not exact.  All other commands are those of btrfs-progs.\n";

bool IsSizeCommand(const std::vector<std::string>& words) {
  return words.size() >= 2 && Means(words[0], "subvolume", kGroups) &&
         Means(words[1], "size", kSubvolumeCommands);
}

Status ParseOptions(const std::vector<std::string>& words, Options* out) {
  Options options;
  ENGINE_TRY(Parser(words, &options).Run());
  if (options.arguments.empty() && !options.help && !options.version)
    return Status::Failed(std::string("no subvolume is given") + kSeeHelp);
  *out = std::move(options);
  return Status();
}

Status ParseSubvolumeId(const std::string& text, uint64_t* id) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
    return Status::Failed("\"" + text + "\" is not a subvolume ID: decimal digits are expected");
  uint64_t value = 0;
  for (const char digit : text) {
    const uint64_t units = static_cast<uint64_t>(digit - '0');
    if (value > (UINT64_MAX - units) / 10)
      return Status::Failed(text + " is too large for a subvolume ID");
    value = value * 10 + units;
  }
  *id = value;
  return Status();
}

}  // namespace ZorvEngine
