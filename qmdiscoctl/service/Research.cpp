#include "Research.h"

#include <tlx/HostConfig.h>

#include "Text.h"

namespace Veltrane::Quillmark::Qmdiscoctl {

// The researcher asks the master. Here the target of all commands takes the place of the master.
// The records of this host always have its own name, even if the target has another name.
bool Research::begin()
{
    if (m_begun)
        return true;
    Svc::MasterAddress master{m_target.host, m_target.endpoint, {}};
    if (m_target.local)
        master.aliases.push_back(Tlx::HostConfig::instance().localHostName());
    m_begun = Svc::initDiscoveryResearch(master).has_value();
    return m_begun;
}

Result<> Research::read(Svc::DiscoveryQuery query, const std::string& subject,
                        const std::string& authority, const Svc::FilterParameters* filter,
                        const EachDiscovery& each)
{
    if (!begin())
        return tl::unexpected(
            Failure{EC_FAILURE, "discoveries cannot be read back by this process"});
    const auto all = Svc::researchDiscoveries(query, subject, authority, Svc::AT_ANYANDALL);
    if (!all)
        return tl::unexpected(Failure{EC_BROKE_OFF, "the discovery service on " +
                                                        escaped(m_target.host) +
                                                        " did not answer the query"});
    for (;;) {
        const Tlx::AutoDereference<Svc::CollectionItemIterator> items(
            (*all)->getNextCollectionItemIterator(filter));
        if (!items)
            return {};
        each(*items);
    }
}

} // namespace Veltrane::Quillmark::Qmdiscoctl
