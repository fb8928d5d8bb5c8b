#include "CommandLine.h"

#include <iterator>
#include <limits>
#include <memory>

#include "Help.h"
#include "Names.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::uint64_t MAX_SECONDS = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t MAX_RECORDS_PER_PAGE = 100000;
constexpr std::uint64_t MAX_WAIT = 86400;

/// Every command, in the order of the help.
constexpr struct CommandRow
{
    Command command;
    const char* name;
    const char* group;
    const char* description;
} COMMANDS[] = {
    {Command::PUT, "put", "Data", "Store the data of a file as a discovery"},
    {Command::QUERY, "query", "Data", "List discoveries"},
    {Command::GET, "get", "Data", "Read the data of a discovery"},
    {Command::ITEMS, "items", "Discovered items", "List discovered items, such as file systems"},
    {Command::CLIENTS, "clients", "Discovered items",
     "List the hosts that published what a filter may ask about"},
    {Command::FILTERS, "filters", "Discovered items",
     "List the fields that a filter of items may use"},
    {Command::STATUS, "status", "Service", "Show the state of the service"},
    {Command::EXPLORERS, "explorers", "Service", "List the explorers registered on this host"},
    {Command::REFRESH, "refresh", "Service", "Make the service's explorers look again"},
    {Command::STOP, "stop", "Service", "Stop the service in order"},
};

/// The options of every command. Each may stand before the command or after it.
constexpr const char* HOST = "--host";
constexpr const char* ROOT = "--root";
constexpr const char* JSON = "--json";

// Groups of the help.
constexpr const char* WHICH_SERVICE = "Which service";
constexpr const char* DISCOVERY = "Discovery";
constexpr const char* OUTPUT = "Output";
constexpr const char* TRANSFER = "Transfer";
constexpr const char* WAITING = "Waiting";
constexpr const char* HELP = "Help";

} // namespace

CommandLine::CommandLine()
    : m_app("Stores, queries and reads discoveries of a discovery service.", "qmdiscoctl")
{
    // Commands inherit the formatter, so it comes first.
    m_app.formatter(std::make_shared<HelpFormatter>());
    m_app.footer(exitCodeTable());
    m_app.require_subcommand(1);
    addPut();
    addQuery();
    addGet();
    addItems();
    addClients();
    addCommon(addCommand(Command::FILTERS));
    addCommon(addCommand(Command::STATUS));
    addCommon(addCommand(Command::EXPLORERS));
    addRefresh();
    addStop();
    addCommon(&m_app);
    m_app
        .set_version_flag("--version", std::string("qmdiscoctl ") + version(),
                          "Print the version and exit")
        ->group(HELP);
}

CLI::App* CommandLine::addCommand(Command command)
{
    CLI::App* app = nullptr;
    for (const CommandRow& row : COMMANDS)
        if (row.command == command)
            app = m_app.add_subcommand(row.name, row.description)->group(row.group);
    m_commands.push_back({app, command});
    return app;
}

CLI::Option* CommandLine::addText(CLI::App* app, const char* name, std::string& into,
                                  const char* typeName, const std::string& description,
                                  const Check& check)
{
    return app->add_option(name, into, description)->type_name(typeName)->check(check, "");
}

void CommandLine::addCommon(CLI::App* app)
{
    addText(app, HOST, m_options.host, "HOST",
            "The host of the service: HOST, HOST:PORT or [IPV6]:PORT (default: SERVER in "
            "etc/qm.conf, or else this host)",
            checkHost)
        ->group(WHICH_SERVICE);
    addText(app, ROOT, m_options.root, "DIR",
            "The product root (default: QUILLMARK_ROOT, or else /usr/varix/quillmark)", checkRoot)
        ->group(WHICH_SERVICE);
    app->add_flag(JSON, m_options.json, "Print JSON for programs, not text for people")
        ->group(OUTPUT)
        ->disable_flag_override();
    app->set_help_flag("--help,-h", "Print this help and exit")->group(HELP);
}

void CommandLine::addNames(CLI::App* app)
{
    addText(app, "SUBJECT", m_options.subject, "", "What the discovery is about, usually a host",
            checkName)
        ->required();
    addText(app, "AUTHORITY", m_options.authority, "", "Who made the discovery", checkName)
        ->required();
}

void CommandLine::addPatterns(CLI::App* app)
{
    addText(app, "--subject", m_options.subject, "P",
            "Only subjects that match; * is any text, ? any character (default: *)", checkUtf8)
        ->group(DISCOVERY);
    addText(app, "--authority", m_options.authority, "P",
            "Only authorities that match; * is any text, ? any character (default: *)", checkUtf8)
        ->group(DISCOVERY);
}

void CommandLine::addType(CLI::App* app, const std::string& standard)
{
    addText(app, "--type", m_texts.type, "T",
            "The authority's type: " + authorityTypeNames() + " (default: " + standard + ")",
            checkType)
        ->group(DISCOVERY);
}

