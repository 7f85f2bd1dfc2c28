// json_text.h: writes a JSON document piece by piece, so that its length costs no memory.
#ifndef ENGINE_JSON_TEXT_H_
#define ENGINE_JSON_TEXT_H_

#include <cstdint>
#include <functional>
#include <string>

namespace ZorvEngine {

// A document under construction: puts the commas, and hands the text on when there is enough of it.
// Texts are printable ASCII: the engine's own words, and what NameText makes.
class JsonText {
 public:
  // Takes the next piece of the document; false: nothing more is wanted.
  using Sink = std::function<bool(const std::string& piece)>;

  explicit JsonText(Sink sink) : sink_(std::move(sink)) {}

  // Each returns the object, so that calls can follow each other.
  JsonText& Begin(char bracket);  // '{' or '['
  JsonText& End(char bracket);    // '}' or ']'
  JsonText& Key(const char* name);
  JsonText& Number(uint64_t number);
  JsonText& Word(const std::string& text);
  JsonText& Bool(bool value);
  JsonText& NewLine();  // between two values, where a reader likes one

  // Ends the document with a line end and hands on the rest.  False when the sink was, at any time.
  bool Finish();

 private:
  void Value();  // what comes before each value
  void HandOn();

  static constexpr size_t kPieceBytes = 64u << 10;

  Sink sink_;
  std::string piece_;
  bool first_ = true;  // in the innermost brackets
  bool afterKey_ = false;
  bool newLine_ = false;
  bool failed_ = false;
};

}  // namespace ZorvEngine

#endif  // ENGINE_JSON_TEXT_H_
