#include "ServedConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

#include <omniORB4/internal/tcpSocket.h>

#include "GiopHeader.h"
#include "PlainStream.h"
#include "RequestPeerState.h"
#include "TlsContext.h"
#include "TlsStream.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

using std::chrono::milliseconds;
using State = ByteStream::State;

/// The watching thread reads so much of one connection, then it looks after the others.
constexpr std::size_t READ_AT_ONCE = ARRIVED_BYTES;
constexpr std::size_t READ_BUFFER = 16384;
/// Each read counts for so many bytes at least: a peer may send tiny TLS records.
constexpr std::size_t LEAST_READ = 4096;

thread_local std::array<char, READ_BUFFER> t_buffer;

/// A thread that has served a request waits for the next one for so long, because that is faster
/// than the way through the watching thread.
constexpr milliseconds PEEK{5};

// How the ORB names the transports.
constexpr std::string_view PLAIN_SCHEME = "giop:tcp";
constexpr std::string_view TLS_SCHEME = "giop:ssl";

/// The number of the handshake among what has begun to arrive. Messages have other numbers.
constexpr std::uint64_t HANDSHAKE = std::numeric_limits<std::uint64_t>::max();

/// The first byte of a TLS connection. A GIOP message begins with a letter.
constexpr char TLS_HANDSHAKE = 0x16;

/// Whether these bytes are the ORB's goodbye.
bool isCloseConnection(const void* bytes, std::size_t size)
{
    const auto* header = static_cast<const unsigned char*>(bytes);
    return size == Giop::HEADER_BYTES && std::memcmp(header, "GIOP", 4) == 0 &&
           header[Giop::TYPE_AT] == Giop::CLOSE_CONNECTION;
}

/// The ORB's form of an address of the socket.
template <class GetName>
std::string uriOf(int socket, GetName getName)
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (getName(socket, generic, &size) != 0)
        return std::string(PLAIN_SCHEME) + ":255.255.255.255:65535"; // the peer has gone
    return CORBA::String_var(omni::tcpSocket::addrToURI(generic, PLAIN_SCHEME.data())).in();
}

/// The time until a deadline of the ORB, which goes by the clock of the day. If somebody sets this
/// clock back, the limit in waitFor still holds.
milliseconds untilThen(const omni_time_t& deadline)
{
    if (deadline.s == 0)
        return milliseconds::max();
    unsigned long seconds = 0;
    unsigned long nanoseconds = 0;
    omni_thread::get_time(&seconds, &nanoseconds);
    const std::int64_t left =
        (static_cast<std::int64_t>(deadline.s) - static_cast<std::int64_t>(seconds)) * 1000 +
        (static_cast<std::int64_t>(deadline.ns) - static_cast<std::int64_t>(nanoseconds)) / 1000000;
    return milliseconds(std::max<std::int64_t>(left, 0));
}

bool isReady(int socket, State need, milliseconds limit)
{
    pollfd wanted{socket, static_cast<short>(need == State::NEEDS_OUTPUT ? POLLOUT : POLLIN), 0};
    const int ready = ::poll(&wanted, 1, static_cast<int>(limit.count()));
    return ready > 0 || (ready < 0 && errno == EINTR);
}

} // namespace

ServedConnection::ServedConnection(FileDescriptor socket, Watcher::Key key,
                                   const ServerShared& shared, std::shared_ptr<Watcher> watcher)
    : WatchedConnection(addressOfConnection(uriOf(socket.get(), ::getpeername))),
      m_socket(std::move(socket)), m_key(key), m_shared(shared), m_watcher(std::move(watcher)),
      m_myAddress(uriOf(m_socket.get(), ::getsockname)),
      m_peerAddress(uriOf(m_socket.get(), ::getpeername)), m_reader(shared.maxMessageBytes)
{
}

ServedConnection::~ServedConnection()
{
    endTurn();
    m_shared.connections->remove(m_key, *this);
}

bool ServedConnection::admit()
{
    return m_shared.connections->admit(m_key, *this);
}

bool ServedConnection::handle(const Watcher::Report& report)
{
    bool isServed = false;
    {
        const std::lock_guard guard(m_mutex);
        if (m_stage == Stage::WAITING && report.isPosted) {
            setStage(Stage::SERVED);
            isServed = true;
        } else if (m_stage == Stage::WATCHED) {
            isServed = take(receive());
        }
    }
    noteKept();
    return isServed;
}

/// Decides who is next, by what the watching thread or a thread of the ORB has found. Returns
/// whether a thread of the ORB is next at once.
bool ServedConnection::take(Found found)
{
    if (found == Found::NOTHING) {
        watch();
        return false;
    }
    const bool isNow = found == Found::END || m_shared.requests->arrive(m_key, peer());
    setStage(isNow ? Stage::SERVED : Stage::WAITING);
    return isNow;
}

void ServedConnection::setStage(Stage stage)
{
    m_stage = stage;
    noteServed(stage == Stage::SERVED);
    noteWhole();
}

