#include "EchoServant.h"

#include <algorithm>
#include <cstring>

namespace Veltrane::Quillmark::Bench {

namespace {

::Bench::Bytes* pageOf(CORBA::ULong size)
{
    CORBA::Octet* buffer = ::Bench::Bytes::allocbuf(size);
    std::memset(buffer, 'e', size);
    return new ::Bench::Bytes(size, size, buffer, true);
}

} // namespace

::Bench::Pages_ptr PagesServant::activate()
{
    m_reference = m_orb.activateServant(this);
    return ::Bench::Pages::_narrow(m_reference);
}

::Bench::Bytes* PagesServant::getNextPage()
{
    const CORBA::ULong size = std::min(m_left, static_cast<CORBA::ULong>(m_pageSize));
    m_left -= size;
    return pageOf(size);
}

void PagesServant::release()
{
    m_orb.destroyObjectRef(m_reference, PortableServer::POA::_nil());
    m_reference = CORBA::Object::_nil();
}

CORBA::ULong EchoServant::take(const ::Bench::Bytes& data)
{
    return data.length();
}

::Bench::Bytes* EchoServant::give(CORBA::ULong size)
{
    return pageOf(size);
}

CORBA::ULong EchoServant::open(const ::Bench::RecordName&, const char*, CORBA::ULong size,
                               ::Bench::Pages_out reader)
{
    const PortableServer::Servant_var<PagesServant> pages(new PagesServant(m_orb, size));
    reader = pages->activate();
    return 0;
}

} // namespace Veltrane::Quillmark::Bench
