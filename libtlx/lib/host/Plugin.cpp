#include <tlx/Plugin.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include <dlfcn.h>
#include <link.h>

#include <tlx/FileTrust.h>
#include <tlx/ForeignCode.h>
#include <tlx/HostConfig.h>

#include "PlatformLog.h"

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr const char* LOG_SOURCE = "../Plugin";

KitVersion g_kit{nullptr, 0};

thread_local std::string t_library;

/// Records the library that this thread is calling, until the end of a scope. Scopes nest.
class InLibrary
{
  public:
    explicit InLibrary(const std::string& library) : m_before(std::exchange(t_library, library)) {}
    ~InLibrary() { t_library = std::move(m_before); }
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;

  private:
    std::string m_before;
};

/// Finds a symbol of the library itself, not of its dependencies.
void* findIn(void* handle, const char* symbol)
{
    void* const address = ::dlsym(handle, symbol);
    Dl_info info = {};
    const link_map* library = nullptr;
    const bool own = address && ::dladdr(address, &info) != 0 &&
                     ::dlinfo(handle, RTLD_DI_LINKMAP, &library) == 0 &&
                     reinterpret_cast<ElfW(Addr)>(info.dli_fbase) == library->l_addr;
    return own ? address : nullptr;
}

bool fitsKit(void* handle, const std::string& path)
{
    const void* const built = g_kit.symbol ? findIn(handle, g_kit.symbol) : nullptr;
    if (!built)
        return true;
    const unsigned version = *static_cast<const unsigned*>(built);
    if (version == g_kit.version)
        return true;
    PLATFORM_LOG(LOG_LEVEL_FAILURE, "loadLibrary",
                 path << " was built for version " << version << " of the kit, this is version "
                      << g_kit.version);
    return false;
}

void logUnableToLoad(const std::string& path, const std::string& reason)
{
    PLATFORM_LOG(LOG_LEVEL_FAILURE, "loadLibrary", "Unable to load " << path << ": " << reason);
}

/// Loads a library until the process ends. On failure it logs the reason and returns null. A
/// library that others can write would let them run code as this process.
void* loadLibrary(const std::string& path, bool global)
{
    void* handle = nullptr;
    // The library's constructors run here: foreign code.
    callForeignCode("loadLibrary", "Loading " + path, [&] {
        const InLibrary inside(path);
        // Log a library only once: it may be loaded already.
        handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (handle)
            return;
        if (const auto safe = checkNotWritableByOthers(path, HostConfig::instance().root()); !safe)
            return logUnableToLoad(path, safe.error());
        PLATFORM_NOTICE("loadLibrary", "Loading " << path);
        handle = ::dlopen(path.c_str(), RTLD_NOW | (global ? RTLD_GLOBAL : RTLD_LOCAL));
        if (!handle) {
            const char* const reason = ::dlerror();
            logUnableToLoad(path, reason ? reason : "the system gives no reason");
        }
    });
    return handle && fitsKit(handle, path) ? handle : nullptr;
}

bool resolveAll(const std::string& path, SymbolResolver& resolver, bool global)
{
    void* const handle = loadLibrary(path, global);
    if (!handle)
        return false;
    bool complete = true;
    for (LibraryFunction* function : resolver.functions()) {
        function->resolve(path, findIn(handle, function->symbol()));
        complete = complete && (function->isResolved() || !function->isRequired());
    }
    return complete;
}

bool isFile(const std::filesystem::path& path)
{
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

TlxPathname libraryDirectory()
{
    return HostConfig::instance().root().withFileName("lib");
}

} // namespace

void LibraryFunction::resolve(const std::string& library, void* address)
{
    m_library = library;
    m_address = address;
}

bool LibraryFunction::call(void* argument) const
{
    if (!m_address)
        return false;
    const std::string what = m_library + ": " + m_symbol;
    PLATFORM_NOTICE(m_symbol, "Entering " << what);
    return callForeignCode(m_symbol, what, [&] {
        const InLibrary inside(m_library);
        reinterpret_cast<void (*)(void*)>(m_address)(argument);
    });
}

void setKitVersion(const KitVersion& version)
{
    g_kit = version;
}

const std::string& currentLibrary()
{
    return t_library;
}

RuntimeLoader* RuntimeLoader::instance(const EngineContext&)
{
    return new RuntimeLoader;
}

bool RuntimeLoader::loadInterface(const std::string& libraryName, SymbolResolver& resolver,
                                  bool& found, const std::list<TlxPathname>* searchPath,
                                  bool global, int version)
{
    const std::list<TlxPathname> product{libraryDirectory()};
    const std::string name = libraryName + ".so";
    found = false;
    for (const TlxPathname& directory : searchPath ? *searchPath : product)
        for (const std::string& each : {name, name + "." + std::to_string(version)}) {
            const TlxPathname path = directory.withFileName(each);
            if (!isFile(path.text()))
                continue;
            found = true;
            return resolveAll(path.text(), resolver, global);
        }
    return false;
}

PluginDirector* PluginDirector::instance(const EngineContext&)
{
    return new PluginDirector;
}

void PluginDirector::iteratePluginLibraries(LibraryIterationCallback& callback,
                                            unsigned long long cookie)
{
    const std::string directory = libraryDirectory().withFileName("plugins").text();
    std::vector<std::string> libraries;
    std::error_code error;
    for (std::filesystem::directory_iterator each(directory, error), end; !error && each != end;
         each.increment(error))
        if (each->path().extension() == ".so" && isFile(each->path()))
            libraries.push_back(each->path().string());
    if (error && error != std::errc::no_such_file_or_directory)
        PLATFORM_LOG(LOG_LEVEL_FAILURE, "PluginDirector::iteratePluginLibraries",
                     "Unable to read " << directory << ": " << error.message());
    std::sort(libraries.begin(), libraries.end());
    for (const std::string& library : libraries)
        callForeignCode("PluginDirector::iteratePluginLibraries", library,
                        [&] { callback.libraryCallback(this, library, cookie); });
}

bool PluginDirector::loadPluginInterface(const std::string& library, SymbolResolver& resolver,
                                         std::string& resolvedName)
{
    resolvedName = library;
    return resolveAll(library, resolver, false);
}

} // namespace Veltrane::Quillmark::Tlx
