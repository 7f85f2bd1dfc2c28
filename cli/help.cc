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

  // What comes first stands right below the usage, so that the longest help and a prompt fit a
  // screen of 24 lines.
  std::string make_positionals(const CLI::App* app) const override {
    const std::string text = CLI::Formatter::make_positionals(app);
    return text.substr(text.find_first_not_of('\n') == 1 ? 1 : 0);
  }
  std::string make_usage(const CLI::App* app, std::string name) const override {
    const std::string text = CLI::Formatter::make_usage(app, name);
    return make_positionals(app).empty() ? text.substr(0, text.size() - 1) : text;
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
