#pragma once
// The parts of a description that a query left out, for one log line.

#include <cstddef>
#include <string>

#include <tlx/Query.h>

namespace Veltrane::Quillmark::Tlx {

/// Counts losses and keeps the first one of each kind, so any number of them fits. One thread.
class QueryLosses
{
  public:
    /// Counts a field that was left out. @param refused the reason.
    void addField(const QueryField& field, const std::string& refused);
    /// Counts a field with too many values. It now takes any value.
    void addOpened(const QueryField& field);
    bool any() const { return m_fields + m_opened > 0; }
    /// Logs a line if anything was lost.
    void log(const char* operation) const;

  private:
    std::size_t m_fields = 0;
    std::string m_firstField; ///< its name and the reason
    std::size_t m_opened = 0;
    std::string m_firstOpened; ///< its name
};

} // namespace Veltrane::Quillmark::Tlx
