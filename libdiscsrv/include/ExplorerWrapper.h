#pragma once
// The entries of the explorer registry.

#include <mutex>
#include <set>
#include <string>

#include <tlx/ObjTime.h>

#include "Explorer.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// One registration: an explorer, what it reports on, and its priority. Immutable but for the
/// explorer's context and the outcome of its last call; any thread.
class DISCSRV_EXPORT ExplorerWrapper : public virtual TLXRefCounted
{
  public:
    /// Takes a reference to the explorer, and copies of subject and authority. None is null.
    ExplorerWrapper(const Explorer* explorer, const unsigned int& priority, const Subject* subject,
                    const Authority* authority);
    ~ExplorerWrapper() override;

    Explorer* getExplorer() const { return m_explorer.get(); }
    unsigned int getPriority() const { return m_priority; } ///< a higher number wins
    const Authority* getAuthority() const { return m_authority; }
    const Subject* getSubject() const { return m_subject; }
    /// The explorer's own state, handed to its calls.
    AutoDereference<TLXRefCounted>& getExplorerContext() const { return m_explorerContext; }

    /// The path of the library whose entry point registered it; empty for the service's own.
    const std::string& getLibrary() const { return m_library; }
    /// The explorer's name, "?" when it told none.
    const std::string& getName() const { return m_name; }
    /// For a log line: the explorer's name, and the library's.
    std::string describe() const;

    /// How the last push or pull went.
    struct Outcome
    {
        TlxObjTime time; ///< zero: there was none
        std::string text;
    };
    Outcome lastOutcome() const;
    void setLastOutcome(const std::string& text) const; ///< as of now

  private:
    const AutoDereference<Explorer> m_explorer;
    const unsigned int m_priority;
    const Authority* const m_authority; ///< owned
    const Subject* const m_subject;     ///< owned
    mutable AutoDereference<TLXRefCounted> m_explorerContext;
    const std::string m_name;
    const std::string m_library;
    mutable std::mutex m_outcomeMutex;
    mutable Outcome m_outcome;
};

/// The order of the registry's sets. Authorities first, unless one of them is a remote pull's:
/// then, and when the authority is not less, the subjects alone decide. So an authority that is
/// greater falls through to the subjects, which makes this no strict order; the sets' contents
/// depend on it.
struct DISCSRV_EXPORT LtdExplorerWrapper
{
    bool operator()(const AutoDereference<ExplorerWrapper>& a,
                    const AutoDereference<ExplorerWrapper>& b) const;
};

using ExplorerSet = std::set<AutoDereference<ExplorerWrapper>, LtdExplorerWrapper>;

/// What a request asks for; both names may hold wildcards.
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

/// One pull explorer among those that answer a request.
class ExplorerQuery : public virtual TLXRefCounted
{
  public:
    explicit ExplorerQuery(const AutoDereference<ExplorerWrapper>& wrapper) : m_wrapper(wrapper) {}
    const ExplorerWrapper& getWrapper() const { return *m_wrapper; }

  private:
    const AutoDereference<ExplorerWrapper> m_wrapper;
};

/// The same order without the exception for remote pulls.
struct DISCSRV_EXPORT LtdExplorerQuery
{
    bool operator()(const AutoDereference<ExplorerQuery>& a,
                    const AutoDereference<ExplorerQuery>& b) const;
};

using ExplorerQuerySet = std::set<AutoDereference<ExplorerQuery>, LtdExplorerQuery>;

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
