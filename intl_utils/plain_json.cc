#include "intl_utils/plain_json.h"

#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <utility>

#include "base/unique_fd.h"

namespace ZorvBtrfsUsage {
namespace {

// Deeper than any document of ours; what is deeper is not plain.
constexpr int kLevels = 16;

// More digits may not fit a 64-bit number, and are then a fraction to the JSON library.
constexpr size_t kDigits = 18;

// The JSON library reads a stream up to this byte, which is in no UTF-8 text.
constexpr char kStreamEnd = '\xFF';

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Walks a text of the plain form. Each operation steps over what it names; false: not plain.
class PlainWalk {
 public:
  explicit PlainWalk(std::string_view text) : text_(text) {}

  bool AtEnd() const { return at_ == text_.size(); }

  // Hands each member to `visit(name, text of the value)`, in order.
  template <typename Visit>
  bool Object(int levels, const Visit& visit) {
    if (levels == 0 || !Char('{')) return false;
    if (Char('}')) return true;
    std::string_view before;
    for (bool first = true; first || Char(','); first = false) {
      std::string_view name;
      if (!String(name) || !Char(':')) return false;
      if (!first && name <= before) return false;  // sorted, and so none twice
      const size_t begin = at_;
      if (!Value(levels - 1)) return false;
      visit(name, text_.substr(begin, at_ - begin));
      before = name;
    }
    return Char('}');
  }

 private:
  bool Char(char c) {
    if (AtEnd() || text_[at_] != c) return false;
    ++at_;
    return true;
  }

  bool Word(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }

  // The bytes between the quotes.
  bool String(std::string_view& out) {
    if (!Char('"')) return false;
    const size_t end = text_.find('"', at_);
    if (end == std::string_view::npos) return false;
    out = text_.substr(at_, end - at_);
    at_ = end + 1;
    return out.find('\\') == std::string_view::npos;
  }

  bool Number() {
    (void)Char('-');
    const size_t begin = at_;
    while (!AtEnd() && IsDigit(text_[at_])) ++at_;
    return at_ > begin && at_ - begin <= kDigits;
  }

  bool Value(int levels) {
    if (AtEnd()) return false;
    std::string_view ignored;
    switch (text_[at_]) {
      case '{':
        return Object(levels, [](std::string_view, std::string_view) {});
      case '"':
        return String(ignored);
      case 'n':
        return Word("null");
      case 't':
        return Word("true");
      case 'f':
        return Word("false");
      default:
        return Number();
    }
  }

  std::string_view text_;
  size_t at_ = 0;
};

// Whole, or false.
bool ReadWhole(const char* path, std::string& text) {
  const UniqueFd fd(open(path, O_RDONLY | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (!fd.Valid() || fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  text.resize(static_cast<size_t>(st.st_size));
  size_t have = 0;
  while (have < text.size()) {
    const ssize_t got = read(fd.Get(), text.data() + have, text.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    have += static_cast<size_t>(got);
  }
  return true;
}

// Adds a member whose value the JSON library makes of its text. False: it refuses it.
bool AddMember(std::string_view name, std::string_view value, Json::Value& members) {
  Json::Value parsed;
  Json::Reader reader;
  if (!reader.parse(value.data(), value.data() + value.size(), parsed, false)) return false;
  members[std::string(name)] = std::move(parsed);
  return true;
}

}  // namespace

bool ParsePlainMembers(std::string_view text, const MemberFilter& wanted, Json::Value& out) try {
  if (text.find(kStreamEnd) != std::string_view::npos) return false;
  Json::Value members(Json::objectValue);
  bool added = true;
  PlainWalk walk(text);
  const bool plain = walk.Object(kLevels, [&](std::string_view name, std::string_view value) {
    if (wanted(name, value)) added = AddMember(name, value, members) && added;
  });
  if (!plain || !walk.AtEnd() || !added) return false;
  out = std::move(members);
  return true;
} catch (const std::exception&) {  // no memory
  return false;
}

bool ReadPlainMembers(const char* path, const MemberFilter& wanted, Json::Value& out) try {
  std::string text;
  return ReadWhole(path, text) && ParsePlainMembers(text, wanted, out);
} catch (const std::exception&) {  // no memory
  return false;
}

}  // namespace ZorvBtrfsUsage
