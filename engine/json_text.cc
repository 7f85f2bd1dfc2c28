#include "engine/json_text.h"

namespace ZorvEngine {

void JsonText::Value() {
  if (!first_ && !afterKey_) piece_ += ',';
  if (newLine_) piece_ += '\n';
  first_ = afterKey_ = newLine_ = false;
  if (piece_.size() >= kPieceBytes) HandOn();
}

void JsonText::HandOn() {
  if (!failed_ && !sink_(piece_)) failed_ = true;
  piece_.clear();
}

JsonText& JsonText::Begin(char bracket) {
  Value();
  piece_ += bracket;
  first_ = true;
  return *this;
}

JsonText& JsonText::End(char bracket) {
  piece_ += bracket;
  first_ = false;
  return *this;
}

JsonText& JsonText::Key(const char* name) {
  Value();
  piece_ += '"';
  piece_ += name;
  piece_ += "\":";
  afterKey_ = true;
  return *this;
}

JsonText& JsonText::Number(uint64_t number) {
  Value();
  piece_ += std::to_string(number);
  return *this;
}

JsonText& JsonText::Word(const std::string& text) {
  Value();
  piece_ += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') piece_ += '\\';
    piece_ += c;
  }
  piece_ += '"';
  return *this;
}

JsonText& JsonText::Bool(bool value) {
  Value();
  piece_ += value ? "true" : "false";
  return *this;
}

JsonText& JsonText::NewLine() {
  newLine_ = true;
  return *this;
}

bool JsonText::Finish() {
  piece_ += '\n';
  HandOn();
  return !failed_;
}

}  // namespace ZorvEngine
