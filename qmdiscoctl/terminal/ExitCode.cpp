#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

std::string exitCodeTable()
{
    static const struct
    {
        ExitCode code;
        const char* meaning;
    } table[] = {
        {EC_OK, "done"},
        {EC_FAILURE, "failed here (a local file, the output), or refused by the service"},
        {EC_USAGE, "wrong option or argument"},
        {EC_UNREACHABLE, "the service cannot be reached"},
        {EC_BROKE_OFF, "the service broke off in the middle"},
        {EC_NONE_FOUND, "DS_NONE_FOUND: no such discovery"},
        {EC_LOGIC_ERROR, "DS_LOGIC_ERROR: a pattern, or more than one discovery"},
        {EC_OPEN_FAILED, "DS_OPEN_FAILED: the data cannot be opened"},
        {EC_COM_ERROR, "DS_COM_ERROR: the service failed to reach another"},
        {EC_DATA_EXISTS, "DS_DATA_EXISTS: one of higher priority is stored"},
    };
    std::string text = "Exit codes:";
    for (const auto& row : table) {
        const std::string code = std::to_string(row.code);
        text += "\n  " + std::string(2 - code.size(), ' ') + code + "  " + row.meaning;
    }
    return text;
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
