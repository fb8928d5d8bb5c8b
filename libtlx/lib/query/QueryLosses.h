#pragma once
// What a description told and a query did not take, for the one line that tells of it.

#include <cstddef>
#include <string>

#include <tlx/Query.h>

namespace Veltrane::Quillmark::Tlx {

/// Counts; another host may lose as much as it likes. One thread.
class QueryLosses
{
  public:
    /// A field that is left out, and why.
    void addField(const QueryField& field, const std::string& refused);
    /// A field whose values are too many to be listed, so that it takes any.
    void addOpened(const QueryField& field);
    bool any() const { return m_fields + m_opened > 0; }
    /// A line, when something was lost.
    void log(const char* operation) const;

  private:
    std::size_t m_fields = 0;
    std::string m_firstField; ///< its name and the reason
    std::size_t m_opened = 0;
    std::string m_firstOpened; ///< its name
};

} // namespace Veltrane::Quillmark::Tlx
