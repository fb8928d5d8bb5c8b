#include "Options.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <limits>
#include <memory>

#include <tlx/Query.h>

#include "Help.h"
#include "HostArgument.h"
#include "Names.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

constexpr std::uint64_t MAX_SECONDS = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t MAX_RECORDS_PER_PAGE = 100000;
constexpr std::uint64_t MAX_WAIT = 86400;

/// Options whose text is still to be understood.
struct Texts
{
    std::string type;
    std::string queryType;
    std::string priority;
    std::string timeToLive;
    std::string recordsPerPage;
    std::string wait;
    bool noWait = false;
};

using Check = std::function<std::string(const std::string&)>;

std::string quoted(const std::string& text)
{
    return "\"" + escaped(text) + "\"";
}

bool parseNumber(const std::string& text, std::uint64_t highest, std::uint64_t& out)
{
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end || value > highest)
        return false;
    out = value;
    return true;
}

std::uint64_t numberOf(const std::string& text)
{
    std::uint64_t value = 0;
    parseNumber(text, std::numeric_limits<std::uint64_t>::max(), value);
    return value;
}

Check numberUpTo(std::uint64_t lowest, std::uint64_t highest)
{
    return [lowest, highest](const std::string& text) -> std::string {
        std::uint64_t value = 0;
        if (parseNumber(text, highest, value) && value >= lowest)
            return {};
        return "a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
               " is expected, not " + quoted(text);
    };
}

/// A text that can travel: the wire's code set is UTF-8.
std::string checkUtf8(const std::string& text)
{
    if (isUtf8(text))
        return {};
    return "UTF-8 text is expected, not " + quoted(text) + "; other bytes are written as %XX";
}

std::string checkName(const std::string& text)
{
    return text.empty() ? "a name is expected, not an empty text" : checkUtf8(text);
}

std::string checkFilter(const std::string& text)
{
    if (const std::string wrong = checkUtf8(text); !wrong.empty())
        return wrong;
    Tlx::TlxQuery query;
    return query.setQuery(text) ? "" : escaped(query.mistake().toText());
}

std::string checkFile(const std::string& text)
{
    return text.empty() ? "a file name is expected, not an empty one" : "";
}

std::string checkRoot(const std::string& text)
{
    return text.empty() ? "a directory is expected, not an empty name" : "";
}

std::string checkHost(const std::string& text)
{
    HostArgument host;
    if (parseHost(text, host))
        return {};
    return "HOST, HOST:PORT or [IPV6]:PORT is expected, not " + quoted(text);
}

std::string checkType(const std::string& text)
{
    Svc::AuthorityType type;
    if (parseAuthorityType(text, type))
        return {};
    return authorityTypeNames() + " is expected, not " + quoted(text);
}

std::string checkQueryType(const std::string& text)
{
    Svc::DiscoveryQuery type;
    if (parseQueryType(text, type))
        return {};
    return queryTypeNames() + " is expected, not " + quoted(text);
}

/// A message of the parser's as one line. It may quote an argument; backslashes stay, for they are
/// our own escapes.
std::string oneLine(std::string text)
{
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    std::string result;
    std::size_t from = 0;
    for (std::size_t to; (to = text.find('\\', from)) != std::string::npos; from = to + 1)
        result += escaped(text.substr(from, to - from)) + '\\';
    return result + escaped(text.substr(from));
}

/// Builds the parser. The options of every command stand before the command and after it.
class Parser
{
  public:
    Parser();
    ParsedOptions parse(int argc, const char* const* argv);

  private:
    struct Row
    {
        CLI::App* app;
        Command command;
    };

    CLI::App* addCommand(const char* name, const char* description, const char* group,
                         Command command);
    void addCommonOptions(CLI::App* app);
    static CLI::Option* addText(CLI::App* app, const char* name, std::string& into,
                                const char* typeName, const std::string& description,
                                const Check& check);
    void addNames(CLI::App* app);
    void addType(CLI::App* app, const std::string& standard);
    void addQueryType(CLI::App* app);
    void addPut();
    void addQuery();
    void addGet();
    void addResearch();
    void addPatterns(CLI::App* app);
    void addServiceCommands();
    /// What is wrong with a line whose command was not found.
    std::string commandProblem(const CLI::ParseError& error) const;
    /// An option that the parser takes before the command and again after it.
    std::string givenTwice() const;
    void understand();

    CLI::App m_app{"Stores, queries and reads discoveries of a discovery service.", "qmdiscoctl"};
    std::vector<Row> m_commands;
    Options m_options;
    Texts m_texts;
};

Parser::Parser()
{
    // Before the commands, which inherit them.
    m_app.formatter(std::make_shared<HelpFormatter>());
    m_app.footer(exitCodeTable());
    m_app.require_subcommand(1);
    addPut();
    addQuery();
    addGet();
    addResearch();
    addServiceCommands();
    addCommonOptions(&m_app);
    m_app
        .set_version_flag("--version", std::string("qmdiscoctl ") + version(),
                          "Print the version and exit")
        ->group("Help");
}

