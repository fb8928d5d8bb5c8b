#pragma once
// The calls of a parser, made by a test in an order of its own.

#include <gtest/gtest.h>

#include <tlx/Xml.h>

#include "support/Capture.h"
#include "support/NameOnly.h"

namespace QmTest {

struct ParseCalls : testing::Test
{
    void start(Tlx::XmlInterface& object, Tlx::XmlObjParseContext* context, const char* name)
    {
        object.xmlStartElement(context, utf16(name).c_str(), attributes);
    }
    static void characters(Tlx::XmlInterface& object, Tlx::XmlObjParseContext* context)
    {
        object.xmlCharacters(context, utf16("ab").c_str(), 2);
    }
    static int end(Tlx::XmlInterface& object, Tlx::XmlObjParseContext* context, const char* name)
    {
        return object.xmlEndElement(context, utf16(name).c_str());
    }

    NameOnly attributes;
    AssertionCapture assertions;
};

} // namespace QmTest