void ServedConnection::watch()
{
    setStage(Stage::WATCHED);
    noteUnfinished();
    if (m_stream && m_stream->hasBuffered())
        m_watcher->post(m_key);
    else
        m_watcher->watch(m_socket.get(), m_key,
                         m_need == State::NEEDS_OUTPUT ? Watcher::Event::OUTPUT
                                                       : Watcher::Event::INPUT);
}

/// The peer is next, and may have begun to send something.
void ServedConnection::noteUnfinished()
{
    if (m_inHandshake)
        noteIncomplete(HANDSHAKE, "the TLS handshake stalled");
    else if (const std::uint64_t oldest = m_reader.oldestUnfinished())
        noteIncomplete(oldest, "a request began and stalled");
    else
        noteNothing();
}

ServedConnection::Found ServedConnection::end(const std::string& why)
{
    if (!why.empty() && !m_isBroken)
        m_shared.connections->noteMalformed(*this, why.c_str());
    m_isBroken = true;
    return Found::END;
}

ServedConnection::Found ServedConnection::lookForRequest()
{
    if (m_isBroken)
        return Found::END;
    if (m_reader.hasMessage() || m_reader.nextMessage()) {
        noteArrived();
        return Found::REQUEST;
    }
    return m_reader.failure() ? end(m_reader.failure()) : Found::NOTHING;
}

/// The handshake has ended when the peer has a name.
void ServedConnection::lookForName()
{
    m_peerName = m_stream->peerName();
    m_inHandshake = m_peerName.empty();
    if (!m_inHandshake)
        noteArrived();
}

/// Reads until a request is ready, without waiting.
ServedConnection::Found ServedConnection::receive()
{
    Found found = lookForRequest();
    for (std::size_t bytes = 0; found == Found::NOTHING && bytes < READ_AT_ONCE;) {
        if (!hasStream())
            return m_isBroken ? Found::END : Found::NOTHING;
        const ByteStream::Result result = m_stream->read(t_buffer.data(), t_buffer.size());
        if (m_inHandshake)
            lookForName();
        if (result.state == State::ENDED)
            return end(m_stream->error());
        m_need = result.state == State::NEEDS_OUTPUT ? result.state : State::NEEDS_INPUT;
        if (result.state != State::MOVED)
            break;
        bytes += std::max(result.bytes, LEAST_READ);
        m_reader.add(t_buffer.data(), result.bytes);
        found = lookForRequest();
    }
    return found;
}

