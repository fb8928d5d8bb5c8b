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

/// Any thread may use it. No lock is held while a library runs.
class DISCSRV_EXPORT ExplorerParsers
{
  public:
    ExplorerParsers();
    ~ExplorerParsers();
    ExplorerParsers(const ExplorerParsers&) = delete;
    ExplorerParsers& operator=(const ExplorerParsers&) = delete;

    /// Sets the function that asks the libraries for their parsers. Only the first call counts. The
    /// first search for a parser calls the function, once.
    void setLoader(std::function<void()> load);

    /// Keeps a reference to the parser; the first one for a type stays.
    void add(const TlxString& type, const ExplorerDataParser* parser);

    /// Returns the parser for a type, or else the default parser, which is always the same. The
    /// caller releases the reference. The first call loads the parsers and other calls wait for it.
    /// If they did not wait, the default parser would read a block now, and the right parser would
    /// read the same block a moment later. A library that asks while it is being loaded does not
    /// wait. It finds only the parsers that are there so far.
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
