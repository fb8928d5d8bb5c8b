#pragma once
// Returns the requested number of bytes, and accepts any number of bytes.

#include <tlx/Corba.h>

#include <Echo.hh>

namespace Veltrane::Quillmark::Bench {

class EchoServant : public POA_Bench::Echo
{
  public:
    CORBA::ULong take(const ::Bench::Bytes& data) override;
    ::Bench::Bytes* give(CORBA::ULong size) override;
};

} // namespace Veltrane::Quillmark::Bench
