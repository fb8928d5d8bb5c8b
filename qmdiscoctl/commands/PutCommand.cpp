#include <algorithm>
#include <vector>

#include <ServiceName.h>

#include "Commands.h"
#include "Input.h"
#include "Names.h"
#include "Progress.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// The bytes of one request. They are enough to make round trips cheap, and fewer than every
/// service's limit on messages.
constexpr std::size_t CHUNK_BYTES = 1u << 20;

const char* whyNotStored(Svc::DiscoveryStatus status)
{
    switch (status) {
    case Svc::DS_OPEN_FAILED:
        return "its store cannot take it, or refuses the name; its log has the reason";
    case Svc::DS_COM_ERROR:
        return "it failed to reach the service it stores with";
    case Svc::DS_DATA_EXISTS:
        return "one of higher priority is stored";
    default:
        return "its log has the reason";
    }
}

Remote::Discovery recordOf(const Session& session)
{
    const Options& options = session.options;
    Remote::Discovery record;
    record.queryType = options.queryType;
    record.subject = options.subject.c_str();
    record.authority = options.authority.c_str();
    record.authType = options.type;
    record.attributes.colType = Svc::CT_POINT_IN_TIME;
    record.attributes.colStorage = Svc::CS_CENTRALREPOSITORY;
    // Signed on the wire, unsigned in the record.
    record.attributes.priority = static_cast<CORBA::Long>(options.priority);
    record.attributes.timeToLive = options.timeToLive;
    record.attributes.discoveryTime =
        static_cast<CORBA::ULongLong>(std::max<std::int64_t>(session.epochSeconds(), 0));
    record.sourceHost = session.localHost.c_str();
    record.sourceServiceName = Svc::DISCOVERY_SERVICE;
    return record;
}

/// One put, from the input to the answer.
class Put
{
  public:
    explicit Put(Session& session) : m_session(session), m_options(session.options) {}
    [[nodiscard]] Result<> run();

  private:
    [[nodiscard]] Result<> send(Service& service);
    [[nodiscard]] Result<> sendData(Writer& writer);
    Failure refused(Svc::DiscoveryStatus status) const;
    /// "; 3 of 5 bytes were sent, nothing was stored".
    std::string sentText() const;

    Session& m_session;
    const Options& m_options;
    Input m_input;
    std::uint64_t m_sent = 0;
};

Result<> Put::run()
{
    // First do the steps that can fail on this side, before the service has any work.
    if (isPattern(m_options.subject) || isPattern(m_options.authority))
        return tl::unexpected(
            Failure{EC_USAGE, "cannot store " + escaped(m_options.subject) + " of " +
                                  escaped(m_options.authority) +
                                  ": * and ? stand for other characters in a query, so "
                                  "nothing could read it by that name"});
    if (auto done = m_input.open(m_options.input); !done)
        return done;
    const auto service = m_session.connect();
    if (!service)
        return tl::unexpected(service.error());
    if (auto done = send(**service); !done)
        return done;
    return answer(m_session,
                  "stored " + bytesText(m_sent) + " as " + escaped(m_options.subject) + " of " +
                      escaped(m_options.authority) + " (" + toName(m_options.type) + ") on " +
                      escaped(m_session.target.host) + "\n",
                  {{"host", m_session.target.host},
                   {"subject", m_options.subject},
                   {"authority", m_options.authority},
                   {"type", toName(m_options.type)},
                   {"bytes", m_sent}});
}

// Close the writer only after everything was sent. The service stores the received data at the
// close. So an early close would replace a good discovery by incomplete data. A writer without a
// close stores nothing.
Result<> Put::send(Service& service)
{
    std::unique_ptr<Writer> writer;
    try {
        const Svc::DiscoveryResult opened = service.putCollection(recordOf(m_session), writer);
        if (opened.discStatus != Svc::DS_SUCCESS)
            return tl::unexpected(refused(opened.discStatus));
        if (!writer)
            return tl::unexpected(
                Failure{EC_BROKE_OFF, theService(m_session) + " answered without a writer"});
        if (auto done = sendData(*writer); !done)
            return done;
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(m_session, exception, sentText()));
    }
    try {
        const Svc::DiscoveryResult closed = writer->close();
        if (closed.discStatus != Svc::DS_SUCCESS)
            return tl::unexpected(refused(closed.discStatus));
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(brokeOff(m_session, exception,
                                       "; all " + bytesText(m_sent) +
                                           " were sent, whether they were stored is not known"));
    }
    return {};
}

Result<> Put::sendData(Writer& writer)
{
    Progress progress(m_session.errorsAreTerminal, "put", m_input.size());
    std::vector<unsigned char> buffer(CHUNK_BYTES);
    for (;;) {
        const auto count = m_input.read(buffer);
        if (!count)
            return tl::unexpected(Failure{count.error().code, count.error().text + sentText()});
        if (*count == 0)
            return {};
        // The sequence borrows the buffer.
        const auto length = static_cast<CORBA::ULong>(*count);
        const Remote::CollectionDataSeq data(length, length, buffer.data(), false);
        if (!writer.put(data))
            return tl::unexpected(Failure{
                EC_BROKE_OFF, theService(m_session) +
                                  " failed to take the data; its log has the reason" + sentText()});
        m_sent += *count;
        progress.add(*count);
    }
}

Failure Put::refused(Svc::DiscoveryStatus status) const
{
    std::string text = theService(m_session) + " did not store " + escaped(m_options.subject) +
                       " of " + escaped(m_options.authority) + ": " + toName(status) + ", " +
                       whyNotStored(status);
    return {exitCodeOf(status), text};
}

std::string Put::sentText() const
{
    const std::string total = m_input.size() ? " of " + std::to_string(*m_input.size()) : "";
    return "; " + std::to_string(m_sent) + total + " bytes were sent, nothing was stored";
}

} // namespace

Result<> runPut(Session& session)
{
    return Put(session).run();
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
