#include <tlx/Engine.h>

namespace Veltrane::Quillmark::Tlx {

void EngineSingleton::closeObject() {}

EngineContext::EngineContext(bool open) : m_open(open) {}

EngineContext::~EngineContext()
{
    close();
}

void EngineContext::close()
{
    const std::lock_guard guard(m_mutex);
    m_open = false;
    while (!m_objects.empty()) {
        m_objects.back().second->closeObject();
        m_objects.pop_back();
    }
}

EngineSingleton* EngineContext::find(std::type_index kind, Make make) const
{
    const std::lock_guard guard(m_mutex);
    if (!m_open)
        return nullptr;
    for (const auto& [of, object] : m_objects)
        if (of == kind)
            return object.get();
    std::unique_ptr<EngineSingleton> made(make(*this));
    if (!made)
        return nullptr;
    return m_objects.emplace_back(kind, std::move(made)).second.get();
}

} // namespace Veltrane::Quillmark::Tlx
