#include "TemporaryNumber.h"

#include <bitset>
#include <mutex>

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

namespace {

struct Held
{
    std::mutex mutex;
    std::bitset<MAX_TEMPORARY_NAMES> numbers;
};

Held& held()
{
    // Never destroyed, because destructors of static objects may still use it.
    static auto* const theHeld = new Held;
    return *theHeld;
}

} // namespace

std::unique_ptr<TemporaryNumber> TemporaryNumber::take(unsigned from)
{
    const std::lock_guard guard(held().mutex);
    while (from < MAX_TEMPORARY_NAMES && held().numbers.test(from))
        ++from;
    if (from >= MAX_TEMPORARY_NAMES)
        return nullptr;
    std::unique_ptr<TemporaryNumber> number(new TemporaryNumber(from));
    held().numbers.set(from);
    return number;
}

TemporaryNumber::~TemporaryNumber()
{
    const std::lock_guard guard(held().mutex);
    held().numbers.reset(m_value);
}

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
