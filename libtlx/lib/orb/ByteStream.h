#pragma once
// The bytes of one connection, read and written without waiting.

#include <cstddef>
#include <string>

namespace Veltrane::Quillmark::Tlx {

/// A stream does not own its socket. One thread may read while another one writes.
class ByteStream
{
  public:
    enum class State
    {
        MOVED,        ///< bytes were read or written
        NEEDS_INPUT,  ///< nothing moves until the socket can be read
        NEEDS_OUTPUT, ///< nothing moves until the socket can be written
        ENDED,        ///< the peer has closed it, or it failed: see error()
    };
    struct Result
    {
        State state = State::ENDED;
        std::size_t bytes = 0; ///< more than 0 with MOVED, otherwise 0
    };

    ByteStream() = default;
    virtual ~ByteStream() = default;
    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    /// Reads at most `size` bytes, which is more than 0.
    virtual Result read(void* buffer, std::size_t size) = 0;
    /// Writes at most `size` bytes, which is more than 0.
    virtual Result write(const void* buffer, std::size_t size) = 0;
    /// Whether bytes wait inside the stream. They can be read although the socket reports no input.
    virtual bool hasBuffered() const = 0;
    /// The name that the peer's certificate proves. Empty without TLS, and until the handshake has
    /// ended.
    virtual std::string peerName() const = 0;
    /// Why the stream ended, for a log line. Empty if the peer just closed it.
    virtual std::string error() const = 0;
};

} // namespace Veltrane::Quillmark::Tlx
