#include "PlainStream.h"

#include <cerrno>

#include <sys/socket.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

/// Calls move() until no signal interrupts it.
template <class Move>
ByteStream::Result moved(ByteStream::State wait, Move&& move)
{
    for (;;) {
        const ssize_t count = move();
        if (count > 0)
            return {ByteStream::State::MOVED, static_cast<std::size_t>(count)};
        if (count == 0)
            return {ByteStream::State::ENDED};
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return {wait};
        if (errno != EINTR)
            return {ByteStream::State::ENDED};
    }
}

} // namespace

ByteStream::Result PlainStream::read(void* buffer, std::size_t size)
{
    return moved(State::NEEDS_INPUT, [&] { return ::recv(m_socket, buffer, size, MSG_DONTWAIT); });
}

ByteStream::Result PlainStream::write(const void* buffer, std::size_t size)
{
    return moved(State::NEEDS_OUTPUT,
                 [&] { return ::send(m_socket, buffer, size, MSG_DONTWAIT | MSG_NOSIGNAL); });
}

} // namespace Veltrane::Quillmark::Tlx
