#pragma once
// The name of a host.

#include <tlx/String.h>

namespace Veltrane::Quillmark::Tlx {

/// A host's name as text; a value type. It never resolves the name: Resolver.h does.
class TlxHostname
{
  public:
    TlxHostname() = default;
    explicit TlxHostname(const TlxString& name) { setHostname(name); }

    /// Takes the name, without blanks around it.
    void setHostname(const TlxString& name);

    /// This host's own name: CLIENT_NAME of the host configuration, otherwise the system's.
    static TlxHostname local();
    void setLocal() { *this = local(); }

    const TlxString& text() const { return m_name; }
    const char* c_str() const { return m_name.c_str(); }
    bool empty() const { return m_name.empty(); }

    /// Compares without regard to case.
    friend bool operator==(const TlxHostname& a, const TlxHostname& b)
    {
        return compareIgnoringCase(a.m_name, b.m_name) == 0;
    }

  private:
    TlxString m_name;
};

} // namespace Veltrane::Quillmark::Tlx
