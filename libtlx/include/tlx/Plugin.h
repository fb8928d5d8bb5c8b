#pragma once
// Libraries that are loaded at run time, and the functions they export.
//
// Libraries lie under the product root: `lib/` holds those that are known by a base name,
// `lib/plugins/` the plug-ins, which are walked in the order of their names. A library is never
// closed: what it made may be in use until the process ends.
//
// What a library throws, while it is loaded or in a function of it, becomes a log line with its
// path and goes no further; while it does not come back it is named in the log. A library that is
// broken, or made for another version of the kit, is logged and counts as absent.

#include <exception>
#include <list>
#include <string>
#include <vector>

#include <tlx/Engine.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// A function that a library has under the name of a symbol, and that takes one pointer.
class LibraryFunction
{
  public:
    /// @param symbol a literal.
    /// @param required whether a library without it is no use.
    LibraryFunction(const char* symbol, bool required) : m_symbol(symbol), m_required(required) {}

    const char* symbol() const { return m_symbol; }
    bool isRequired() const { return m_required; }
    /// Null until it is resolved.
    bool isResolved() const { return m_address != nullptr; }

    /// Calls it, guarded; does nothing when it is not resolved. False when it threw.
    bool call(void* argument) const;

    void resolve(const std::string& library, void* address);

  private:
    const char* const m_symbol;
    const bool m_required;
    std::string m_library;
    void* m_address = nullptr;
};

/// The functions that somebody wants from a library. Used by one thread at a time.
class SymbolResolver
{
  public:
    SymbolResolver() = default;
    SymbolResolver(const SymbolResolver&) = delete;
    SymbolResolver& operator=(const SymbolResolver&) = delete;
    virtual ~SymbolResolver() = default;
    /// They belong to the resolver.
    virtual std::vector<LibraryFunction*> functions() = 0;
};

/// A symbol that should be there is not.
class SymbolException : public std::exception
{
  public:
    explicit SymbolException(std::string symbol)
        : m_symbol(std::move(symbol)), m_text("there is no symbol " + m_symbol)
    {
    }
    const std::string& symbol() const { return m_symbol; }
    const char* what() const noexcept override { return m_text.c_str(); }

  private:
    const std::string m_symbol;
    const std::string m_text;
};

/// A number by which a library tells for which version of a kit it was built.
struct KitVersion
{
    const char* symbol; ///< of an `unsigned`; a library without it is not asked further
    unsigned version;   ///< that of this process
};

/// Libraries built for another version are refused from now on. Set once, before any is loaded.
void setKitVersion(const KitVersion& version);

/// The path of the library whose function this thread is in; empty outside of any.
const std::string& currentLibrary();

/// Finds libraries by their base names.
class RuntimeLoader : public EngineSingleton
{
  public:
    static RuntimeLoader* instance(const EngineContext& context);

    /// Loads "NAME.so", otherwise "NAME.so.VERSION", from the first directory that has it, and
    /// resolves what the resolver wants.
    /// @param found set to whether the library exists.
    /// @param searchPath null for the product's lib/.
    /// @param global whether its symbols serve libraries loaded later.
    /// @return whether it was loaded and has every required symbol. An absent library and an
    /// absent symbol are not logged, anything else is.
    bool loadInterface(const std::string& libraryName, SymbolResolver& resolver, bool& found,
                       const std::list<TlxPathname>* searchPath, bool global, int version);
};

class PluginDirector;

/// What is told of each plug-in library.
class LibraryIterationCallback
{
  public:
    virtual void libraryCallback(PluginDirector* director, const std::string& library,
                                 unsigned long long cookie) = 0;

  protected:
    ~LibraryIterationCallback() = default;
};

/// Knows the plug-in libraries.
class PluginDirector : public EngineSingleton
{
  public:
    static PluginDirector* instance(const EngineContext& context);

    /// Calls back for each plug-in library, in the order of their names. What the callback throws
    /// is logged with the library's path, and the walk goes on.
    void iteratePluginLibraries(LibraryIterationCallback& callback, unsigned long long cookie);

    /// Loads a plug-in library and resolves what the resolver wants from it; false when a required
    /// symbol is not there, or it cannot be loaded (logged).
    /// @param resolvedName the library's path.
    bool loadPluginInterface(const std::string& library, SymbolResolver& resolver,
                             std::string& resolvedName);
};

} // namespace Veltrane::Quillmark::Tlx