void CommandLine::addQueryType(CLI::App* app)
{
    addText(app, "--query-type", m_texts.queryType, "Q",
            queryTypeNames() +
                " (default: discovery). The store keeps no query type and does not select by it: "
                "different kinds of data of one host need different subjects",
            checkQueryType)
        ->group(DISCOVERY);
}

void CommandLine::addPut()
{
    CLI::App* app = addCommand(Command::PUT);
    addNames(app);
    addText(app, "FILE", m_options.input, "", "The file with the data; - is standard input",
            checkFile)
        ->required();
    addType(app, "extsrc");
    addText(app, "--priority", m_texts.priority, "N",
            "Only a discovery of the same or a higher priority replaces a stored one (default: 0)",
            numberUpTo(0, std::numeric_limits<std::uint32_t>::max()))
        ->group(DISCOVERY);
    addText(app, "--ttl", m_texts.timeToLive, "SECONDS",
            "Time to live. The service keeps a discovery 1.25 times as long, and with 0 for ever "
            "(default: 0)",
            numberUpTo(0, MAX_SECONDS))
        ->group(DISCOVERY);
    addQueryType(app);
    addCommon(app);
}

void CommandLine::addQuery()
{
    CLI::App* app = addCommand(Command::QUERY);
    addPatterns(app);
    addType(app, "anyandall");
    addQueryType(app);
    addText(app, "--page-size", m_texts.recordsPerPage, "N",
            "How many discoveries one reply carries (default: 1024)",
            numberUpTo(1, MAX_RECORDS_PER_PAGE))
        ->group(TRANSFER);
    addCommon(app);
}

void CommandLine::addGet()
{
    CLI::App* app = addCommand(Command::GET);
    addNames(app);
    addType(app, "anyandall");
    addText(app, "--filter", m_options.filter, "F",
            "Passed to the service that has the data (default: empty)", checkUtf8)
        ->group(DISCOVERY);
    addText(app, "-o,--output", m_options.output, "FILE",
            "Write the data to this file, completely or not at all (default: standard output)",
            checkFile)
        ->group(OUTPUT);
    addCommon(app);
}

void CommandLine::addItems()
{
    CLI::App* app = addCommand(Command::ITEMS);
    addPatterns(app);
    addText(app, "--filter", m_options.filter, "EXPR",
            "Only items that match, as in 'size > 10G and not readonly' (\"qmdiscoctl filters\" "
            "lists the fields)",
            checkFilter)
        ->group(DISCOVERY);
    addCommon(app);
}

void CommandLine::addClients()
{
    CLI::App* app = addCommand(Command::CLIENTS);
    app->add_flag("--registered", m_options.registered,
                  "List instead the explorers of other hosts that the master can pull from")
        ->group(DISCOVERY)
        ->disable_flag_override();
    addCommon(app);
}

void CommandLine::addRefresh()
{
    CLI::App* app = addCommand(Command::REFRESH);
    app->add_flag("--all", m_options.all,
                  "The explorers of every host. Only the master's service can do this")
        ->group(WHICH_SERVICE)
        ->disable_flag_override();
    addCommon(app);
}

void CommandLine::addStop()
{
    CLI::App* app = addCommand(Command::STOP);
    CLI::Option* wait = addText(app, "--wait", m_texts.wait, "SECONDS",
                                "How long to wait until the service has stopped (default: 30)",
                                numberUpTo(0, MAX_WAIT))
                            ->group(WAITING);
    app->add_flag("--no-wait", m_texts.noWait, "Ask the service to stop, and do not wait")
        ->group(WAITING)
        ->excludes(wait)
        ->disable_flag_override();
    addCommon(app);
}

Options CommandLine::options() const
{
    Options options = m_options;
    for (const Row& row : m_commands)
        if (row.app->parsed())
            options.command = row.command;
    options.type =
        parseAuthorityType(m_texts.type)
            .value_or(options.command == Command::PUT ? Svc::AT_EXTSRC : Svc::AT_ANYANDALL);
    options.queryType = parseQueryType(m_texts.queryType).value_or(options.queryType);
    options.priority = static_cast<std::uint32_t>(numberOf(m_texts.priority));
    options.timeToLive = numberOf(m_texts.timeToLive);
    if (!m_texts.recordsPerPage.empty())
        options.recordsPerPage = static_cast<std::int32_t>(numberOf(m_texts.recordsPerPage));
    if (!m_texts.wait.empty())
        options.waitSeconds = static_cast<unsigned>(numberOf(m_texts.wait));
    if (m_texts.noWait)
        options.waitSeconds = 0;
    return options;
}

std::string CommandLine::givenTwice() const
{
    for (const char* name : {HOST, ROOT, JSON}) {
        std::size_t count = m_app.get_option(name)->count();
        for (const Row& row : m_commands)
            count += row.app->get_option(name)->count();
        if (count > 1)
            return name;
    }
    return {};
}

std::string CommandLine::commandNames()
{
    std::string names;
    for (const CommandRow& row : COMMANDS) {
        const bool last = &row == std::end(COMMANDS) - 1;
        names += (names.empty() ? "" : last ? " and " : ", ") + std::string(row.name);
    }
    return names;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
