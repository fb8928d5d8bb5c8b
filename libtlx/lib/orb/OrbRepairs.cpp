// Four functions of the ORB in a form that hostile peers cannot abuse.
//
// The ORB's library calls its own functions through the dynamic linker. The linker takes the first
// definition that it finds, and every program finds this library before the ORB's. So the ORB calls
// these functions in place of its own. tests/unit and tests/system/fire notice when it does not.
//
// What the ORB's own versions do:
//
// - A text without its final zero byte leaks, up to a whole message each time. Peers can send such
//   a text in `_is_a` and in the header of a request. Hosts that this process calls can send it in
//   references and exceptions.
// - A request that names its target by a profile or by a reference ends in an assertion of the ORB.
//   Its connection hangs, and its header leaks.
// - A connection keeps the largest header of its requests while it lives. So ten thousand idle
//   connections could keep ten thousand messages.
// - A request leaks with its buffers, 17 KB, when its connection ends after the arguments, or after
//   a refusal and before the last byte. The ORB thinks that another thread will reply. No servant
//   of this system replies later. A peer can make that happen: bytes behind the arguments end the
//   connection.
// - A message that is cut in the middle of eight bytes keeps its thread busy for ever.

#include <array>
#include <cstddef>
#include <cstring>

#include <omniORB4/CORBA.h>
// GIOP_S.h needs these headers and does not include them.
#include <omniORB4/IOP_S.h>
#include <omniORB4/callDescriptor.h>
#include <omniORB4/internal/giopStrand.h>
#include <omniORB4/internal/giopStream.h>
#include <omniORB4/minorCode.h>

#include <omniORB4/internal/GIOP_S.h>

namespace {

/// Such texts are the names of interfaces, exceptions and hosts. Longer ones have no use.
constexpr CORBA::ULong MOST_TEXT_BYTES = 1024;

/// A key of this size or less is worth keeping for the next request of the connection.
constexpr int SMALL_KEY = 256;

[[noreturn]] void refuse(cdrStream& stream, CORBA::ULong minor)
{
    throw CORBA::MARSHAL(minor, static_cast<CORBA::CompletionStatus>(stream.completion()));
}

/// Frees what the header of the last request occupies. Nobody uses it any more.
void forgetHeader(omni::GIOP_S& request)
{
    request.set_operation_size(0);
    request.set_principal_size(0);
    if (request.service_contexts().maximum() > 0)
        request.service_contexts().replace(0, 0, nullptr, true);
    if (request.keysize() > SMALL_KEY) {
        request.resetKey();
        request.keysize(SMALL_KEY); // replaces the large buffer
        request.resetKey();
    }
}

} // namespace

/// Reads a text in the code set of the ORB's own protocol.
/// @throws CORBA::MARSHAL for a text without an end, or beyond MOST_TEXT_BYTES.
char* cdrStream::unmarshalRawString()
{
    CORBA::ULong size = 0; // with the final zero byte
    size <<= *this;
    if (size == 0)
        refuse(*this, omni::MARSHAL_StringNotEndWithNull);
    if (size > MOST_TEXT_BYTES + 1)
        refuse(*this, omni::MARSHAL_StringIsTooLong);
    if (!checkInputOverrun(1, size))
        refuse(*this, omni::MARSHAL_PassEndOfMessage);
    std::array<char, MOST_TEXT_BYTES + 1> text{};
    get_octet_array(reinterpret_cast<CORBA::Octet*>(text.data()), static_cast<int>(size));
    if (text[size - 1] != '\0')
        refuse(*this, omni::MARSHAL_StringNotEndWithNull);
    char* const result = CORBA::string_alloc(size - 1);
    std::memcpy(result, text.data(), size);
    return result;
}

/// Reads the target of a request. The references of this service lead to an object key, and every
/// client sends that. The ORB answers other targets with an error message, and closes the
/// connection.
void omni::GIOP_S::unmarshalIORAddressingInfo()
{
    resetKey();
    cdrStream& stream = *this;
    GIOP::AddressingDisposition kind = 0;
    kind <<= stream;
    if (kind != GIOP::KeyAddr)
        refuse(stream, omni::MARSHAL_InvalidIOR);
    CORBA::ULong size = 0;
    size <<= stream;
    if (!stream.checkInputOverrun(1, size))
        refuse(stream, omni::MARSHAL_SequenceIsTooLong);
    keysize(static_cast<int>(size));
    stream.get_octet_array(key(), static_cast<int>(size));
}

/// Reads so many bytes of a message straight to their destination. The ORB asks for nothing, again
/// and again, when a peer cuts a message in the middle of eight bytes.
void omni::giopStream::inputCopyChunk(void* destination, CORBA::ULong size)
{
    if (size == 0)
        refuse(*this, omni::MARSHAL_PassEndOfMessage);
    if (pd_strand->head) // bytes of another message have come in between
        errorOnReceive(-1, __FILE__, __LINE__, nullptr, false, "a message in another one");
    for (auto* next = static_cast<char*>(destination); size > 0;) {
        const int count = pd_strand->connection->Recv(next, size, pd_deadline);
        if (count <= 0)
            errorOnReceive(count, __FILE__, __LINE__, nullptr, false, "the connection has ended");
        next += count;
        size -= static_cast<CORBA::ULong>(count);
    }
}

/// Ends the use of a connection by a thread, after each message.
omni::GIOP_S_Holder::~GIOP_S_Holder()
{
    if (!pd_iop_s)
        return;
    forgetHeader(*pd_iop_s);
    // This thread is done with the request. The ORB would still wait for a reply that nobody sends.
    if (pd_iop_s->state() == IOP_S::WaitingForReply)
        pd_iop_s->state(IOP_S::ReplyCompleted);
    pd_strand->releaseServer(pd_iop_s);
}
