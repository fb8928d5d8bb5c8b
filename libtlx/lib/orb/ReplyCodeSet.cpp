#include "ReplyCodeSet.h"

// GIOP_S.h needs this header and does not include it.
#include <omniORB4/IOP_S.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStream.h>

#include <omniORB4/internal/GIOP_S.h>

#include <tlx/RequestPeer.h>
#include <tlx/Servant.h>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {
constexpr const char* LOG_SOURCE = "../Orb";
} // namespace

CORBA::Boolean checkReplyCodeSet(omni::omniInterceptors::serverSendReply_T::info_T& info)
{
    omni::GIOP_S& call = info.giop_s;
    // Text in this process is UTF-8, so UTF-8 carries it unchanged. The clients of this product use
    // it, and pay nothing.
    if (call.TCS_C() && call.TCS_C()->id() == omni::omniCodeSet::ID_UTF_8)
        return true;
    try {
        cdrCountingStream counted(call.TCS_C(), call.TCS_W());
        call.calldescriptor()->marshalReturnedValues(counted);
    } catch (CORBA::SystemException& e) {
        e.completed(CORBA::COMPLETED_YES);
        const RequestPeer* const peer = requestPeer();
        PLATFORM_WARN("Orb", "Cannot send the reply of "
                                 << info.operation() << " to "
                                 << (peer ? peer->identity() : std::string("a client"))
                                 << ": its code set "
                                 << (call.TCS_C() ? call.TCS_C()->name() : "is unknown")
                                 << " cannot carry the text: " << describeException(e));
        throw;
    }
    return true;
}

} // namespace Veltrane::Quillmark::Tlx
