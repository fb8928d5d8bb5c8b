#include "Options.h"

#include <CLI/CLI.hpp>

namespace Veltrane::Quillmark::Qmdisco {

namespace {

std::string checkLogLevel(const std::string& text)
{
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '9')
        return {};
    return "a number from 0 to 9 is expected, not \"" + text + "\"";
}

std::string checkRoot(const std::string& text)
{
    return text.empty() ? "a directory is expected, not an empty name" : "";
}

/// Returns a message of the parser as one line.
std::string oneLine(std::string text)
{
    for (char& c : text)
        if (c == '\n')
            c = ' ';
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

} // namespace

const char* version()
{
    return QM_VERSION;
}

Result<Options> parseOptions(int argc, const char* const* argv)
{
    Options options;
    int logLevel = 0;

    CLI::App app("Runs the discovery service of this host.", "qmdisco");
    app.add_flag("--foreground", options.foreground,
                 "Do not detach; the log goes to standard error, too");
    app.add_option("--root", options.root,
                   "The product root (otherwise QUILLMARK_ROOT, otherwise /usr/varix/quillmark)")
        ->type_name("DIR")
        ->check(checkRoot, "");
    app.add_flag("--check-config", options.checkConfig,
                 "Report every problem in etc/qm.conf, and do no more");
    const CLI::Option* level =
        app.add_option(
               "--log-level", logLevel,
               "0 (nothing) to 9; goes before LOG_LEVEL of etc/qm.conf, which goes before 1")
            ->type_name("N")
            ->check(checkLogLevel, "");
    app.set_version_flag("--version", std::string("qmdisco ") + version());
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.footer(
        "Signals:\n"
        "  SIGTERM, SIGINT  stop in order\n"
        "  SIGHUP           read etc/qm.conf anew: LOG_LEVEL, LOG_SEVERITY, LOG_BURST,\n"
        "                   STOP_LIMIT, ALLOW.* and MAX_REMOTE_PRIORITY; and the files of TLS\n\n" +
        exitCodeTable());

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return tl::unexpected(Failure{EC_OK, app.help()});
    } catch (const CLI::CallForVersion& wanted) {
        return tl::unexpected(Failure{EC_OK, std::string(wanted.what()) + "\n"});
    } catch (const CLI::ParseError& error) {
        return tl::unexpected(Failure{EC_USAGE, "qmdisco: " + oneLine(error.what()) +
                                                    " (\"qmdisco --help\" shows the options)\n"});
    }
    if (level->count() > 0)
        options.logLevel = logLevel;
    return options;
}

} // namespace Veltrane::Quillmark::Qmdisco
