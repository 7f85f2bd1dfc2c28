#include "cli/help.h"

#include <CLI/CLI.hpp>
#include <memory>

namespace ZorvSnapUsage {
namespace {

constexpr size_t kDescriptionColumn = 24;

// Behind an option stands what it takes, and nothing of what else it needs or excludes.
class Style : public CLI::Formatter {
 public:
  Style() { column_width(kDescriptionColumn); }

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
