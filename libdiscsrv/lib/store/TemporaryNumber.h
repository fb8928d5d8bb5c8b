#pragma once
// The numbers of the temporary payloads that this process writes.

#include <memory>

#include "DiscDB.h"

namespace Veltrane::Quillmark::Tlx::DiscoverySvc {

/// Holds a number below MAX_TEMPORARY_NAMES. No other object of this process has the same number.
/// So a writer does not try a name that another thread uses. Any thread.
class TemporaryNumber
{
  public:
    /// Takes the lowest free number that is not less than the given one. Returns null if all are in
    /// use.
    static std::unique_ptr<TemporaryNumber> take(unsigned from);
    ~TemporaryNumber();
    TemporaryNumber(const TemporaryNumber&) = delete;
    TemporaryNumber& operator=(const TemporaryNumber&) = delete;

    unsigned value() const { return m_value; }

  private:
    explicit TemporaryNumber(unsigned value) : m_value(value) {}
    const unsigned m_value;
};

} // namespace Veltrane::Quillmark::Tlx::DiscoverySvc
