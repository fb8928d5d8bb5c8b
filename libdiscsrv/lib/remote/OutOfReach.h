#pragma once

#include <tlx/Corba.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Whether a call failed because the other side did not answer. What follows on the same object
/// would take as long again: a caller that still has something to tidy up there leaves it, and the
/// other side gets rid of what is idle by itself.
inline bool isOutOfReach(const CORBA::Exception& exception)
{
    return CORBA::TIMEOUT::_downcast(&exception) || CORBA::TRANSIENT::_downcast(&exception) ||
           CORBA::COMM_FAILURE::_downcast(&exception);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
