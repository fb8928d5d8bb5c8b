#pragma once
// Libraries that are loaded at run time, and the functions they export.
//
// Libraries lie under the product root. `lib/` holds those that the code names by a base name;
// `lib/plugins/` holds the plug-ins, which are visited in the order of their names. A library is
// never closed: objects that it made may be in use until the process ends.
//
// A library may throw while it is loaded or in one of its functions. The log then has a line with
// its path. While such a call does not return, the log names it. A library that is broken, or made
// for another version of the kit, is logged and counts as absent. So is a library that a user other
// than root and the user of this process could have written (tlx/FileTrust.h).

#include <exception>
#include <list>
#include <string>
#include <vector>

#include <tlx/Engine.h>
#include <tlx/Pathname.h>

namespace Veltrane::Quillmark::Tlx {

/// A function that a library exports under a symbol. It takes one pointer.
class LibraryFunction
{
  public:
    /// @param symbol a literal.
    /// @param required true if a library without the function is useless.
    LibraryFunction(const char* symbol, bool required) : m_symbol(symbol), m_required(required) {}

    const char* symbol() const { return m_symbol; }
    bool isRequired() const { return m_required; }
    /// Null until it is resolved.
    bool isResolved() const { return m_address != nullptr; }

    /// Calls the function, guarded. Does nothing when it is not resolved. False when it threw.
    bool call(void* argument) const;

    void resolve(const std::string& library, void* address);

  private:
    const char* const m_symbol;
    const bool m_required;
    std::string m_library;
    void* m_address = nullptr;
};

/// The functions that a caller wants from a library. Used by one thread at a time.
class SymbolResolver
{
  public:
    SymbolResolver() = default;
    SymbolResolver(const SymbolResolver&) = delete;
    SymbolResolver& operator=(const SymbolResolver&) = delete;
    virtual ~SymbolResolver() = default;
    /// The resolver owns the functions.
    virtual std::vector<LibraryFunction*> functions() = 0;
};

/// A library lacks a symbol that it must have.
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

/// A number in a library that states the version of the kit for which it was built.
struct KitVersion
{
    const char* symbol; ///< of an `unsigned`; a library without it is not checked
    unsigned version;   ///< that of this process
};

/// Refuses libraries built for another version from now on. Call it once, before the first library
/// is loaded.
void setKitVersion(const KitVersion& version);

/// The path of the library that this thread is calling; empty outside such calls.
const std::string& currentLibrary();

/// Finds libraries by their base names.
class RuntimeLoader : public EngineSingleton
{
  public:
    static RuntimeLoader* instance(const EngineContext& context);

    /// Loads "NAME.so", otherwise "NAME.so.VERSION", from the first directory that has it, and
    /// resolves the resolver's functions.
    /// @param found set to whether the library exists.
    /// @param searchPath null for the product's lib/.
    /// @param global whether libraries loaded later may use its symbols.
    /// @return whether it was loaded and has every required symbol. Failures are logged, except an
    /// absent library and an absent symbol. Loaders built elsewhere rely on this signature.
    [[nodiscard]] bool loadInterface(const std::string& libraryName, SymbolResolver& resolver,
                                     bool& found, const std::list<TlxPathname>* searchPath,
                                     bool global, int version);
};

class PluginDirector;

/// Receives each plug-in library of a walk.
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

    /// Calls back for each plug-in library, in the order of their names. When the callback throws,
    /// that is logged with the library's path, and the walk goes on.
    void iteratePluginLibraries(LibraryIterationCallback& callback, unsigned long long cookie);

    /// Loads a plug-in library and resolves the resolver's functions. False when it lacks a
    /// required symbol, or cannot be loaded (logged). Loaders built elsewhere rely on this
    /// signature.
    /// @param resolvedName the library's path.
    [[nodiscard]] bool loadPluginInterface(const std::string& library, SymbolResolver& resolver,
                                           std::string& resolvedName);
};

} // namespace Veltrane::Quillmark::Tlx
