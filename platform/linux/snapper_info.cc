#include "platform/linux/snapper_info.h"

#include <expat.h>
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "platform/linux/read_file.h"
#include "platform/linux/snap_name.h"

namespace ZorvPlatform {

namespace {

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<XML_ParserStruct, ParserFree>;

// One element below the outermost whose text counts.
struct Field {
  const char* name;
  std::string text;
  bool seen = false;
};

// No file of snapper's nests further than <snapshot><userdata><key>; deeper ones cost memory.
constexpr int kMostDepth = 8;

// What the parser's callbacks gather.  They are called from C: nothing may be thrown through it.
class Gathering {
 public:
  explicit Gathering(XML_Parser parser) : parser_(parser) {}

  const std::string& Text(size_t field) const { return fields_[field].text; }
  bool Seen(size_t field) const { return fields_[field].seen; }
  const char* Refusal() const { return refusal_; }
  bool NoMemory() const { return noMemory_; }

  static void XMLCALL Begin(void* self, const XML_Char* name, const XML_Char**) {
    static_cast<Gathering*>(self)->BeginElement(name);
  }
  static void XMLCALL End(void* self, const XML_Char*) {
    static_cast<Gathering*>(self)->EndElement();
  }
  static void XMLCALL Characters(void* self, const XML_Char* text, int length) {
    static_cast<Gathering*>(self)->AddText(text, static_cast<size_t>(length));
  }
  static void XMLCALL Doctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<Gathering*>(self)->Refuse("has a document type");
  }

 private:
  void Refuse(const char* refusal) {
    refusal_ = refusal;
    (void)XML_StopParser(parser_, XML_FALSE);
  }

  void BeginElement(const char* name) {
    ++depth_;
    if (depth_ == 1 && strcmp(name, "snapshot") != 0) return Refuse("is not a snapshot's");
    if (depth_ > kMostDepth) return Refuse("is nested too deeply");
    if (depth_ != 2) return;
    for (Field& field : fields_) {
      if (strcmp(name, field.name) != 0) continue;
      if (field.seen) return Refuse("says something twice");
      field.seen = true;
      open_ = &field;
    }
  }

  void EndElement() {
    if (depth_ == 2) open_ = nullptr;
    --depth_;
  }

  void AddText(const char* text, size_t length) {
    if (open_ == nullptr || depth_ != 2) return;
    try {
      open_->text.append(text, length);
    } catch (const std::bad_alloc&) {
      noMemory_ = true;
      (void)XML_StopParser(parser_, XML_FALSE);
    }
  }

  XML_Parser parser_;
  std::array<Field, 4> fields_ = {
      Field{"num", {}}, {"date", {}}, {"type", {}}, {"description", {}}};
  Field* open_ = nullptr;
  int depth_ = 0;
  const char* refusal_ = nullptr;
  bool noMemory_ = false;
};

enum : size_t { kNumber, kDate, kType, kDescription };

// "2024-03-05 09:04:09", in UTC.
bool ReadDate(const std::string& text, time_t* time) {
  constexpr char kShape[] = "dddd-dd-dd dd:dd:dd";
  std::string name = "GMT-";
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (i >= sizeof kShape - 1 || (kShape[i] == 'd' ? !digit : text[i] != kShape[i])) return false;
    name += digit ? text[i] : kShape[i] == ' ' ? '-' : '.';
  }
  SnapName read;
  if (!ReadSnapName(name.c_str(), &read)) return false;
  *time = read.time;
  return true;
}

bool IsType(const std::string& text) { return text == "single" || text == "pre" || text == "post"; }

bool Interpret(const Gathering& gathering, SnapperInfo* info, std::string* why) {
  SnapperInfo read;
  read.number = ReadSnapNumber(gathering.Text(kNumber).c_str());
  read.type = gathering.Text(kType);
  read.description = gathering.Text(kDescription);
  if (read.number == 0) {
    *why = "has no number";
  } else if (!IsType(read.type)) {
    *why = "has no type that is known";
  } else if (!ReadDate(gathering.Text(kDate), &read.time)) {
    *why = "has no date";
  } else {
    *info = std::move(read);
    return true;
  }
  return false;
}

}  // namespace

bool ReadSnapperInfo(const std::string& xml, SnapperInfo* info, std::string* why) {
  const Parser parser(XML_ParserCreate(nullptr));
  if (parser == nullptr) throw std::bad_alloc();
  Gathering gathering(parser.get());
  XML_SetUserData(parser.get(), &gathering);
  XML_SetElementHandler(parser.get(), Gathering::Begin, Gathering::End);
  XML_SetCharacterDataHandler(parser.get(), Gathering::Characters);
  XML_SetStartDoctypeDeclHandler(parser.get(), Gathering::Doctype);

  const bool parsed = XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()),
                                /*isFinal=*/1) == XML_STATUS_OK;
  const XML_Error error = XML_GetErrorCode(parser.get());
  if (gathering.NoMemory() || error == XML_ERROR_NO_MEMORY) throw std::bad_alloc();
  if (parsed) return Interpret(gathering, info, why);
  const char* what = gathering.Refusal() != nullptr ? gathering.Refusal() : XML_ErrorString(error);
  *why =
      std::string(what) + " (line " + std::to_string(XML_GetCurrentLineNumber(parser.get())) + ")";
  return false;
}

bool ReadSnapperInfoIn(int directory, uint64_t number, SnapperInfo* info, std::string* why) {
  std::string xml;
  if (!ReadRegularFile(directory, kSnapperInfoFile, O_NOFOLLOW, kMostSnapperInfoBytes, &xml)) {
    *why = std::string(kSnapperInfoFile) + " cannot be read: " + strerror(errno);
    return false;
  }
  SnapperInfo read;
  if (!ReadSnapperInfo(xml, &read, why)) {
    *why = std::string(kSnapperInfoFile) + ": " + *why;
    return false;
  }
  if (read.number != number) {
    *why = std::string(kSnapperInfoFile) + " is that of number " + std::to_string(read.number);
    return false;
  }
  *info = std::move(read);
  return true;
}

}  // namespace ZorvPlatform
