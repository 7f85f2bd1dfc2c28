// Tables: lines of typed values, printed for people, for scripts, or as JSON.
#ifndef CLI_TABLE_H_
#define CLI_TABLE_H_

#include <json/value.h>
#include <time.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "cli/output_format.h"

namespace ZorvSnapUsage {

// What a text is, where colours can say it.
enum class Tone { kPlain, kGood, kBad, kFaint };

// One value of a line. An empty one, whatever it would have been, reads "-" and null, and comes
// last however the lines are sorted.
class Cell {
 public:
  Cell() = default;

  // In the units that were asked for; JSON always has the number.
  static Cell Bytes(std::optional<unsigned long long> bytes);

  static Cell Number(std::optional<unsigned long long> number);

  // Local time. JSON has it twice: "time" as a text with its zone, "timestamp" in seconds.
  static Cell Time(std::optional<time_t> time);

  // A span of time: "3 d 4 h" for people, seconds for scripts and in JSON.
  static Cell Span(std::optional<long> seconds);

  // "yes" or "no", true or false.
  static Cell Flag(std::optional<bool> flag);

  // A word or a name; escaped where it is printed. `note`, such as "deleted", stands behind it in
  // brackets, in tables only, and not behind names for scripts. An empty text is an unknown one.
  static Cell Text(std::string text, Tone tone = Tone::kPlain, std::string note = "");

 private:
  friend class Table;

  enum class Kind { kNothing, kBytes, kNumber, kTime, kSpan, kFlag, kText };
  using Value = std::variant<unsigned long long, long long, std::string>;

  Cell(Kind kind, std::optional<Value> value) : kind_(kind), value_(std::move(value)) {}

  unsigned long long AsNumber() const { return std::get<unsigned long long>(*value_); }
  long AsSeconds() const { return static_cast<long>(std::get<long long>(*value_)); }
  const std::string& AsText() const { return std::get<std::string>(*value_); }

  std::string ValueShown(const OutputFormat& format) const;
  std::string Shown(const OutputFormat& format) const;
  void AddTo(Json::Value& row, const std::string& key) const;

  Kind kind_ = Kind::kNothing;
  std::optional<Value> value_;
  Tone tone_ = Tone::kPlain;
  std::string note_;
};

// One column. The last one of a table is that of names: on the left, of any length.
struct Column {
  enum class Side { kRight, kLeft };

  std::string key;    // for --sort, and the member in JSON: "running_total"
  std::string title;  // of the header: "RUNNING TOTAL"; empty: the column is in JSON only
  Side side = Side::kRight;
};

using Columns = std::vector<Column>;

// Nothing when no column has this key.
const Column* FindColumn(const Columns& columns, const std::string& key);

class Table {
 public:
  explicit Table(Columns columns);

  // A line: as many cells as there are columns, in their order.
  void Add(std::vector<Cell> line);

  bool IsEmpty() const { return lines_.empty(); }

  // The lines as `format` says, without JSON. Lines that are equal in the column that is sorted by
  // keep the order in which they were added.
  std::string Text(const OutputFormat& format) const;

  // The lines in the same order as an array of objects, one member for each column.
  Json::Value Rows(const OutputFormat& format) const;

 private:
  using Line = std::vector<Cell>;

  std::vector<const Line*> Sorted(const OutputFormat& format) const;

  const Columns columns_;
  std::vector<Line> lines_;
};

}  // namespace ZorvSnapUsage

#endif  // CLI_TABLE_H_
