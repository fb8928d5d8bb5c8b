#include <tlx/JobExecInfo.h>

#include <utility>

namespace Veltrane::Quillmark::Tlx {

namespace {

bool isBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Which quotation mark a character needs around it; 0 for none. The splitter knows no escape
/// outside of quotation marks, and inside them a backslash may swallow the closing one: so a
/// backslash always stands outside.
char quoteFor(char c, bool first)
{
    if (c == '"')
        return '\'';
    // At the start of a line the splitter takes "#" for a comment.
    return isBlank(c) || c == '\'' || (first && c == '#') ? '"' : '\0';
}

void appendQuoted(std::string& line, const std::string& argument)
{
    if (argument.empty())
        line += "\"\"";
    char open = '\0';
    for (std::size_t i = 0; i < argument.size(); ++i) {
        const char c = argument[i];
        const char needed = quoteFor(c, i == 0);
        // What is open stays open as long as the character may stand inside.
        const bool mayStay = open != '\0' && c != '\\' && c != open;
        if (!mayStay && open != needed) {
            if (open != '\0')
                line += open;
            if (needed != '\0')
                line += needed;
            open = needed;
        }
        line += c;
    }
    if (open != '\0')
        line += open;
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
