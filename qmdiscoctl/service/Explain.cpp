#include <string_view>

#include <tlx/Servant.h>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// The explanations of exceptions for a person.
constexpr struct
{
    std::string_view exception;
    const char* meaning;
} MEANINGS[] = {
    {"TRANSIENT", "nothing accepts the connection"},
    {"TIMEOUT", "no answer within the time limit"},
    {"COMM_FAILURE", "the connection broke"},
    {"OBJECT_NOT_EXIST", "there is no such object"},
    {"NO_PERMISSION", "not permitted"},
    {"DATA_CONVERSION", "a name that the code set of one side cannot carry"},
    {"MARSHAL", "a message that cannot be understood, or is too large"},
    {"NO_MEMORY", "it has no resources left"},
    {"NO_RESOURCES", "it has no resources left"},
};

std::string explain(std::string_view exception, const std::string& description)
{
    const char* meaning = "it failed";
    for (const auto& known : MEANINGS)
        if (known.exception == exception)
            meaning = known.meaning;
    return std::string(meaning) + ": " + description;
}

} // namespace

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

std::string explain(const CORBA::SystemException& exception)
{
    return explain(exception._name(), Tlx::describeException(exception));
}

std::string explain(const Svc::ConnectFailure& failure)
{
    return failure.exception.empty() ? failure.cause : explain(failure.exception, failure.cause);
}

Failure unreachable(const std::string& host, const Tlx::Endpoint& endpoint,
                    const std::string& reason)
{
    return {EC_UNREACHABLE, "cannot reach the discovery service on " + host + " (" +
                                Tlx::toText(endpoint) + "): " + reason};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
