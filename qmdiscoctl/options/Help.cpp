#include "Help.h"

#include <sstream>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::size_t COLUMNS = 80;
constexpr std::size_t NAME_COLUMNS = 22;

/// One line of the help: a name and its description.
std::string entry(const std::string& name, const std::string& description)
{
    const std::string indent(NAME_COLUMNS, ' ');
    std::string text = "  " + name;
    std::size_t column = text.size();
    if (column + 1 >= NAME_COLUMNS) {
        text += "\n";
        column = 0;
    }
    text.append(NAME_COLUMNS - column, ' ');
    column = NAME_COLUMNS;
    std::istringstream words(description);
    for (std::string word; words >> word;) {
        if (column > NAME_COLUMNS && column + 1 + word.size() >= COLUMNS) {
            text += "\n" + indent;
            column = NAME_COLUMNS;
        } else if (column > NAME_COLUMNS) {
            text += ' ';
            ++column;
        }
        text += word;
        column += word.size();
    }
    return text + "\n";
}

} // namespace

HelpFormatter::HelpFormatter()
{
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
    column_width(NAME_COLUMNS);
}

std::string HelpFormatter::make_help(const CLI::App* app, std::string name,
                                     CLI::AppFormatMode mode) const
{
    std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    for (std::size_t at = 0; (at = text.find("\n\n\n")) != std::string::npos;)
        text.erase(at, 1);
    return text;
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    return entry(make_option_name(option, isPositional) + make_option_opts(option),
                 make_option_desc(option));
}

std::string HelpFormatter::make_option_opts(const CLI::Option* option) const
{
    const std::string type = option->get_type_name();
    return option->get_type_size() == 0 || type.empty() ? "" : " " + type;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
