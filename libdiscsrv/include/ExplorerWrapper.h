#pragma once
// The entries of the explorer registry.

#include <mutex>
#include <set>
#include <string>

#include <tlx/ObjTime.h>

#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Who made a registration.
enum class Registrant
{
    PROCESS, ///< an explorer of this process
    PEER,    ///< another host, by a request
    STORE    ///< some host before the last start
};

/// One registration: an explorer, the subject and authority of its records, and its priority. Only
/// the explorer's context and the outcome of its last call change. Any thread may use it. Other
/// objects refer to a registration by its address, so it cannot be copied.
class DISCSRV_EXPORT ExplorerWrapper : public virtual TLXRefCounted
{
  public:
    /// Takes a reference to the explorer and copies subject and authority. No pointer may be null.
    ExplorerWrapper(const Explorer* explorer, const unsigned int& priority, const Subject* subject,
                    const Authority* authority);
    ExplorerWrapper(const ExplorerWrapper&) = delete;
    ExplorerWrapper& operator=(const ExplorerWrapper&) = delete;
    ~ExplorerWrapper() override;

    Explorer* getExplorer() const { return m_explorer.get(); }
    unsigned int getPriority() const { return m_priority; } ///< a higher number wins
    /// Authority and subject are never null. They live as long as the registration.
    const Authority* getAuthority() const { return &m_authority; }
    const Subject* getSubject() const { return &m_subject; }
    /// The explorer's own state, which every call to the explorer receives.
    AutoDereference<TLXRefCounted>& getExplorerContext() const { return m_explorerContext; }

    /// The path of the library that registered the explorer; empty for an explorer of the service
    /// itself.
    const std::string& getLibrary() const { return m_library; }
    /// The explorer's name; "?" when the explorer returned null or threw.
    const std::string& getName() const { return m_name; }
    /// The explorer's name and its library, for a log line.
    std::string describe() const;

    /// Set it before the registration. Without it the registration belongs to this process.
    /// @param peer of Registrant::PEER: its RequestPeer::key; otherwise empty.
    void setRegistrant(Registrant registrant, std::string peer);
    Registrant getRegistrant() const { return m_registrant; }
    const std::string& getPeer() const { return m_peer; }

    /// How the last push or pull ended.
    struct Outcome
    {
        TlxObjTime time; ///< zero before the first push or pull
        std::string text;
    };
    Outcome lastOutcome() const;
    /// Stores the text with the current time.
    void setLastOutcome(const std::string& text) const;

  private:
    const AutoDereference<Explorer> m_explorer;
    const unsigned int m_priority;
    const Authority m_authority;
    const Subject m_subject;
    mutable AutoDereference<TLXRefCounted> m_explorerContext;
    const std::string m_name;
    const std::string m_library;
    Registrant m_registrant = Registrant::PROCESS;
    std::string m_peer;
    mutable std::mutex m_outcomeMutex;
    mutable Outcome m_outcome;
};

/// The order of the registry's sets. A lesser authority comes first, unless one of the two
/// authorities is of type AT_REMOTEPULL. In all other cases the lesser subject comes first.
///
/// This comparator is not a strict weak ordering: a greater authority falls through to the
/// subjects. So `insert` may hit an equal element that `find` missed.
struct DISCSRV_EXPORT LtdExplorerWrapper
{
    bool operator()(const AutoDereference<ExplorerWrapper>& a,
                    const AutoDereference<ExplorerWrapper>& b) const;
};

using ExplorerSet = std::set<AutoDereference<ExplorerWrapper>, LtdExplorerWrapper>;

/// The authority and subject that a request asks for. Both names may hold wildcards.
class ExplorerIdentity : public virtual TLXRefCounted
{
  public:
    ExplorerIdentity(TlxString authority, TlxString subject)
        : m_authority(std::move(authority)), m_subject(std::move(subject))
    {
    }
    const TlxString& getAuthority() const { return m_authority; }
    const TlxString& getSubject() const { return m_subject; }

  private:
    const TlxString m_authority;
    const TlxString m_subject;
};

/// One of the pull explorers that answer a request.
class ExplorerQuery : public virtual TLXRefCounted
{
  public:
    explicit ExplorerQuery(const AutoDereference<ExplorerWrapper>& wrapper) : m_wrapper(wrapper) {}
    const ExplorerWrapper& getWrapper() const { return *m_wrapper; }

  private:
    const AutoDereference<ExplorerWrapper> m_wrapper;
};

/// The order of LtdExplorerWrapper without the exception for AT_REMOTEPULL.
struct DISCSRV_EXPORT LtdExplorerQuery
{
    bool operator()(const AutoDereference<ExplorerQuery>& a,
                    const AutoDereference<ExplorerQuery>& b) const;
};

using ExplorerQuerySet = std::set<AutoDereference<ExplorerQuery>, LtdExplorerQuery>;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
