#include "cli/help.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ZorvSnapUsage {
namespace {

constexpr size_t kDescriptionColumn = 24;
constexpr size_t kDescriptionColumns = 80 - kDescriptionColumn;

// The words in lines of so many columns, the texts being of ASCII.
std::string Wrapped(const std::string& text, size_t columns) {
  std::istringstream words(text);
  std::string wrapped;
  size_t used = 0;
  for (std::string word; words >> word; used += word.size()) {
    const bool fits = used + 1 + word.size() <= columns;
    if (!wrapped.empty()) wrapped += fits ? ' ' : '\n';
    used = fits && !wrapped.empty() ? used + 1 : 0;
    wrapped += word;
  }
  return wrapped;
}

// Behind an option stands what it takes, and nothing of what else it needs or excludes.
class Style : public CLI::Formatter {
 public:
  Style() { column_width(kDescriptionColumn); }

  // Sections stand right below the usage and each other, so that the longest help and a prompt fit
  // a screen of 24 lines.
  std::string make_group(std::string group, bool isPositional,
                         std::vector<const CLI::Option*> options) const override {
    return CLI::Formatter::make_group(group, isPositional, options).substr(1);
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    return Wrapped(option->get_description(), kDescriptionColumns);
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return option->get_type_size() == 0 || type.empty() ? "" : " " + type;
  }
};

}  // namespace

void SetHelpStyle(CLI::App& program) {
  program.formatter(std::make_shared<Style>());
  program.get_help_ptr()->description("Print this help");
}

}  // namespace ZorvSnapUsage