CLI::App* Parser::addCommand(const char* name, const char* description, const char* group,
                             Command command)
{
    CLI::App* app = m_app.add_subcommand(name, description)->group(group);
    m_commands.push_back({app, command});
    return app;
}

CLI::Option* Parser::addText(CLI::App* app, const char* name, std::string& into,
                             const char* typeName, const std::string& description,
                             const Check& check)
{
    return app->add_option(name, into, description)->type_name(typeName)->check(check, "");
}

void Parser::addCommonOptions(CLI::App* app)
{
    addText(app, "--host", m_options.host, "HOST",
            "The host whose service is spoken to: HOST, HOST:PORT or [IPV6]:PORT (otherwise the "
            "one that SERVER names in etc/qm.conf, otherwise this host)",
            checkHost)
        ->group("Which service");
    addText(app, "--root", m_options.root, "DIR",
            "The product root (otherwise QUILLMARK_ROOT, otherwise /usr/varix/quillmark)",
            checkRoot)
        ->group("Which service");
    app->add_flag("--json", m_options.json, "JSON for programs instead of text for people")
        ->group("Output")
        ->disable_flag_override();
    app->set_help_flag("--help,-h", "Print this help and exit")->group("Help");
}

void Parser::addNames(CLI::App* app)
{
    addText(app, "SUBJECT", m_options.subject, "", "What the discovery is about, usually a host",
            checkName)
        ->required();
    addText(app, "AUTHORITY", m_options.authority, "", "Who made the discovery", checkName)
        ->required();
}

void Parser::addType(CLI::App* app, const std::string& standard)
{
    m_options.type = Svc::AT_ANYANDALL;
    addText(app, "--type", m_texts.type, "T",
            "The authority's type: " + authorityTypeNames() + " (otherwise " + standard + ")",
            checkType)
        ->group("Discovery");
}

void Parser::addQueryType(CLI::App* app)
{
    addText(app, "--query-type", m_texts.queryType, "Q",
            queryTypeNames() +
                " (otherwise discovery). The store keeps no query type and does not select by it: "
                "different kinds of data of one host need different subjects",
            checkQueryType)
        ->group("Discovery");
}

void Parser::addPut()
{
    CLI::App* app =
        addCommand("put", "Store the data of a file as a discovery", "Data", Command::PUT);
    addNames(app);
    addText(app, "FILE", m_options.input, "", "The file with the data; - is standard input",
            checkFile)
        ->required();
    addType(app, "extsrc");
    addText(app, "--priority", m_texts.priority, "N",
            "A stored discovery is replaced by one of the same or a higher priority only "
            "(otherwise 0)",
            numberUpTo(0, std::numeric_limits<std::uint32_t>::max()))
        ->group("Discovery");
    addText(app, "--ttl", m_texts.timeToLive, "SECONDS",
            "Time to live; a discovery is kept 1.25 times as long, with 0 for ever (otherwise 0)",
            numberUpTo(0, MAX_SECONDS))
        ->group("Discovery");
    addQueryType(app);
    addCommonOptions(app);
}

void Parser::addPatterns(CLI::App* app)
{
    addText(app, "--subject", m_options.subject, "P",
            "Only subjects that match; * is any text, ? any character (otherwise *)", checkUtf8)
        ->group("Discovery");
    addText(app, "--authority", m_options.authority, "P",
            "Only authorities that match; * is any text, ? any character (otherwise *)", checkUtf8)
        ->group("Discovery");
}

void Parser::addQuery()
{
    CLI::App* app = addCommand("query", "List the discoveries there are", "Data", Command::QUERY);
    addPatterns(app);
    addType(app, "anyandall");
    addQueryType(app);
    addText(app, "--page-size", m_texts.recordsPerPage, "N",
            "How many discoveries travel at a time (otherwise 1024)",
            numberUpTo(1, MAX_RECORDS_PER_PAGE))
        ->group("Transfer");
    addCommonOptions(app);
}

void Parser::addGet()
{
    CLI::App* app = addCommand("get", "Read the data of a discovery", "Data", Command::GET);
    addNames(app);
    addType(app, "anyandall");
    addText(app, "--filter", m_options.filter, "F",
            "Given to whoever has the data (otherwise empty)", checkUtf8)
        ->group("Discovery");
    addText(app, "-o,--output", m_options.output, "FILE",
            "Where the data goes, complete or not at all (otherwise standard output)", checkFile)
        ->group("Output");
    addCommonOptions(app);
}

