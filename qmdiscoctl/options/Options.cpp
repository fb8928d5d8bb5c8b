#include "Options.h"

#include <algorithm>

#include "CommandLine.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// A message of the parser as one line. It may quote an argument. Its backslashes stay, because
/// this program's own escapes use them.
std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    std::string result;
    std::size_t from = 0;
    for (std::size_t to = 0; (to = text.find('\\', from)) != std::string::npos; from = to + 1)
        result += escaped(text.substr(from, to - from)) + '\\';
    return result + escaped(text.substr(from));
}

/// The mistake in a command line that the parser refused.
std::string problemOf(const CLI::App& app, const CLI::ParseError& error)
{
    const bool commandFound = !app.get_subcommands().empty();
    if (commandFound || dynamic_cast<const CLI::RequiredError*>(&error) == nullptr)
        return oneLine(error.what());
    const std::vector<std::string> unknown = app.remaining();
    return (unknown.empty() ? "a command is expected"
                            : "there is no command or option " + quoted(unknown.front())) +
           "; the commands are " + CommandLine::commandNames();
}

ParsedOptions refusal(const std::string& why)
{
    return {{}, EC_USAGE, "qmdiscoctl: " + why + " (\"qmdiscoctl --help\" shows the options)\n"};
}

} // namespace

const char* version()
{
    return QM_VERSION;
}

ParsedOptions parseOptions(int argc, const char* const* argv)
{
    CommandLine line;
    try {
        line.app().parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return {{}, EC_OK, line.app().help()};
    } catch (const CLI::CallForVersion& wanted) {
        return {{}, EC_OK, std::string(wanted.what()) + "\n"};
    } catch (const CLI::ParseError& error) {
        return refusal(problemOf(line.app(), error));
    }
    if (const std::string twice = line.givenTwice(); !twice.empty())
        return refusal(twice + ": given more than once");
    return {line.options(), {}, {}};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
