#include "LogLine.h"

#include <algorithm>

#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>

#include <tlx/Character.h>
#include <tlx/Utf8.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// The longest operation in a line, escaped. Those of plug-ins are symbols, which can be long.
constexpr std::size_t MAX_OPERATION_BYTES = 256;
/// The longest place that is kept behind a cut.
constexpr std::size_t MAX_PLACE_BYTES = 128;
/// Room for "... (18446744073709551615 bytes)".
constexpr std::size_t CUT_MARK_BYTES = 40;
constexpr std::size_t MAX_BODY_BYTES = MAX_LOG_LINE_BYTES - LOG_TIME_BYTES - 1;

/// One character, escaped if it deceives a reader. A line break in a name would forge a log line,
/// and invalid UTF-8 would stop a reader of the file.
/// @param text loses the character.
std::string takeEscaped(std::string_view& text)
{
    char32_t codePoint = 0;
    const std::size_t length = utf8Character(text, &codePoint);
    const std::string_view character = text.substr(0, length == 0 ? 1 : length);
    text.remove_prefix(character.size());
    if (length != 0 && !isDeceptive(codePoint))
        return std::string(character);
    if (character == "\n")
        return "\\n";
    if (character == "\r")
        return "\\r";
    if (character == "\t")
        return "\\t";
    std::string escaped;
    for (const char c : character)
        escaped += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
    return escaped;
}

/// Appends a text, escaped. Returns false if the line would become longer than `most`. It then has
/// as many whole characters as fit.
bool appendEscaped(std::string& line, std::string_view text, std::size_t most)
{
    while (!text.empty()) {
        const std::string character = takeEscaped(text);
        if (line.size() + character.size() > most)
            return false;
        line += character;
    }
    return true;
}

/// " (SOURCE:LINE)" if the text ends with it; empty otherwise. Only the line is compared: the
/// source in a text is the unit's name, and the place has the file.
std::string_view placeBehind(std::string_view text, const LogPlace& place)
{
    if (place.source == nullptr)
        return {};
    const std::string_view end = text.substr(text.size() - std::min(text.size(), MAX_PLACE_BYTES));
    const std::size_t begin = end.rfind(" (");
    if (begin == std::string_view::npos || !end.ends_with(fmt::format(":{})", place.line)))
        return {};
    return end.substr(begin);
}

} // namespace

LogCaller LogCaller::here()
{
    return {std::chrono::system_clock::now(), ::syscall(SYS_gettid)};
}

LogRecord makeLogRecord(const LogCaller& caller, unsigned originator, const LogCall& call,
                        std::string_view text)
{
    std::string body = fmt::format("{} {} {} ", call.level, originator, caller.thread);
    const bool named = call.operation != nullptr && *call.operation != '\0';
    if (!appendEscaped(body, named ? call.operation : "-", body.size() + MAX_OPERATION_BYTES))
        body += "...";
    body += fmt::format(" [{}] ", toText(call.severity));
    const std::size_t begin = body.size();
    if (!appendEscaped(body, text, MAX_BODY_BYTES)) {
        const std::string_view behind = placeBehind(text, call.place);
        body.resize(begin);
        (void)appendEscaped(body, text, MAX_BODY_BYTES - CUT_MARK_BYTES - behind.size());
        body += fmt::format("... ({} bytes)", text.size());
        (void)appendEscaped(body, behind, MAX_BODY_BYTES);
    }
    return {caller.time, call.severity, std::move(body)};
}

LogRecord makeOwnLogRecord(std::string_view text)
{
    return makeLogRecord(LogCaller::here(), LOG_ORIGINATOR_PLATFORM,
                         {"Logger::log", LOG_LEVEL_FAILURE, LogSeverity::Warning, {}}, text);
}

std::string_view beginningOf(std::string_view text, std::size_t most)
{
    if (text.size() <= most)
        return text;
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0u) == 0x80u)
        --most;
    return text.substr(0, most);
}

} // namespace Veltrane::Quillmark::Tlx
