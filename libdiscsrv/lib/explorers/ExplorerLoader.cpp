#include "ExplorerLoader.h"

#include <mutex>

#include "DiscLog.h"
#include "Explorer.h"

using Veltrane::Quillmark::Tlx::SymbolException;

bool RegisterInterface::call(
    Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository) const
{
    if (!m_function.isResolved())
        throw SymbolException(m_function.symbol());
    return m_function.call(repository);
}

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

constexpr const char* LOG_SOURCE = "../ExplorerLoader";

/// The platform's loader adds the suffix and the directory.
// Compat(plugin-default-library): installations have the default explorers under this name and
// version.
constexpr const char* DEFAULT_LIBRARY = "libqmexplorer";
constexpr int DEFAULT_LIBRARY_VERSION = 1;

} // namespace

/// One kind of load.
struct ExplorerLoader::Load
{
    const char* operation;
    Kind kind;
    bool& done;
    SymbolResolver& resolved; ///< resolved in the default library
    RegisterInterface& called;
    const char* found;
    const char* completed;
};

ExplorerLoader* ExplorerLoader::instance(const EngineContext& context)
{
    DISC_TRACE("ExplorerLoader::instance");
    static std::once_flag once;
    std::call_once(once, [] { setKitVersion({"QmExplorerKitVersion", QM_EXPLORER_KIT_VERSION}); });
    return new ExplorerLoader(context);
}

ExplorerLoader::~ExplorerLoader() = default;

void ExplorerLoader::loadExplorers()
{
    load({"ExplorerLoader::loadExplorers", EXPLORERS, m_explorersLoaded, m_explorerResolver,
          m_explorerResolver, "Found default explorer library, will register explorers",
          // Compat(log-loader): log readers know "uri schemes".
          "Registration of uri schemes in default scheme library completed"});
}

void ExplorerLoader::loadExplorerParsers()
{
    load({"ExplorerLoader::loadExplorerParsers", PARSERS, m_parsersLoaded, m_parserResolver,
          m_parserResolver, "Found default explorer library, will register explorer parsers",
          "Registration of explorer parsers in default library completed"});
}

void ExplorerLoader::loadExplorerFilterData()
{
    // Compat(plugin-filter-data): plug-ins are the only libraries that provide filter data. In the
    // default library this resolves the symbol of the parsers and then calls the one of the filter
    // data. So log readers find "Unable to resolve symbol" in each program that loads filter data.
    // The daemon never does.
    load({"ExplorerLoader::loadExplorerFilterData", FILTER_DATA, m_filterDataLoaded,
          m_parserResolver, m_filterDataResolver,
          "Found default explorer library, will register explorer filter data",
          "Registration of explorer filter data in default library completed"});
}

void ExplorerLoader::load(const Load& load)
{
    DISC_TRACE(load.operation);
    const LockableGuard lockableGuard(*this);
    if (!TLX_ASSERT(lockableGuard.locked()) || load.done || !TLX_ASSERT(m_repository))
        return;
    try {
        loadDefault(load);
    } catch (const SymbolException& e) {
        DISC_WARN("Unable to resolve symbol " << e.symbol() << " in " << DEFAULT_LIBRARY);
    }
    if (auto* const director = getEngineSingleton<PluginDirector>(*m_context))
        director->iteratePluginLibraries(*this, load.kind);
    load.done = true;
}

void ExplorerLoader::loadDefault(const Load& load)
{
    auto* const loader = getEngineSingleton<RuntimeLoader>(*m_context);
    bool found = false;
    if (!loader || !loader->loadInterface(DEFAULT_LIBRARY, load.resolved, found, nullptr, false,
                                          DEFAULT_LIBRARY_VERSION))
        return;
    if (!found)
        return;
    DISC_LOG(4, load.found);
    if (load.called.call(m_repository))
        DISC_LOG(4, load.completed);
}

namespace {

/// Resolves one entry point in a plug-in library, keeps its resolver and calls it.
// Compat(log-loader): log readers know "Did not found the".
template <class Interface>
void registerFrom(PluginDirector& director, const std::string& library,
                  DiscoveryRepository* repository,
                  std::list<std::unique_ptr<Interface>>& interfaces, const char* missing,
                  const char* what)
{
    auto resolver = std::make_unique<Interface>();
    std::string resolvedName;
    if (!director.loadPluginInterface(library, *resolver, resolvedName)) {
        DISC_LOG(4, "Did not found the " << missing << " on plugin " << library);
        return;
    }
    const Interface& found = *interfaces.emplace_back(std::move(resolver));
    DISC_LOG(4, "Beginning registration of " << what << " in " << resolvedName);
    if (found.call(repository))
        DISC_LOG(4, "Registration of " << what << " in " << resolvedName << " completed");
}

} // namespace

void ExplorerLoader::libraryCallback(PluginDirector* director, const std::string& library,
                                     unsigned long long kind)
{
    DISC_TRACE("ExplorerLoader::libraryCallback");
    switch (kind) {
    case EXPLORERS:
        return registerFrom(*director, library, m_repository, m_explorerInterfaces,
                            "explorer interface", "explorers");
    case PARSERS:
        return registerFrom(*director, library, m_repository, m_parserInterfaces,
                            "explorer parser interface", "explorer parser");
    case FILTER_DATA:
        return registerFrom(*director, library, m_repository, m_filterDataInterfaces,
                            "filter data interface", "explorer filter data");
    default:
        TLX_SHOULD_NOT_GET_HERE();
    }
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
