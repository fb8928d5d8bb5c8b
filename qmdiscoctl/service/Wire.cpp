#include "Wire.h"

#include <tlx/Orb.h>

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

using std::chrono::seconds;

template <class Interface, class Page>
class OrbPages : public Pages<Page>
{
  public:
    explicit OrbPages(typename Interface::_var_type iterator) : m_iterator(iterator) {}
    void setPageSize(CORBA::Long size) override { m_iterator->pageSize(size); }
    std::unique_ptr<Page> next() override
    {
        return std::unique_ptr<Page>(m_iterator->getNextPage());
    }
    void release() override { m_iterator->release(); }

  private:
    typename Interface::_var_type m_iterator;
};

class OrbWriter : public Writer
{
  public:
    explicit OrbWriter(const Remote::RemoteWriter_var& writer) : m_writer(writer) {}
    bool put(const Remote::CollectionDataSeq& data) override { return m_writer->put(data); }
    Svc::DiscoveryResult close() override { return m_writer->close(); }

  private:
    Remote::RemoteWriter_var m_writer;
};

class OrbService : public Service
{
  public:
    OrbService(Tlx::Orb& orb, const Remote::DiscoveryService_var& service)
        : m_orb(orb), m_service(service)
    {
    }

    std::unique_ptr<RecordPages> queryDiscoveries(Svc::DiscoveryQuery queryType,
                                                  Svc::AuthorityType type,
                                                  const std::string& authority,
                                                  const std::string& subject) override
    {
        Remote::DiscoveryIterator_var iterator =
            m_service->queryDiscoveries(queryType, type, authority.c_str(), subject.c_str());
        if (CORBA::is_nil(iterator))
            return nullptr;
        return std::make_unique<OrbPages<Remote::DiscoveryIterator, Remote::DiscoverySeq>>(
            iterator);
    }

    Svc::DiscoveryStatus getCollectionData(const Remote::Discovery& discovery,
                                           const std::string& filter,
                                           std::unique_ptr<DataPages>& pages) override
    {
        Remote::CollectionDataIterator_var iterator;
        const Svc::DiscoveryStatus status =
            m_service->getCollectionData(discovery, filter.c_str(), iterator.out());
        if (!CORBA::is_nil(iterator))
            pages = std::make_unique<
                OrbPages<Remote::CollectionDataIterator, Remote::CollectionDataSeq>>(iterator);
        return status;
    }

    Svc::DiscoveryResult putCollection(const Remote::Discovery& discovery,
                                       std::unique_ptr<Writer>& writer) override
    {
        Remote::RemoteWriter_var reference;
        const Svc::DiscoveryResult result = m_service->putCollection(discovery, reference.out());
        if (!CORBA::is_nil(reference))
            writer = std::make_unique<OrbWriter>(reference);
        return result;
    }

    bool terminate() override { return m_service->terminate(); }
    void restartLocalPushTimer() override { m_service->restartLocalPushTimer(); }
    bool restartAllPushTimers() override { return m_service->restartAllPushTimers(); }

    void ping() override
    {
        if (m_service->_non_existent())
            throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
    }

    void setRequestLimit(seconds limit) override
    {
        m_orb.setOrbRequestTimeout(static_cast<unsigned>(limit.count()));
    }

  private:
    Tlx::Orb& m_orb;
    Remote::DiscoveryService_var m_service;
};

} // namespace

Result<std::unique_ptr<Service>> connect(Tlx::Orb& orb, const Target& target, seconds limit)
{
    Svc::ServiceAddress address;
    address.host = Tlx::TlxHostname(target.host);
    address.endpoint = target.endpoint;
    address.limit = limit;
    address.elsewhere = false; // this process is no server, so no address leads back to it
    const auto service = Svc::connectToService(&orb, address);
    if (!service)
        return tl::unexpected(unreachable(target.host, target.endpoint, explain(service.error())));
    return std::make_unique<OrbService>(orb, *service);
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