/// The first byte that the peer sends shows whether it speaks TLS. Returns whether there is a
/// stream now.
bool ServedConnection::hasStream()
{
    if (m_stream)
        return true;
    char first = 0;
    const ssize_t seen = ::recv(m_socket.get(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
    if (seen < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (seen <= 0) {
        m_isBroken = true;
    } else if (m_shared.tls && first == TLS_HANDSHAKE) {
        m_stream = std::make_unique<TlsStream>(m_socket.get(), m_shared.tls->server());
        m_peerAddress.replace(0, PLAIN_SCHEME.size(), TLS_SCHEME);
        m_inHandshake = true;
    } else if (m_shared.requiresTls) {
        end("it speaks without TLS (TLS = required)");
    } else {
        m_stream = std::make_unique<PlainStream>(m_socket.get());
        if (m_shared.tls)
            m_shared.connections->notePlain(*this);
    }
    return m_stream != nullptr;
}

int ServedConnection::Recv(void* buffer, std::size_t size, const omni_time_t& deadline)
{
    for (;;) {
        State need = State::NEEDS_INPUT;
        int count = 0;
        {
            const std::lock_guard guard(m_mutex);
            count = receivePart(buffer, size, need);
            if (count > 0)
                noteMoved(static_cast<std::size_t>(count));
            if (!m_reader.hasMessage())
                noteWhole();
        }
        noteKept(); // other messages may have come between the pieces of this one
        if (count != 0)
            return count;
        if (!waitFor(need, deadline, "a request stalled while it arrived"))
            return -1;
    }
}

/// Returns how many bytes of the request it has moved into the buffer, or -1 if no more will come.
/// With 0, the caller waits for `need` and tries again.
int ServedConnection::receivePart(void* buffer, std::size_t size, State& need)
{
    while (!m_isBroken && m_reader.hasMessage()) {
        if (const std::size_t count = m_reader.take(buffer, size))
            return static_cast<int>(count);
        if (m_reader.failure())
            break;
        if (m_shared.connections->mustHaveArrived())
            break;
        const std::size_t passing = std::min(m_reader.passing(), size);
        const ByteStream::Result result = passing > 0
                                              ? m_stream->read(buffer, passing)
                                              : m_stream->read(t_buffer.data(), t_buffer.size());
        if (result.state == State::ENDED) {
            end(m_stream->error());
        } else if (result.state != State::MOVED) {
            need = result.state;
            return 0;
        } else if (passing > 0) {
            m_reader.passed(result.bytes);
            return static_cast<int>(result.bytes);
        } else {
            m_reader.add(t_buffer.data(), result.bytes);
        }
    }
    if (m_reader.failure())
        end(m_reader.failure());
    return -1;
}

int ServedConnection::Send(void* buffer, std::size_t size, const omni_time_t& deadline)
{
    ByteStream* stream = nullptr;
    {
        // The ORB also says goodbye to a connection that no thread serves.
        const std::lock_guard guard(m_mutex);
        stream = m_stream.get();
    }
    for (;;) {
        if (m_isBroken || !stream)
            return -1;
        const ByteStream::Result result = stream->write(buffer, size);
        if (result.state == State::MOVED) {
            noteMoved(result.bytes);
            return static_cast<int>(result.bytes);
        }
        // The ORB says goodbye while it holds locks that all requests need. So this must not wait.
        if (result.state == State::ENDED || isCloseConnection(buffer, size))
            return -1;
        if (!waitFor(result.state, deadline, "the peer does not read its reply"))
            return -1;
    }
}

/// In a stop, all waits of a connection together have one limit. Otherwise a peer could prolong the
/// stop by many waits that are each a little shorter than the limit.
milliseconds ServedConnection::waitLeft() const
{
    const milliseconds limit = m_shared.connections->waitLimit();
    const Clock::duration waited(m_waitedInStop.load());
    return std::max(limit - std::chrono::duration_cast<milliseconds>(waited), milliseconds(0));
}

void ServedConnection::noteWaited(Clock::time_point begin)
{
    if (m_shared.connections->isStopping())
        m_waitedInStop += (Clock::now() - begin).count();
}

bool ServedConnection::waitFor(State need, const omni_time_t& deadline, const char* what)
{
    const Wait wait(*this);
    const auto begin = Clock::now();
    const milliseconds limit = std::min(untilThen(deadline), waitLeft());
    const bool ready = isReady(m_socket.get(), need, limit);
    noteWaited(begin);
    if (ready)
        return true;
    m_shared.connections->noteStalled(*this, what);
    return false;
}

/// With 0, a thread still serves a request. Otherwise the request has ended, or the connection is
/// new.
void ServedConnection::setSelectable(int now, CORBA::Boolean)
{
    if (now == 0)
        return;
    endTurn();
    {
        const std::lock_guard guard(m_mutex);
        if (m_stage == Stage::SERVED && take(lookForRequest())) {
            setStage(Stage::WAITING); // for the watching thread, which notifies the ORB
            m_watcher->post(m_key);
        }
    }
    noteKept();
}

void ServedConnection::clearSelectable()
{
    endTurn();
}

/// Returns whether this thread shall go on with the next request. Otherwise the ORB calls
/// setSelectable next. That ends each turn, so a request gets its place in the line only there.
CORBA::Boolean ServedConnection::Peek()
{
    endTurn();
    noteWhole();
    Found found = Found::NOTHING;
    {
        const std::lock_guard guard(m_mutex);
        found = lookForRequest();
        if (found == Found::NOTHING)
            noteUnfinished();
    }
    if (found == Found::NOTHING && m_shared.requests->isCalm() &&
        isReady(m_socket.get(), m_need, PEEK)) {
        const std::lock_guard guard(m_mutex);
        found = receive();
    }
    return found == Found::END ||
           (found == Found::REQUEST && m_shared.requests->tryTurn(m_key, peer()));
}

/// The ORB also calls this for a connection that nobody uses (IDLE_CONNECTION_SECONDS). When a
/// thread ends a connection for another reason, the stage is SERVED.
void ServedConnection::Shutdown()
{
    bool isIdle = false;
    {
        const std::lock_guard guard(m_mutex);
        isIdle = m_stage == Stage::WATCHED && !m_isBroken;
    }
    if (isIdle)
        m_shared.connections->noteIdle(*this);
    breakOff();
}

const char* ServedConnection::peeridentity()
{
    return m_peerName.empty() ? nullptr : m_peerName.c_str();
}

void ServedConnection::endTurn()
{
    if (const auto next = m_shared.requests->leave(m_key, peer()))
        m_watcher->post(*next);
}

/// Reports to the table how many bytes wait here for the rest of a request, or for a thread. A
/// request that a thread serves does not count: the number of threads bounds these.
void ServedConnection::noteKept()
{
    std::size_t bytes = 0;
    {
        const std::lock_guard guard(m_mutex);
        bytes = m_stage == Stage::SERVED ? m_reader.waitingBytes() : m_reader.keptBytes();
    }
    m_shared.connections->noteKept(*this, bytes);
}

void ServedConnection::breakOff()
{
    m_isBroken = true;
    ::shutdown(m_socket.get(), SHUT_RDWR);
}

void ServedConnection::discard()
{
    breakOff();
    const std::lock_guard guard(m_mutex);
    m_reader = MessageReader(m_shared.maxMessageBytes);
    if (m_stage == Stage::WAITING) {
        endTurn();
        m_watcher->post(m_key);
    }
}

} // namespace Veltrane::Quillmark::Tlx
