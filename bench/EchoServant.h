#pragma once
// Answers with as many bytes as it is asked for, and takes any number.

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
