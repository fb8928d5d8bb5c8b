#pragma once
// The bytes of a connection without TLS.

#include "ByteStream.h"

namespace Veltrane::Quillmark::Tlx {

class PlainStream final : public ByteStream
{
  public:
    explicit PlainStream(int socket) : m_socket(socket) {}

    Result read(void* buffer, std::size_t size) override;
    Result write(const void* buffer, std::size_t size) override;
    bool hasBuffered() const override { return false; }
    std::string peerName() const override { return {}; }
    std::string error() const override { return {}; }

  private:
    const int m_socket;
};

} // namespace Veltrane::Quillmark::Tlx