void Parser::addResearch()
{
    CLI::App* items = addCommand("items",
                                 "List what was discovered: file systems, unless other "
                                 "explorers are installed",
                                 "Discovered items", Command::ITEMS);
    addPatterns(items);
    addText(items, "--filter", m_options.filter, "EXPR",
            "Only items that match, as in 'size > 10G and not readonly' (\"qmdiscoctl filters\" "
            "lists the fields)",
            checkFilter)
        ->group("Discovery");
    addCommonOptions(items);

    CLI::App* clients = addCommand("clients", "List the hosts that discoveries came from",
                                   "Discovered items", Command::CLIENTS);
    clients
        ->add_flag("--registered", m_options.registered,
                   "The explorers of other hosts, instead, that the master can pull from")
        ->group("Discovery")
        ->disable_flag_override();
    addCommonOptions(clients);

    CLI::App* filters = addCommand("filters", "List what a filter of items may ask",
                                   "Discovered items", Command::FILTERS);
    addCommonOptions(filters);
}

void Parser::addServiceCommands()
{
    CLI::App* status =
        addCommand("status", "Show what is known about the service", "Service", Command::STATUS);
    addCommonOptions(status);

    CLI::App* explorers =
        addCommand("explorers", "List the explorers that the service of this host has registered",
                   "Service", Command::EXPLORERS);
    addCommonOptions(explorers);

    CLI::App* refresh = addCommand("refresh", "Make the service's explorers look again", "Service",
                                   Command::REFRESH);
    refresh->add_flag("--all", m_options.all, "Those of every host; only the master's service can")
        ->group("Which service")
        ->disable_flag_override();
    addCommonOptions(refresh);

    CLI::App* stop = addCommand("stop", "Stop the service in order", "Service", Command::STOP);
    CLI::Option* wait = addText(stop, "--wait", m_texts.wait, "SECONDS",
                                "How long to wait until the service has stopped (otherwise 30)",
                                numberUpTo(0, MAX_WAIT))
                            ->group("Waiting");
    stop->add_flag("--no-wait", m_texts.noWait, "Tell the service to stop, and do no more")
        ->group("Waiting")
        ->excludes(wait)
        ->disable_flag_override();
    addCommonOptions(stop);
}

std::string Parser::commandProblem(const CLI::ParseError& error) const
{
    if (dynamic_cast<const CLI::RequiredError*>(&error) == nullptr)
        return oneLine(error.what());
    const std::vector<std::string> unknown = m_app.remaining();
    return (unknown.empty() ? "a command is expected"
                            : "there is no command or option " + quoted(unknown.front())) +
           "; the commands are put, query, get, items, clients, filters, status, explorers, "
           "refresh and stop";
}

std::string Parser::givenTwice() const
{
    for (const char* name : {"--host", "--root", "--json"}) {
        std::size_t count = m_app.get_option(name)->count();
        for (const Row& row : m_commands)
            count += row.app->get_option(name)->count();
        if (count > 1)
            return std::string(name) + ": given more than once";
    }
    return {};
}

void Parser::understand()
{
    if (m_options.command == Command::PUT)
        m_options.type = Svc::AT_EXTSRC;
    parseAuthorityType(m_texts.type, m_options.type);
    parseQueryType(m_texts.queryType, m_options.queryType);
    m_options.priority = static_cast<std::uint32_t>(numberOf(m_texts.priority));
    m_options.timeToLive = numberOf(m_texts.timeToLive);
    if (!m_texts.recordsPerPage.empty())
        m_options.recordsPerPage = static_cast<std::int32_t>(numberOf(m_texts.recordsPerPage));
    if (!m_texts.wait.empty())
        m_options.waitSeconds = static_cast<unsigned>(numberOf(m_texts.wait));
    if (m_texts.noWait)
        m_options.waitSeconds = 0;
}

ParsedOptions Parser::parse(int argc, const char* const* argv)
{
    ParsedOptions parsed;
    const auto refuse = [&parsed](const std::string& why) {
        parsed.end = EC_USAGE;
        parsed.text = "qmdiscoctl: " + why + " (\"qmdiscoctl --help\" shows the options)\n";
    };
    try {
        m_app.parse(argc, argv);
        for (const Row& row : m_commands)
            if (row.app->parsed())
                m_options.command = row.command;
        understand();
        if (const std::string twice = givenTwice(); !twice.empty())
            refuse(twice);
        parsed.options = m_options;
    } catch (const CLI::CallForHelp&) {
        parsed.end = EC_OK;
        parsed.text = m_app.help();
    } catch (const CLI::CallForVersion& wanted) {
        parsed.end = EC_OK;
        parsed.text = std::string(wanted.what()) + "\n";
    } catch (const CLI::ParseError& error) {
        refuse(m_app.get_subcommands().empty() ? commandProblem(error) : oneLine(error.what()));
    }
    return parsed;
}

} // namespace

const char* version()
{
    return QM_VERSION;
}

ParsedOptions parseOptions(int argc, const char* const* argv)
{
    return Parser().parse(argc, argv);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
