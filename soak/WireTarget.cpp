#include "WireTarget.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <optional>
#include <thread>
#include <vector>

#include <DiscoverySvc.hh>
#include <tlx/Servant.h>

namespace Veltrane::Quillmark::Soak {

namespace {

namespace Disc = Tlx::DiscoverySvc;
namespace Remote = Tlx::DiscoverySvc::Remote;
using Clock = std::chrono::steady_clock;

constexpr std::size_t PAGE_BYTES = 1u << 20;
constexpr CORBA::Long PAGE_RECORDS = 500;
/// How long a service may be down. The driver gives up earlier.
constexpr std::chrono::seconds OUTAGE_LIMIT(120);
constexpr std::chrono::milliseconds PAUSE(20);

Remote::Discovery recordOf(const Name& name, const Attributes& attributes = {})
{
    Remote::Discovery record;
    record.queryType = Disc::DQ_DISCOVERY_DATA;
    record.subject = CORBA::string_dup(name.subject.c_str());
    record.authority = CORBA::string_dup(name.authority.c_str());
    record.authType = Disc::AT_QMKCLIENT;
    record.attributes = {Disc::CT_POINT_IN_TIME, Disc::CS_CENTRALREPOSITORY,
                         static_cast<CORBA::Long>(attributes.priority),
                         static_cast<CORBA::ULongLong>(attributes.timeToLive.count()),
                         static_cast<CORBA::ULongLong>(std::time(nullptr))};
    record.sourceHost = CORBA::string_dup("");
    record.sourceServiceName = CORBA::string_dup("");
    return record;
}

class WireTarget : public Target
{
    struct PhaseEnd
    {
        Phase& phase;
        ~PhaseEnd() { phase.set(Phase::NOTHING); }
    };

    /// Turns a CORBA exception into Lost.
    template <class Function>
    auto guarded(const Function& function)
    {
        const PhaseEnd end{m_phase};
        try {
            return function();
        } catch (const CORBA::Exception& e) {
            throw Lost(Tlx::describeException(e));
        }
    }

    /// Does one call. A call that fails after its time is late.
    template <class Function>
    auto within(const Function& function)
    {
        const auto begin = Clock::now();
        try {
            return function();
        } catch (const CORBA::Exception& e) {
            if (Clock::now() - begin >= m_limit)
                throw Late(Tlx::describeException(e));
            throw;
        }
    }

  public:
    WireTarget(Tlx::Orb& orb, std::string endpointFile, std::chrono::seconds limit, Phase& phase)
        : m_orb(orb), m_endpointFile(std::move(endpointFile)), m_limit(limit), m_phase(phase)
    {
        m_orb.setOrbRequestTimeout(static_cast<unsigned>(limit.count()));
    }

    void connect() override
    {
        const auto deadline = Clock::now() + OUTAGE_LIMIT;
        std::string cause = "no endpoint";
        while (Clock::now() < deadline) {
            std::string endpoint;
            std::ifstream(m_endpointFile) >> endpoint;
            try {
                if (!endpoint.empty()) {
                    const CORBA::Object_var object = m_orb.getOrb()->string_to_object(
                        ("corbaloc:iiop:1.2@" + endpoint + "/DiscoveryService").c_str());
                    m_service = Remote::DiscoveryService::_narrow(object);
                    if (!CORBA::is_nil(m_service))
                        return;
                }
            } catch (const CORBA::Exception& e) {
                cause = Tlx::describeException(e);
            }
            std::this_thread::sleep_for(PAUSE);
        }
        throw Late("the service does not come up: " + cause);
    }

    PutOutcome put(const Name& name, const Attributes& attributes,
                   const std::string& payload) override
    {
        return guarded([&] {
            const auto writer = openWriter(name, attributes);
            if (!writer)
                return PutOutcome::OUTRANKED;
            send(*writer, payload);
            m_phase.set(Phase::NOTHING);
            const auto status = within([&] { return (*writer)->close(); }).discStatus;
            if (status == Disc::DS_DATA_EXISTS)
                return PutOutcome::OUTRANKED;
            require(status, "a close");
            return PutOutcome::STORED;
        });
    }

    ReadOutcome read(const Name& name, std::string& payload) override
    {
        return guarded([&] {
            Remote::CollectionDataIterator_var iterator;
            if (const auto failure = openData(name, iterator); failure != ReadOutcome::FOUND)
                return failure;
            within([&] { iterator->pageSize(static_cast<CORBA::Long>(PAGE_BYTES)); });
            payload.clear();
            for (;;) {
                const Remote::CollectionDataSeq_var page =
                    within([&] { return iterator->getNextPage(); });
                if (page->length() == 0)
                    break;
                payload.append(page->get_buffer(), page->get_buffer() + page->length());
            }
            m_phase.set(Phase::NOTHING);
            within([&] { iterator->release(); });
            return ReadOutcome::FOUND;
        });
    }

