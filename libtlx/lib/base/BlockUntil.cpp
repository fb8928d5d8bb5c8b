#include <tlx/BlockUntil.h>

#include <condition_variable>

namespace Veltrane::Quillmark::Tlx {

struct TLXBlockUntil::State
{
    std::mutex mutex;
    std::condition_variable gone;
    std::size_t left = 0;
};

TLXBlockUntil::TLXBlockUntil() : m_state(std::make_shared<State>()) {}
TLXBlockUntil::~TLXBlockUntil() = default;

void TLXBlockUntil::add(TLXBlocking& object)
{
    {
        const std::lock_guard guard(m_state->mutex);
        ++m_state->left;
    }
    // The object owns the token. The destruction of the token marks the object as destroyed.
    const std::shared_ptr<void> token(nullptr, [state = m_state](void*) {
        {
            const std::lock_guard guard(state->mutex);
            --state->left;
        }
        state->gone.notify_all();
    });
    const std::lock_guard guard(object.m_mutex);
    object.m_held.push_back(token);
}

void TLXBlockUntil::wait() const
{
    std::unique_lock guard(m_state->mutex);
    m_state->gone.wait(guard, [&] { return m_state->left == 0; });
}

std::size_t TLXBlockUntil::left() const
{
    const std::lock_guard guard(m_state->mutex);
    return m_state->left;
}

} // namespace Veltrane::Quillmark::Tlx
