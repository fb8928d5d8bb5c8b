#include "ExitCode.h"

namespace Veltrane::Quillmark::Qmdisco {

std::string exitCodeTable()
{
    static const struct
    {
        ExitCode code;
        const char* meaning;
    } table[] = {
        {EC_OK, "stopped in order, or not wanted on this host"},
        {EC_UNEXPECTED, "unexpected failure"},
        {EC_USAGE, "wrong option"},
        {EC_CONFIGURATION, "TLS cannot be used as configured, or --check-config found problems"},
        {EC_ALREADY_RUNNING, "another qmdisco is running on this root"},
        {EC_ROOT_UNUSABLE, "the root cannot be made or written"},
        {EC_NO_PRIVILEGE, "no privilege to reopen stored records"},
        {EC_CANNOT_LISTEN, "cannot listen for requests"},
        {EC_SERVICE_FAILED, "the service did not come up"},
        {EC_STOP_LIMIT, "the stop did not finish within STOP_LIMIT seconds"},
    };
    std::string text = "Exit codes:";
    for (const auto& row : table)
        text += "\n  " + std::to_string(row.code) + "  " + row.meaning;
    return text;
}

} // namespace Veltrane::Quillmark::Qmdisco
