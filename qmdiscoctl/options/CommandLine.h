#pragma once
// Declares the commands and their options to the parser of the command line.

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Checks.h"
#include "Options.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

/// Declares every command and option to a parser. The common options may stand before the command
/// or after it.
class CommandLine
{
  public:
    CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    CLI::App& app() { return m_app; }
    const CLI::App& app() const { return m_app; }

    // After a parse.

    /// The parsed options.
    Options options() const;
    /// A common option that is given both before and after the command; empty without one.
    std::string givenTwice() const;
    /// "put, query, get, ... and stop".
    static std::string commandNames();

  private:
    /// Option texts, which options() converts.
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
    struct Row
    {
        CLI::App* app;
        Command command;
    };

    CLI::App* addCommand(Command command);
    static CLI::Option* addText(CLI::App* app, const char* name, std::string& into,
                                const char* typeName, const std::string& description,
                                const Check& check);
    // Options that several commands have.
    void addCommon(CLI::App* app);
    void addNames(CLI::App* app);
    void addPatterns(CLI::App* app);
    void addType(CLI::App* app, const std::string& standard);
    void addQueryType(CLI::App* app);
    // Commands with options of their own.
    void addPut();
    void addQuery();
    void addGet();
    void addItems();
    void addClients();
    void addRefresh();
    void addStop();

    CLI::App m_app;
    std::vector<Row> m_commands;
    Options m_options;
    Texts m_texts;
};

} // namespace Veltrane::Quillmark::Qmdiscoctl
