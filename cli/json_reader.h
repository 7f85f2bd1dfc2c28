// Reads a JSON document from its beginning to its end, without keeping it: tables may have millions
// of numbers.
#ifndef CLI_JSON_READER_H_
#define CLI_JSON_READER_H_

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ZorvSnapUsage {

// What is wrong with a document, and where.
class JsonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The caller says what comes next and gets it; anything else throws JsonError. Of JSON (RFC 8259)
// everything is understood, but only numbers that are whole, without sign or exponent, and below
// 2^64 can be asked for, and texts without \u, which may be skipped alone.
class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : rest_(text), all_(text.size()) {}

  // Calls `member` with the name of each; it reads the value, or skips it. A name that comes twice
  // is an error.
  void Object(const std::function<void(const std::string& name)>& member);

  // How the values of an object's members are read, by their names.
  using Readers = std::map<std::string, std::function<void()>>;

  // Reads an object that has all `required` members, may have `optional` ones, and others that are
  // skipped.
  void Members(const Readers& required, const Readers& optional = {});

  // Calls `element` for each; it reads the value.
  void Array(const std::function<void()>& element);

  unsigned long long Number();
  std::string Text();
  bool Bool();

  // Any value.
  void Skip();

  // Nothing but white space is left.
  void End();

  // Gives up at this place.
  [[noreturn]] void Wrong(const std::string& what) const;

 private:
  char Peek();
  bool TakeIf(char character);
  void Take(char character);
  bool TakeWord(std::string_view word);
  void SkipText();
  void SkipNumber();
  void SkipDigits();
  void Enter();

  std::string_view rest_;
  const size_t all_;
  unsigned depth_ = 0;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_JSON_READER_H_
