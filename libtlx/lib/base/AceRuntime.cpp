#include <tlx/AceRuntime.h>

#include <atomic>

#include <ace/Init_ACE.h>

namespace Veltrane::Quillmark::Tlx {

namespace {
// No lock: a use may begin under a lock of ACE's, and ACE::init and ACE::fini take those.
std::atomic<unsigned> g_uses{0};
} // namespace

AceRuntime::AceRuntime()
{
    if (g_uses.fetch_add(1) == 0)
        ACE::init();
}

AceRuntime::~AceRuntime()
{
    if (!m_kept && g_uses.fetch_sub(1) == 1)
        ACE::fini();
}

unsigned AceRuntime::uses()
{
    return g_uses.load();
}

} // namespace Veltrane::Quillmark::Tlx
