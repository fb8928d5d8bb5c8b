#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

ExitCode exitCodeOf(Svc::DiscoveryStatus status)
{
    switch (status) {
    case Svc::DS_SUCCESS:
        return EC_OK;
    case Svc::DS_NONE_FOUND:
        return EC_NONE_FOUND;
    case Svc::DS_LOGIC_ERROR:
        return EC_LOGIC_ERROR;
    case Svc::DS_OPEN_FAILED:
        return EC_OPEN_FAILED;
    case Svc::DS_COM_ERROR:
        return EC_COM_ERROR;
    case Svc::DS_DATA_EXISTS:
        return EC_DATA_EXISTS;
    default:
        return EC_BROKE_OFF; // not a status at all
    }
}

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
