// The repaired functions of the ORB: the texts of its own protocol.

#include <string>

#include <gtest/gtest.h>

#include <tlx/Corba.h>

namespace Veltrane::Quillmark::Tlx {
namespace {

/// A stream with a text of this announced size, and these bytes.
void fill(cdrMemoryStream& stream, CORBA::ULong size, const std::string& bytes)
{
    size >>= stream;
    stream.put_octet_array(reinterpret_cast<const CORBA::Octet*>(bytes.data()),
                           static_cast<int>(bytes.size()));
}

/// What the ORB reads, or the minor code of its exception.
std::string readText(CORBA::ULong size, const std::string& bytes)
{
    cdrMemoryStream stream;
    fill(stream, size, bytes);
    try {
        const CORBA::String_var text = stream.unmarshalRawString();
        return text.in();
    } catch (const CORBA::MARSHAL& e) {
        return e.NP_minorString();
    }
}

std::string withEnd(std::size_t length)
{
    return std::string(length, 'x') + '\0';
}

TEST(OrbRepairsTest, ATextIsReadAsItIs)
{
    EXPECT_EQ(readText(1, withEnd(0)), "");
    EXPECT_EQ(readText(5, std::string("IDL:\0", 5)), "IDL:");
}

TEST(OrbRepairsTest, ATextMayHave1024Bytes)
{
    EXPECT_EQ(readText(1025, withEnd(1024)), std::string(1024, 'x'));
    EXPECT_EQ(readText(1026, withEnd(1025)), "MARSHAL_StringIsTooLong");
    EXPECT_EQ(readText(0xffffffff, withEnd(1025)), "MARSHAL_StringIsTooLong");
}

TEST(OrbRepairsTest, ATextHasAnEnd)
{
    EXPECT_EQ(readText(0, ""), "MARSHAL_StringNotEndWithNull");
    EXPECT_EQ(readText(4, "four"), "MARSHAL_StringNotEndWithNull");
    EXPECT_EQ(readText(6, "four"), "MARSHAL_PassEndOfMessage");
}

TEST(OrbRepairsTest, AHostWithoutAnEndMakesNoReference)
{
    // A reference with one profile. Its host is 1,000 bytes without an end.
    cdrEncapsulationStream body(CORBA::ULong(0), true);
    body.marshalOctet(1);
    body.marshalOctet(2);
    CORBA::ULong size = 1000;
    size >>= body;
    const std::string host(size, 'h');
    body.put_octet_array(reinterpret_cast<const CORBA::Octet*>(host.data()),
                         static_cast<int>(host.size()));
    CORBA::Octet* bytes = nullptr;
    CORBA::ULong most = 0;
    body.getOctetStream(bytes, most, size);
    IOP::TaggedProfile profile;
    profile.tag = IOP::TAG_INTERNET_IOP;
    profile.profile_data.replace(most, size, bytes, true);
    IIOP::ProfileBody decoded;
    EXPECT_THROW(IIOP::unmarshalProfile(profile, decoded), CORBA::MARSHAL);
}

} // namespace
} // namespace Veltrane::Quillmark::Tlx
