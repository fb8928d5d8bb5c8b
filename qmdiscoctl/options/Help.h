#pragma once
// The form of --help.

#include <CLI/CLI.hpp>

namespace Veltrane::Quillmark::Qmdiscoctl {

/// The parser's formatter, with lines that fit a terminal of 80 columns and one blank line between
/// groups. The usage line shows the required arguments.
class HelpFormatter : public CLI::Formatter
{
  public:
    HelpFormatter();
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
