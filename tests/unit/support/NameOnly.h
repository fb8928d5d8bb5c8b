#pragma once
// The arguments of a parser event, for tests that send events themselves.

#include <string>

#include <tlx/Xml.h>

namespace QmTest {

namespace Tlx = Veltrane::Quillmark::Tlx;

inline std::basic_string<XMLCh> utf16(const char* text)
{
    return Tlx::TlxString(text).toXmlCh();
}

/// The attribute Name="x" only.
class NameOnly : public Tlx::AttributeList
{
  public:
    XMLSize_t getLength() const override { return 1; }
    const XMLCh* getName(const XMLSize_t) const override { return m_name.c_str(); }
    const XMLCh* getType(const XMLSize_t) const override { return m_type.c_str(); }
    const XMLCh* getValue(const XMLSize_t) const override { return m_value.c_str(); }
    const XMLCh* getType(const XMLCh* const) const override { return m_type.c_str(); }
    const XMLCh* getValue(const XMLCh* const name) const override
    {
        return m_name == name ? m_value.c_str() : nullptr;
    }
    const XMLCh* getValue(const char* const name) const override
    {
        return getValue(utf16(name).c_str());
    }

  private:
    std::basic_string<XMLCh> m_name = utf16("Name");
    std::basic_string<XMLCh> m_type = utf16("CDATA");
    std::basic_string<XMLCh> m_value = utf16("x");
};

} // namespace QmTest
