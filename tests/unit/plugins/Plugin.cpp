// A plug-in that logs the calls of its entry points. It appends a line "NAME ENTRY POINTER" to the
// file that QM_PLUGIN_CALLS names.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#ifdef KIT_VERSION
extern "C" {
extern unsigned QmExplorerKitVersion;
unsigned QmExplorerKitVersion = KIT_VERSION;
}
#endif

#ifdef NEEDS_A_SYMBOL
extern "C" int aFunctionThatNobodyHas();
#endif

namespace {

[[maybe_unused]] void called(const char* entry, const void* repository)
{
    const char* const file = std::getenv("QM_PLUGIN_CALLS");
    std::FILE* const out = file ? std::fopen(file, "a") : nullptr;
    if (!out)
        return;
    std::fprintf(out, "%s %s %d\n", PLUGIN_NAME, entry, repository != nullptr);
    std::fclose(out);
}

} // namespace

#ifdef HAS_EXPLORERS
extern "C" void RegisterExplorers(void* repository);
extern "C" void RegisterExplorers(void* repository)
{
    called("RegisterExplorers", repository);
#ifdef THROWS
    throw std::runtime_error("thrown by " PLUGIN_NAME);
#endif
#ifdef THROWS_ODD
    throw 7;
#endif
#ifdef NEEDS_A_SYMBOL
    aFunctionThatNobodyHas();
#endif
#ifdef SLOW
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
#endif
}
#endif

#ifdef HAS_PARSERS
extern "C" void RegisterExplorerParsers(void* repository);
extern "C" void RegisterExplorerParsers(void* repository)
{
    called("RegisterExplorerParsers", repository);
}
#endif

#ifdef HAS_FILTER_DATA
extern "C" void RegisterExplorerFilterDataProvider(void* repository);
extern "C" void RegisterExplorerFilterDataProvider(void* repository)
{
    called("RegisterExplorerFilterDataProvider", repository);
}
#endif
