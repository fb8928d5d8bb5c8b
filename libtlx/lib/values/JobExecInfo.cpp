#include <tlx/JobExecInfo.h>

#include <utility>

namespace Veltrane::Quillmark::Tlx {

namespace {

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The quotation mark that a character needs around it; 0 when it needs no mark.
char quoteFor(char c, bool first)
{
    if (c == '"')
        return '\'';
    // ACE_ARGV treats a line that starts with "#" as a comment.
    return isBlank(c) || c == '\'' || (first && c == '#') ? '"' : '\0';
}

bool needsQuotes(const std::string& argument)
{
    for (std::size_t i = 0; i < argument.size(); ++i)
        if (quoteFor(argument[i], i == 0) != '\0')
            return true;
    return argument.empty();
}

/// Quotes only the characters that need it. So no backslash is inside quotation marks, where it
/// could hide the closing mark.
void appendInPieces(std::string& line, const std::string& argument)
{
    char open = '\0';
    for (std::size_t i = 0; i < argument.size(); ++i) {
        const char needed = quoteFor(argument[i], i == 0);
        if (open != needed) {
            if (open != '\0')
                line += open;
            if (needed != '\0')
                line += needed;
            open = needed;
        }
        line += argument[i];
    }
    if (open != '\0')
        line += open;
}

/// Quotes an argument as people do, if possible. ACE_ARGV has no escape outside quotation marks.
void appendQuoted(std::string& line, const std::string& argument)
{
    const auto has = [&](char c) { return argument.find(c) != std::string::npos; };
    if (!needsQuotes(argument))
        line += argument;
    else if (has('\\') || (has('"') && has('\'')))
        appendInPieces(line, argument);
    else
        line += has('"') ? "'" + argument + "'" : "\"" + argument + "\"";
}

std::vector<std::string> withoutNul(std::vector<std::string> arguments)
{
    for (std::string& argument : arguments)
        argument.resize(argument.find('\0') == std::string::npos ? argument.size()
                                                                 : argument.find('\0'));
    return arguments;
}

} // namespace

JobExecInfo::JobExecInfo(std::vector<std::string> arguments)
    : m_arguments(withoutNul(std::move(arguments)))
{
}

TlxString JobExecInfo::getCommandLine() const
{
    std::string line;
    for (const std::string& argument : m_arguments) {
        if (!line.empty())
            line += ' ';
        appendQuoted(line, argument);
    }
    return line;
}

void JobExecInfo::setValue(ACE_Arg_Shifter& arguments, bool append)
{
    if (!append)
        m_arguments.clear();
    for (; arguments.is_anything_left(); arguments.consume_arg())
        m_arguments.emplace_back(arguments.get_current());
}

} // namespace Veltrane::Quillmark::Tlx
