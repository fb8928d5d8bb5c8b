#include "ExplorerWrapper.h"

#include <utility>

#include <tlx/Plugin.h>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

template <class Name>
bool isLess(const Name& a, const Name& b)
{
    return !(a == b) && !(a > b);
}

/// An explorer is foreign code: getExplorerName may return null or throw.
std::string nameOf(const Explorer& explorer)
{
    try {
        const char* name = explorer.getExplorerName();
        return name ? name : "?";
    } catch (...) {
        return "?"; // the next guarded call logs what the explorer throws
    }
}

} // namespace

ExplorerWrapper::ExplorerWrapper(const Explorer* explorer, const unsigned int& priority,
                                 const Subject* subject, const Authority* authority)
    : m_explorer(AutoDereference<Explorer>::share(const_cast<Explorer*>(explorer))),
      m_priority(priority), m_authority(*authority), m_subject(*subject), m_name(nameOf(*explorer)),
      m_library(currentLibrary())
{
}

ExplorerWrapper::~ExplorerWrapper() = default;

std::string ExplorerWrapper::describe() const
{
    return "Explorer " + m_name + (m_library.empty() ? "" : " of " + m_library);
}

void ExplorerWrapper::setRegistrant(Registrant registrant, std::string peer)
{
    m_registrant = registrant;
    m_peer = std::move(peer);
}

ExplorerWrapper::Outcome ExplorerWrapper::lastOutcome() const
{
    const std::lock_guard guard(m_outcomeMutex);
    return m_outcome;
}

void ExplorerWrapper::setLastOutcome(const std::string& text) const
{
    const TlxObjTime now = TlxObjTime::now();
    const std::lock_guard guard(m_outcomeMutex);
    m_outcome = {now, text};
}

// Compat(comparator-order): peers and plug-ins rely on the contents of the explorer sets. A greater
// authority falls through to the subjects.
bool LtdExplorerWrapper::operator()(const AutoDereference<ExplorerWrapper>& a,
                                    const AutoDereference<ExplorerWrapper>& b) const
{
    const Authority& first = *a->getAuthority();
    const Authority& second = *b->getAuthority();
    if (isLess(first, second) && first.getType() != AT_REMOTEPULL &&
        second.getType() != AT_REMOTEPULL)
        return true;
    return isLess(*a->getSubject(), *b->getSubject());
}

// Compat(comparator-query-order): peers rely on the order and number of pull explorers in a query.
bool LtdExplorerQuery::operator()(const AutoDereference<ExplorerQuery>& a,
                                  const AutoDereference<ExplorerQuery>& b) const
{
    const ExplorerWrapper& first = a->getWrapper();
    const ExplorerWrapper& second = b->getWrapper();
    return isLess(*first.getAuthority(), *second.getAuthority()) ||
           isLess(*first.getSubject(), *second.getSubject());
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
