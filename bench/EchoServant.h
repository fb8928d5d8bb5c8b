#pragma once
// Servants that do nothing with the bytes.

#include <tlx/Corba.h>
#include <tlx/Orb.h>

#include <Echo.hh>

namespace Veltrane::Quillmark::Bench {

/// Returns so many bytes in pages, then empty pages. One client uses it. It ends with release.
class PagesServant : public POA_Bench::Pages, public PortableServer::RefCountServantBase
{
  public:
    PagesServant(Tlx::Orb& orb, CORBA::ULong size) : m_orb(orb), m_left(size) {}

    /// Serves from now on. The caller releases the reference.
    ::Bench::Pages_ptr activate();

    CORBA::Long pageSize() override { return m_pageSize; }
    void pageSize(CORBA::Long size) override { m_pageSize = size; }
    ::Bench::Bytes* getNextPage() override;
    void release() override;

  private:
    Tlx::Orb& m_orb;
    CORBA::Object_var m_reference;
    CORBA::Long m_pageSize = 1;
    CORBA::ULong m_left;
};

/// Returns the requested number of bytes, and accepts any number of bytes.
class EchoServant : public POA_Bench::Echo
{
  public:
    explicit EchoServant(Tlx::Orb& orb) : m_orb(orb) {}

    CORBA::ULong take(const ::Bench::Bytes& data) override;
    ::Bench::Bytes* give(CORBA::ULong size) override;
    CORBA::ULong open(const ::Bench::RecordName& name, const char* filter, CORBA::ULong size,
                      ::Bench::Pages_out reader) override;

  private:
    Tlx::Orb& m_orb;
};

} // namespace Veltrane::Quillmark::Bench
