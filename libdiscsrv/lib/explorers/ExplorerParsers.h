#pragma once
// The parsers of explorers' data, by the explorer's name.

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <tlx/Lockable.h>

#include "DefaultExplorerDataParser.h"
#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Any thread. No lock is held while a library runs.
class DISCSRV_EXPORT ExplorerParsers
{
  public:
    ExplorerParsers();
    ~ExplorerParsers();
    ExplorerParsers(const ExplorerParsers&) = delete;
    ExplorerParsers& operator=(const ExplorerParsers&) = delete;

    /// What asks the libraries for their parsers. The first one given stays, and is called once,
    /// when a parser is looked for.
    void setLoader(std::function<void()> load);

    /// Keeps a reference to the parser; the first one for a type stays.
    void add(const TlxString& type, const ExplorerDataParser* parser);

    /// The parser for a type, or the default one, which is the same each time: a reference for the
    /// caller to release. The first call loads. Others wait for that load: a block that the default
    /// parser took instead would read differently from one moment to the next. A library that asks
    /// while it is being loaded does not wait, and finds what has been added so far.
    ExplorerDataParser* find(const TlxString& type);

  private:
    void load();

    enum class State
    {
        NOT_LOADED,
        LOADING,
        LOADED
    };
    std::mutex m_loadMutex; // for the next four; never held while a library runs
    std::condition_variable m_loadEnded;
    State m_state = State::NOT_LOADED;
    std::thread::id m_loading; ///< the thread that loads
    std::function<void()> m_loader;

    TlxLockable m_table; // a leaf, for the next two
    std::map<TlxString, AutoDereference<ExplorerDataParser>> m_parsers;
    AutoDereference<DefaultExplorerDataParser> m_default;
};

/// The parsers of this process.
DISCSRV_EXPORT ExplorerParsers& getExplorerParsers();

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
