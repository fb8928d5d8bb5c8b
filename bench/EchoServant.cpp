#include "EchoServant.h"

#include <cstring>

namespace Veltrane::Quillmark::Bench {

CORBA::ULong EchoServant::take(const ::Bench::Bytes& data)
{
    return data.length();
}

::Bench::Bytes* EchoServant::give(CORBA::ULong size)
{
    CORBA::Octet* buffer = ::Bench::Bytes::allocbuf(size);
    std::memset(buffer, 'e', size);
    return new ::Bench::Bytes(size, size, buffer, true);
}

} // namespace Veltrane::Quillmark::Bench
