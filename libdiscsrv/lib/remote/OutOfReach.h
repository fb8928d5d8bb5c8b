#pragma once
// Distinguishes a host that does not answer from one that answers with a failure.

#include <tlx/Corba.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// True if a call failed because the other side did not answer. The next call on the same object
/// would take as long. So the caller leaves its object there, and the other side's evictor removes
/// it.
inline bool isOutOfReach(const CORBA::Exception& exception)
{
    return CORBA::TIMEOUT::_downcast(&exception) || CORBA::TRANSIENT::_downcast(&exception) ||
           CORBA::COMM_FAILURE::_downcast(&exception);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
