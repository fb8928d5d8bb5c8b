#include <tlx/Servant.h>

#include "Wire.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

const char* meaning(const CORBA::SystemException& exception)
{
    if (CORBA::TRANSIENT::_downcast(&exception))
        return "nothing accepts the connection";
    if (CORBA::TIMEOUT::_downcast(&exception))
        return "no answer within the time limit";
    if (CORBA::COMM_FAILURE::_downcast(&exception))
        return "the connection broke";
    if (CORBA::OBJECT_NOT_EXIST::_downcast(&exception))
        return "there is no such object";
    if (CORBA::NO_PERMISSION::_downcast(&exception))
        return "not permitted";
    if (CORBA::MARSHAL::_downcast(&exception))
        return "a message that cannot be understood, or is too large";
    if (CORBA::NO_MEMORY::_downcast(&exception) || CORBA::NO_RESOURCES::_downcast(&exception))
        return "it has no resources left";
    return "it failed";
}

} // namespace

std::string explain(const CORBA::SystemException& exception)
{
    return std::string(meaning(exception)) + ": " + Tlx::describeException(exception);
}

Failure unreachable(const std::string& host, const Tlx::Endpoint& endpoint,
                    const std::string& reason)
{
    return {EC_UNREACHABLE, "cannot reach the discovery service on " + host + " (" +
                                Tlx::toText(endpoint) + "): " + reason};
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
