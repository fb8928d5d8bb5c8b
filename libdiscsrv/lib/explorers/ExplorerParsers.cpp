#include "ExplorerParsers.h"

#include <utility>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include "DiscLog.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {
constexpr const char* LOG_SOURCE = "../DiscoveryRepository";
} // namespace

ExplorerParsers& getExplorerParsers()
{
    return *ACE_Singleton<ExplorerParsers, ACE_Recursive_Thread_Mutex>::instance();
}

ExplorerParsers::ExplorerParsers() = default;
ExplorerParsers::~ExplorerParsers() = default;

void ExplorerParsers::setLoader(std::function<void()> load)
{
    const std::lock_guard guard(m_loadMutex);
    if (!m_loader)
        m_loader = std::move(load);
}

void ExplorerParsers::add(const TlxString& type, const ExplorerDataParser* parser)
{
    DISC_TRACE("DiscoveryRepository::registerExplorerParser");
    if (!TLX_ASSERT_AS(parser, "NULL != parser"))
        return;
    const LockableGuard lockableGuard(m_table);
    if (!TLX_ASSERT(lockableGuard.locked()))
        return;
    m_parsers.try_emplace(
        type, AutoDereference<ExplorerDataParser>::share(const_cast<ExplorerDataParser*>(parser)));
}

ExplorerDataParser* ExplorerParsers::find(const TlxString& type)
{
    DISC_TRACE("DiscoveryRepository::getRegisteredExplorerParser");
    load();
    const LockableGuard lockableGuard(m_table);
    (void)TLX_ASSERT(lockableGuard.locked());
    const auto registered = m_parsers.find(type);
    if (registered != m_parsers.end())
        return AutoDereference<ExplorerDataParser>(registered->second).release();
    if (!m_default)
        m_default.reset(new DefaultExplorerDataParser);
    return AutoDereference<DefaultExplorerDataParser>(m_default).release();
}

void ExplorerParsers::load()
{
    DISC_TRACE("DiscoveryRepository::loadExplorerParsers");
    std::function<void()> loader;
    {
        std::unique_lock lock(m_loadMutex);
        if (m_loading == std::this_thread::get_id())
            return;
        m_loadEnded.wait(lock, [this] { return m_state != State::LOADING; });
        if (m_state == State::LOADED || !m_loader)
            return;
        m_state = State::LOADING;
        m_loading = std::this_thread::get_id();
        loader = m_loader;
    }
    struct Ended // also when the loader throws
    {
        ~Ended()
        {
            const std::lock_guard guard(parsers.m_loadMutex);
            parsers.m_state = State::LOADED;
            parsers.m_loading = {};
            parsers.m_loadEnded.notify_all();
        }
        ExplorerParsers& parsers;
    } const ended{*this};
    loader();
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
