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

// Long options that are there or not.
struct Flag {
  const char* name;
  bool Options::*flag;
};
constexpr Flag kFlags[] = {
    {"--help", &Options::help},   {"--version", &Options::version}, {"--verify", &Options::verify},
    {"--table", &Options::table}, {"--stats", &Options::stats},
};

constexpr uint64_t kMostMiB = 1u << 20;
constexpr uint64_t kMostThreads = 64;
constexpr uint64_t kMostFiles = 10000;
constexpr uint64_t kMostDepth = 1000;

bool IsDecimal(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Reads decimal digits; false for anything else, and beyond 64 bits.
bool ParseNumber(const std::string& text, uint64_t* number) {
  if (!IsDecimal(text)) return false;
  uint64_t value = 0;
  for (const char digit : text) {
    const uint64_t units = static_cast<uint64_t>(digit - '0');
    if (value > (UINT64_MAX - units) / 10) return false;
    value = value * 10 + units;
  }
  *number = value;
  return true;
}

Status Wrong(const std::string& what) { return Status::Failed(what + kSeeHelp); }

// Reads options one word at a time.
class Parser {
 public:
  Parser(const std::vector<std::string>& words, Options* options)
      : words_(words), options_(options) {}

  Status Run() {
    for (; at_ < words_.size(); ++at_) {
      const std::string& word = words_[at_];
      if (word.empty()) return Wrong("an argument is empty");
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
  // Sets an option from its value, which is empty when there is none.
  struct Valued {
    const char* name;
    Status (Parser::*set)(const std::string& value);
  };

  Status LongOption(const std::string& word) {
    for (const Flag& flag : kFlags)
      if (word == flag.name) {
        options_->*flag.flag = true;
        return Status();
      }
    static const Valued kValued[] = {
        {"--method", &Parser::SetMethod},      {"--format", &Parser::SetFormat},
        {"--forecast", &Parser::SetForecast},  {"--table-memory", &Parser::SetTableMemory},
        {"--memory", &Parser::SetArrayMemory}, {"--threads", &Parser::SetThreads},
        {"--files", &Parser::SetFiles},        {"--depth", &Parser::SetDepth},
        {"--holders", &Parser::SetHolders},
    };
    if (word == "--estimate") return Ask(Question::kEstimate);
    if (word == "--check") return Ask(Question::kCheck);
    if (word == "--no-ring") return LeaveOutRing();
    const size_t equals = word.find('=');
    for (const Valued& valued : kValued)
      if (word.substr(0, equals) == valued.name) return (this->*valued.set)(ValueOf(word, equals));
    return Unknown(word);
  }

  // The value stands behind "=", or is the next word.
  std::string ValueOf(const std::string& word, size_t equals) {
    if (equals != std::string::npos) return word.substr(equals + 1);
    return at_ + 1 < words_.size() ? words_[++at_] : "";
  }

  Status Ask(Question question) {
    if (options_->question != Question::kSizes && options_->question != question)
      return Wrong("--estimate and --check are asked one after the other");
    options_->question = question;
    return Status();
  }

  Status LeaveOutRing() {
    options_->ring = false;
    return Status();
  }

  Status SetThreads(const std::string& value) {
    return SetNumber("--threads", value, 1, kMostThreads, &options_->threads);
  }

  Status SetFiles(const std::string& value) {
    return SetNumber("--files", value, 1, kMostFiles, &options_->files.most);
  }

  Status SetDepth(const std::string& value) {
    return SetNumber("--depth", value, 0, kMostDepth, &options_->files.depth);
  }

  Status SetHolders(const std::string& value) {
    if (value.empty()) return Wrong("--holders needs a path");
    options_->holders = value;
    return Status();
  }

  static Status SetNumber(const std::string& name, const std::string& value, uint32_t least,
                          uint64_t most, uint32_t* number) {
    uint64_t parsed = 0;
    if (!ParseNumber(value, &parsed) || parsed < least || parsed > most)
      return Wrong(name + " is a number from " + std::to_string(least) + " to " +
                   std::to_string(most));
    *number = static_cast<uint32_t>(parsed);
    return Status();
  }

  Status SetMethod(const std::string& value) {
    if (value == "auto")
      options_->method = Method::kAuto;
    else if (value == "scan")
      options_->method = Method::kScan;
    else if (value == "walk")
      options_->method = Method::kWalk;
    else
      return Wrong("--method is auto, scan or walk");
    return Status();
  }

  Status SetFormat(const std::string& value) {
    if (value != "text" && value != "json") return Wrong("--format is text or json");
    options_->json = value == "json";
    return Status();
  }

  Status SetForecast(const std::string& value) {
    if (!options_->forecast.empty()) return Wrong("--forecast is given twice");
    if (value.empty()) return Wrong("--forecast needs subvolume IDs with commas between them");
    for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
      end = value.find(',', begin);
      uint64_t id = 0;
      ENGINE_TRY(ParseSubvolumeId(value.substr(begin, end - begin), &id));
      options_->forecast.push_back(id);
    }
    return Status();
  }

  Status SetTableMemory(const std::string& value) {
    return SetMemory("--table-memory", value, &options_->tableBytes);
  }

  Status SetArrayMemory(const std::string& value) {
    return SetMemory("--memory", value, &options_->arrayBytes);
  }

  static Status SetMemory(const std::string& name, const std::string& value, size_t* bytes) {
    uint64_t mebibytes = 0;
    if (!ParseNumber(value, &mebibytes) || mebibytes == 0 || mebibytes > kMostMiB)
      return Wrong(name + " is a number of MiB from 1 to " + std::to_string(kMostMiB));
    *bytes = size_t{mebibytes} << 20;
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
    if (options_->byId) return Wrong("-r is given twice");
    if (directory.empty() && at_ + 1 < words_.size()) directory = words_[++at_];
    if (directory.empty()) return Wrong("-r needs a directory");
    options_->byId = true;
    options_->directory = directory;
    return Status();
  }

  static Status Unknown(const std::string& word) {
    return Wrong(word + " is neither an option nor a subvolume");
  }

  const std::vector<std::string>& words_;
  Options* options_;
  size_t at_ = 0;
  bool onlyArguments_ = false;
};

// Options that exclude each other, or need another one.
Status CheckTogether(const Options& options) {
  if (!options.forecast.empty() && !options.byId)
    return Wrong("--forecast has subvolume IDs, so it needs -r DIR");
  if (options.json && (options.progress || options.eachSubvolume))
    return Wrong("--format json is one document without lines; leave out -p and -v");
  if (options.files.most > 0 &&
      (options.arguments.size() > 1 || options.table || !options.forecast.empty()))
    return Wrong("--files is about one subvolume, and goes with neither --table nor --forecast");
  if (!options.holders.empty() &&
      (options.files.most > 0 || options.table || !options.forecast.empty()))
    return Wrong("--holders goes with neither --files, --table nor --forecast");
  if (options.question != Question::kSizes &&
      (options.json || options.files.most > 0 || !options.holders.empty() || options.table ||
       !options.forecast.empty()))
    return Wrong(
        "--estimate and --check go with neither --table, --forecast, --files, --holders nor "
        "--format json");
  return Status();
}

// Whether there is a subvolume to ask about, or a question that needs none.
bool HasSubject(const Options& options) {
  if (!options.arguments.empty() || !options.forecast.empty()) return true;
  return options.question != Question::kSizes && options.byId;
}

}  // namespace

const char kVersionLine[] = "zorv btrfs engine 1.0.0\n";

const char kHelpText[] =
    "usage: btrfs subvolume size [-v] [-p] [-m] [OPTION...] PATH...\n"
    "       btrfs subvolume size [-v] [-p] [-m] [OPTION...] -r DIR ID...\n"
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
    "\n"
    "What more to find out:\n"
    "  --forecast ID,ID,...  what comes free when these are deleted in this order: with\n"
    "                        each, so far, and together; also as raw bytes on the devices.\n"
    "                        Needs -r DIR and no further ID.\n"
    "  --table               the bytes of each set of subvolumes that hold them together:\n"
    "                        they come free when the whole set is deleted\n"
    "  --files N             the N largest files behind what one subvolume holds alone, and\n"
    "                        the N largest folders with such files; folders as deep as\n"
    "                        --depth D says (1 when not given: those in its root)\n"
    "  --holders PATH        the versions that PATH (from the root of a subvolume) has in\n"
    "                        these subvolumes, and which of them hold the data of these\n"
    "  --format json         one JSON document in place of lines; without -p and -v\n"
    "  --estimate            say how many bytes a scan reads at least, and end; blocks that\n"
    "                        are the subvolumes' own come on top\n"
    "  --check               say whether a run would work, and if not, why\n"
    "  --stats               say on standard error what the run did\n"
    "\n"
    "How to find it out:\n"
    "  --method M          scan: read the extent tree once; walk: read the blocks that only\n"
    "                      these subvolumes hold; auto (the default): walk while that stays\n"
    "                      small, else scan.  The numbers are the same.\n"
    "  --verify            count in both ways, and fail when they differ\n"
    "  --table-memory MIB  memory for the sets of --table (64 when not given).  Sets beyond\n"
    "                      it are summed up; the output says so.\n"
    "  --memory MIB        memory for large arrays (256 when not given); beyond it they go\n"
    "                      to a temporary file\n"
    "  --threads N         threads that verify and count (one a processor when not given,\n"
    "                      4 at most)\n"
    "  --no-ring           read on threads, also where the system has io_uring\n"
    "\n"
    "examples:\n"
    "  btrfs subvolume size -vm /volume1/photos/.snapshots/*\n"
    "  btrfs subvolume size -vpm -r /volume1 257 258\n"
    "  btrfs subvolume size --forecast 257,258,261 -r /volume1\n"
    "  btrfs subvolume size --table --format json -r /volume1 257 258 261\n"
    "  btrfs subvolume size --files 20 -r /volume1 257\n"
    "  btrfs subvolume size --holders docs/plan.odt -r /volume1 257 258 261\n"
    "  btrfs subvolume size --check -r /volume1\n"
    "\n"
    "Runs on one file system take turns; one that waits says so.\n"
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
  if (!options.help && !options.version) {
    ENGINE_TRY(CheckTogether(options));
    if (!HasSubject(options)) return Wrong("no subvolume is given");
  }
  *out = std::move(options);
  return Status();
}

Status ParseSubvolumeId(const std::string& text, uint64_t* id) {
  if (!IsDecimal(text))
    return Status::Failed("\"" + text + "\" is not a subvolume ID: decimal digits are expected");
  if (!ParseNumber(text, id)) return Status::Failed(text + " is too large for a subvolume ID");
  return Status();
}

}  // namespace ZorvEngine