    std::vector<std::string> list(const std::string& authority, const std::string& subject) override
    {
        return guarded([&] {
            m_phase.set(Phase::LIST);
            const Remote::DiscoveryIterator_var iterator = within([&] {
                return m_service->queryDiscoveries(Disc::DQ_DISCOVERY_DATA, Disc::AT_ANYANDALL,
                                                   authority.c_str(), subject.c_str());
            });
            within([&] { iterator->pageSize(PAGE_RECORDS); });
            std::vector<std::string> found;
            for (;;) {
                const Remote::DiscoverySeq_var page =
                    within([&] { return iterator->getNextPage(); });
                if (page->length() == 0)
                    break;
                const Remote::DiscoverySeq& records = page.in();
                for (CORBA::ULong i = 0; i < records.length(); ++i)
                    found.push_back(
                        Name{records[i].authority.in(), records[i].subject.in()}.text());
            }
            m_phase.set(Phase::NOTHING);
            within([&] { iterator->release(); });
            return found;
        });
    }

    bool mayAbandon() const override { return true; }

    void abandonWriter(const Name& name, const Attributes& attributes,
                       const std::string& payload) override
    {
        guarded([&] {
            if (const auto writer = openWriter(name, attributes))
                send(*writer, payload);
        });
    }

    bool abandonData(const Name& name) override
    {
        return guarded([&] {
            Remote::CollectionDataIterator_var iterator;
            if (openData(name, iterator) != ReadOutcome::FOUND)
                return false;
            within([&] { iterator->pageSize(1); });
            const Remote::CollectionDataSeq_var page =
                within([&] { return iterator->getNextPage(); });
            return true;
        });
    }

    void abandonList(const std::string& authority) override
    {
        guarded([&] {
            m_phase.set(Phase::LIST);
            const Remote::DiscoveryIterator_var iterator = within([&] {
                return m_service->queryDiscoveries(Disc::DQ_DISCOVERY_DATA, Disc::AT_ANYANDALL,
                                                   authority.c_str(), "*");
            });
            within([&] { iterator->pageSize(1); });
            const Remote::DiscoverySeq_var page = within([&] { return iterator->getNextPage(); });
        });
    }

  private:
    static void require(Disc::DiscoveryStatus status, const char* what)
    {
        if (status != Disc::DS_SUCCESS)
            throw Lost(std::string(what) + " is answered with status " + std::to_string(status));
    }

    /// Nothing if a record of higher priority is stored.
    std::optional<Remote::RemoteWriter_var> openWriter(const Name& name,
                                                       const Attributes& attributes)
    {
        Remote::RemoteWriter_var writer;
        m_phase.set(Phase::WRITER);
        const auto status =
            within([&] {
                return m_service->putCollection(recordOf(name, attributes), writer.out());
            }).discStatus;
        if (status == Disc::DS_DATA_EXISTS)
            return std::nullopt;
        require(status, "a put");
        return writer;
    }

    void send(const Remote::RemoteWriter_var& writer, const std::string& payload)
    {
        Remote::CollectionDataSeq page;
        for (std::size_t done = 0; done < payload.size(); done += PAGE_BYTES) {
            const std::size_t size = std::min(PAGE_BYTES, payload.size() - done);
            page.length(static_cast<CORBA::ULong>(size));
            std::copy_n(payload.begin() + static_cast<std::ptrdiff_t>(done), size,
                        page.get_buffer());
            if (!within([&] { return writer->put(page); }))
                throw Lost("a page is refused");
        }
    }

    ReadOutcome openData(const Name& name, Remote::CollectionDataIterator_var& iterator)
    {
        m_phase.set(Phase::DATA);
        const auto status = within(
            [&] { return m_service->getCollectionData(recordOf(name), "", iterator.out()); });
        if (status == Disc::DS_NONE_FOUND)
            return ReadOutcome::ABSENT;
        if (status == Disc::DS_OPEN_FAILED)
            return ReadOutcome::UNREADABLE;
        require(status, "a read");
        return ReadOutcome::FOUND;
    }

    Tlx::Orb& m_orb;
    const std::string m_endpointFile;
    const std::chrono::seconds m_limit;
    Phase& m_phase;
    Remote::DiscoveryService_var m_service;
};

} // namespace

std::unique_ptr<Target> makeWireTarget(Tlx::Orb& orb, const std::string& endpointFile,
                                       std::chrono::seconds limit, Phase& phase)
{
    return std::make_unique<WireTarget>(orb, endpointFile, limit, phase);
}

} // namespace Veltrane::Quillmark::Soak
