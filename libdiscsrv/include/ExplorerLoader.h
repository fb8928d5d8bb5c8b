#pragma once
// Loads the libraries that provide explorers, parsers of their data, and filter data.

#include <list>
#include <memory>
#include <string>

#include <tlx/Lockable.h>
#include <tlx/Plugin.h>

#include "DiscExport.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {
class DiscoveryRepository;
}

/// One entry point of a library, `void NAME(DiscoveryRepository*)` with C linkage. The library
/// registers its objects with the repository there.
class DISCSRV_EXPORT RegisterInterface : public Veltrane::Quillmark::Tlx::SymbolResolver
{
  public:
    std::vector<Veltrane::Quillmark::Tlx::LibraryFunction*> functions() override
    {
        return {&m_function};
    }
    /// Calls the library's function and logs what it throws. Returns false if it threw.
    /// @throws SymbolException if the function is not resolved.
    bool call(Veltrane::Quillmark::Tlx::DiscoverySvc::DiscoveryRepository* repository) const;

  protected:
    explicit RegisterInterface(const char* symbol) : m_function(symbol, true) {}

  private:
    Veltrane::Quillmark::Tlx::LibraryFunction m_function;
};

// Compat(plugin-entry-points): plug-ins export the three functions below.
class DISCSRV_EXPORT RegisterExplorerInterface : public RegisterInterface
{
  public:
    RegisterExplorerInterface() : RegisterInterface("RegisterExplorers") {}
};

class DISCSRV_EXPORT RegisterExplorerParserInterface : public RegisterInterface
{
  public:
    RegisterExplorerParserInterface() : RegisterInterface("RegisterExplorerParsers") {}
};

class DISCSRV_EXPORT RegisterFilterDataInterface : public RegisterInterface
{
  public:
    RegisterFilterDataInterface() : RegisterInterface("RegisterExplorerFilterDataProvider") {}
};

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Loads each kind of object at most once: first from the default library, then from every plug-in
/// library. It asks a library that is both twice. Any thread may use it, and concurrent callers see
/// one load. Each engine context owns one loader.
class DISCSRV_EXPORT ExplorerLoader : public EngineSingleton,
                                      public LibraryIterationCallback,
                                      public virtual TlxLockable
{
  public:
    /// Makes a loader. The engine context calls it once and becomes the owner.
    static ExplorerLoader* instance(const EngineContext& context);
    ~ExplorerLoader() override;

    /// Asks one plug-in library for one kind of objects.
    /// @param kind a Kind, which selects the entry point.
    void libraryCallback(PluginDirector* director, const std::string& library,
                         unsigned long long kind) override;

    /// The repository that the libraries register with. Set it before the first load. Not owned.
    void setRepository(DiscoveryRepository* repository) { m_repository = repository; }

    void loadExplorers();
    void loadExplorerParsers();
    void loadExplorerFilterData();

  private:
    enum Kind : unsigned long long
    {
        EXPLORERS = 0,
        PARSERS = 1,
        FILTER_DATA = 2
    };
    struct Load;

    explicit ExplorerLoader(const EngineContext& context) : m_context(&context) {}
    void load(const Load& load);
    void loadDefault(const Load& load);

    const EngineContext* const m_context;
    DiscoveryRepository* m_repository = nullptr;
    RegisterExplorerInterface m_explorerResolver;
    RegisterExplorerParserInterface m_parserResolver;
    RegisterFilterDataInterface m_filterDataResolver;
    std::list<std::unique_ptr<RegisterExplorerInterface>> m_explorerInterfaces;
    std::list<std::unique_ptr<RegisterExplorerParserInterface>> m_parserInterfaces;
    std::list<std::unique_ptr<RegisterFilterDataInterface>> m_filterDataInterfaces;
    bool m_explorersLoaded = false;
    bool m_parsersLoaded = false;
    bool m_filterDataLoaded = false;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
