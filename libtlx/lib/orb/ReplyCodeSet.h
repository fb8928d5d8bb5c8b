#pragma once
// Refuses a reply whose text the client's code set cannot carry, before the reply begins.

#include <omniORB4/CORBA.h>
#include <omniORB4/omniInterceptors.h>

namespace Veltrane::Quillmark::Tlx {

/// An interceptor for replies. It throws the conversion's exception, COMPLETED_YES, and logs it.
/// The caller gets the exception and the connection stays. Without it, the ORB would notice in the
/// middle of the reply, when it can only close the connection.
CORBA::Boolean checkReplyCodeSet(omni::omniInterceptors::serverSendReply_T::info_T& info);

} // namespace Veltrane::Quillmark::Tlx
