#include "Commands.h"
#include "Names.h"
#include "Progress.h"
#include "Records.h"
#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

namespace {

/// With large pages, few round trips are enough. The service may answer with shorter ones.
constexpr CORBA::Long PAGE_BYTES = 1 << 20;

const char* whyNotRead(Svc::DiscoveryStatus status)
{
    switch (status) {
    case Svc::DS_NONE_FOUND:
        return "there is no such discovery";
    case Svc::DS_LOGIC_ERROR:
        return "the names must fit exactly one discovery, and hold no wildcards";
    case Svc::DS_OPEN_FAILED:
        return "its data cannot be opened; the service's log has the reason";
    case Svc::DS_COM_ERROR:
        return "it failed to reach the service that has the data";
    default:
        return "its log has the reason";
    }
}

Remote::Discovery recordOf(const Options& options)
{
    return recordNamed(options.subject, options.authority, options.type, options.queryType);
}

/// One get, from opening the output to the last page.
class Get
{
  public:
    explicit Get(Session& session) : m_session(session), m_options(session.options) {}
    [[nodiscard]] Result<> run();

  private:
    Failure refused(Svc::DiscoveryStatus status) const;
    [[nodiscard]] Result<> receive(Service& service, Output& output);
    [[nodiscard]] Result<> receivePages(DataPages& pages, Output& output);

    Session& m_session;
    const Options& m_options;
    std::uint64_t m_received = 0;
};

Result<> Get::run()
{
    // First do the steps that can fail on this side, before the service has any work.
    if (isPattern(m_options.subject) || isPattern(m_options.authority))
        return tl::unexpected(refused(Svc::DS_LOGIC_ERROR));
    const bool toFile = !m_options.output.empty();
    std::unique_ptr<Output> file;
    if (toFile) {
        auto opened = makeFileOutput(m_options.output);
        if (!opened)
            return tl::unexpected(opened.error());
        file = std::move(*opened);
    }
    const auto service = m_session.connect();
    if (!service)
        return tl::unexpected(service.error());
    if (auto done = receive(**service, toFile ? *file : m_session.out); !done)
        return done;
    if (!toFile)
        return {}; // standard output gets only the data
    if (auto done = file->finish(); !done)
        return done;
    return answer(m_session,
                  "wrote " + bytesText(m_received) + " to " + escaped(m_options.output) + "\n",
                  {{"host", m_session.target.host},
                   {"subject", m_options.subject},
                   {"authority", m_options.authority},
                   {"file", m_options.output},
                   {"bytes", m_received}});
}

Failure Get::refused(Svc::DiscoveryStatus status) const
{
    return {exitCodeOf(status), "cannot read " + escaped(m_options.subject) + " of " +
                                    escaped(m_options.authority) + " from " +
                                    theService(m_session) + ": " + toName(status) + ", " +
                                    whyNotRead(status)};
}

Result<> Get::receive(Service& service, Output& output)
{
    try {
        std::unique_ptr<DataPages> pages;
        const Svc::DiscoveryStatus status =
            service.getCollectionData(recordOf(m_options), m_options.filter, pages);
        if (status != Svc::DS_SUCCESS)
            return tl::unexpected(refused(status));
        if (!pages)
            return tl::unexpected(
                Failure{EC_BROKE_OFF, theService(m_session) + " answered without an iterator"});
        auto received = receivePages(*pages, output);
        try {
            pages->release();
        } catch (const CORBA::SystemException&) {
            // The service removes an idle iterator by itself.
        }
        return received;
    } catch (const CORBA::SystemException& exception) {
        return tl::unexpected(
            brokeOff(m_session, exception, "; " + bytesText(m_received) + " were received"));
    }
}

Result<> Get::receivePages(DataPages& pages, Output& output)
{
    // If the data goes to the same terminal, the person sees the progress anyway.
    const bool shown =
        m_session.errorsAreTerminal && !(m_options.output.empty() && m_session.outIsTerminal);
    Progress progress(shown, "get", std::nullopt);
    pages.setPageSize(PAGE_BYTES);
    for (;;) {
        const std::unique_ptr<Remote::CollectionDataSeq> page = pages.next();
        const std::size_t count = page->length();
        if (count == 0)
            return {};
        const auto* const bytes = reinterpret_cast<const char*>(page->get_buffer());
        if (auto done = output.write({bytes, count}); !done)
            return done;
        m_received += count;
        progress.add(count);
    }
}

} // namespace

Result<> runGet(Session& session)
{
    return Get(session).run();
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
