#include "cli/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "cli/json_output.h"
#include "cli/text.h"
#include "cli/time_text.h"

namespace ZorvSnapUsage {
namespace {

constexpr char kUnknown[] = "-";
constexpr char kGap[] = "  ";

// A text of the table as it is laid out: its width counts without the colour.
struct Field {
  std::string text;
  Tone tone = Tone::kPlain;
};

// The control sequence that begins a tone (ECMA-48, SGR); empty for none.
const char* BeginOf(Tone tone) {
  switch (tone) {
    case Tone::kGood:
      return "\033[32m";
    case Tone::kBad:
      return "\033[31m";
    case Tone::kFaint:
      return "\033[2m";
    default:
      return "";
  }
}

constexpr char kBold[] = "\033[1m";
constexpr char kEnd[] = "\033[0m";

std::string Colored(const Field& field, bool color) {
  const char* const begin = BeginOf(field.tone);
  return color && *begin != '\0' ? begin + field.text + kEnd : field.text;
}

std::string Padded(const Field& field, size_t width, Column::Side side, bool color) {
  const std::string padding(width - ColumnsAtMost(field.text), ' ');
  const std::string text = Colored(field, color);
  return side == Column::Side::kRight ? padding + text : text + padding;
}

// Lines for scripts.
std::string Tabbed(const std::vector<std::vector<Field>>& lines) {
  std::string text;
  for (const std::vector<Field>& line : lines) {
    for (const Field& field : line) text += (&field == &line.front() ? "" : "\t") + field.text;
    text += '\n';
  }
  return text;
}

// Lines for people, the first one being the header. The last column has no width of its own.
std::string Aligned(const std::vector<std::vector<Field>>& lines,
                    const std::vector<Column::Side>& sides, bool color) {
  const size_t last = sides.size() - 1;
  std::vector<size_t> widths(last, 0);
  for (const std::vector<Field>& line : lines)
    for (size_t i = 0; i < last; ++i) widths[i] = std::max(widths[i], ColumnsAtMost(line[i].text));
  std::string text;
  for (const std::vector<Field>& line : lines) {
    const bool bold = color && &line == &lines.front();
    text += bold ? kBold : "";
    for (size_t i = 0; i < last; ++i) text += Padded(line[i], widths[i], sides[i], color) + kGap;
    text += Colored(line[last], color) + (bold ? kEnd : "") + '\n';
  }
  return text;
}

}  // namespace

Cell Cell::Bytes(std::optional<unsigned long long> bytes) { return Cell(Kind::kBytes, bytes); }

Cell Cell::Number(std::optional<unsigned long long> number) { return Cell(Kind::kNumber, number); }

Cell Cell::Time(std::optional<time_t> time) {
  Cell cell(Kind::kTime, std::nullopt);
  if (time) cell.value_ = static_cast<long long>(*time);
  return cell;
}

Cell Cell::Span(std::optional<long> seconds) {
  Cell cell(Kind::kSpan, std::nullopt);
  if (seconds) cell.value_ = static_cast<long long>(*seconds);
  return cell;
}

Cell Cell::Flag(std::optional<bool> flag) {
  Cell cell(Kind::kFlag, std::nullopt);
  if (flag) cell.value_ = *flag ? 1ull : 0ull;
  return cell;
}

Cell Cell::Text(std::string text, Tone tone, std::string note) {
  Cell cell(Kind::kText, std::nullopt);
  if (!text.empty()) cell.value_ = std::move(text);
  cell.tone_ = tone;
  cell.note_ = std::move(note);
  return cell;
}

std::string Cell::ValueShown(const OutputFormat& format) const {
  if (!value_) return kUnknown;
  switch (kind_) {
    case Kind::kBytes:
      return BytesText(AsNumber(), format.ShownUnits());
    case Kind::kTime:
      return format.plain ? TimeForPrograms(AsSeconds()) : TimeForPeople(AsSeconds());
    case Kind::kSpan:
      return format.plain ? std::to_string(AsSeconds()) : SpanText(AsSeconds());
    case Kind::kFlag:
      return AsNumber() != 0 ? "yes" : "no";
    case Kind::kText:
      return Escaped(AsText());
    default:
      return std::to_string(AsNumber());
  }
}

std::string Cell::Shown(const OutputFormat& format) const {
  if (note_.empty()) return ValueShown(format);
  const std::string note = fmt::format("({})", note_);
  return value_ ? ValueShown(format) + " " + note : note;
}

void Cell::AddTo(Json::Value& row, const std::string& key) const {
  if (kind_ == Kind::kTime) {
    SetTime(row, key, value_ ? std::optional<time_t>(AsSeconds()) : std::nullopt);
    return;
  }
  Json::Value& member = row[key] = Json::Value();
  if (!value_) return;
  if (kind_ == Kind::kText)
    member = ValidUtf8(AsText());
  else if (kind_ == Kind::kFlag)
    member = AsNumber() != 0;
  else if (kind_ == Kind::kSpan)
    member = Json::Int64{AsSeconds()};
  else
    member = Json::UInt64{AsNumber()};
}

const Column* FindColumn(const Columns& columns, const std::string& key) {
  for (const Column& column : columns)
    if (column.key == key) return &column;
  return nullptr;
}

Table::Table(Columns columns) : columns_(std::move(columns)) {}

void Table::Add(std::vector<Cell> line) { lines_.push_back(std::move(line)); }

std::vector<const Table::Line*> Table::Sorted(const OutputFormat& format) const {
  std::vector<const Line*> sorted;
  for (const Line& line : lines_) sorted.push_back(&line);
  const Column* const column = format.sort ? FindColumn(columns_, format.sort->key) : nullptr;
  if (column == nullptr) return sorted;
  const size_t at = static_cast<size_t>(column - columns_.data());
  std::stable_sort(sorted.begin(), sorted.end(), [&](const Line* one, const Line* other) {
    const Cell& a = (*one)[at];
    const Cell& b = (*other)[at];
    if (!a.value_ || !b.value_) return a.value_.has_value() && !b.value_;
    return format.sort->descending ? b.value_ < a.value_ : a.value_ < b.value_;
  });
  return sorted;
}

std::string Table::Text(const OutputFormat& format) const {
  std::vector<size_t> shown;
  std::vector<Column::Side> sides;
  std::vector<Field> header;
  for (size_t i = 0; i < columns_.size(); ++i) {
    if (columns_[i].title.empty()) continue;
    shown.push_back(i);
    sides.push_back(columns_[i].side);
    header.push_back({columns_[i].title});
  }
  std::vector<std::vector<Field>> lines;
  if (!format.plain) lines.push_back(header);
  for (const Line* line : Sorted(format)) {
    lines.emplace_back();
    for (const size_t i : shown) {
      const Cell& cell = (*line)[i];
      // Scripts would take what stands behind a name for a part of it.
      const bool nameAlone = format.plain && i == shown.back();
      lines.back().push_back(
          {nameAlone ? cell.ValueShown(format) : cell.Shown(format), cell.tone_});
    }
  }
  return format.plain ? Tabbed(lines) : Aligned(lines, sides, format.color);
}

Json::Value Table::Rows(const OutputFormat& format) const {
  Json::Value rows(Json::arrayValue);
  for (const Line* line : Sorted(format)) {
    Json::Value row(Json::objectValue);
    for (size_t i = 0; i < columns_.size(); ++i) (*line)[i].AddTo(row, columns_[i].key);
    rows.append(row);
  }
  return rows;
}

}  // namespace ZorvSnapUsage
