// A directory server over LDAP. A record is an entry "cn=SUBJECT,ou=AUTHORITY,BASE" with the
// attribute benchValue.

#include <memory>
#include <stdexcept>

#include <ldap.h>

#include "Names.h"
#include "PeerOperations.h"

namespace Veltrane::Quillmark::Bench {

namespace {

using nlohmann::json;

void check(int result, const char* what)
{
    if (result != LDAP_SUCCESS)
        throw std::runtime_error(std::string(what) + ": " + ::ldap_err2string(result));
}

using Message = std::unique_ptr<LDAPMessage, decltype(&::ldap_msgfree)>;

/// One connection, bound as the directory's manager.
class Directory
{
  public:
    explicit Directory(const json& command) : m_base(command.at("base").get<std::string>())
    {
        LDAP* opened = nullptr;
        check(::ldap_initialize(&opened, command.at("url").get<std::string>().c_str()), "connect");
        m_ldap.reset(opened);
        const int version = LDAP_VERSION3;
        ::ldap_set_option(opened, LDAP_OPT_PROTOCOL_VERSION, &version);
        const auto user = command.at("user").get<std::string>();
        auto password = command.at("password").get<std::string>();
        berval credentials{password.size(), password.data()};
        check(::ldap_sasl_bind_s(opened, user.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr,
                                 nullptr, nullptr),
              "bind");
    }

    LDAP* get() const { return m_ldap.get(); }
    std::string nameOf(const std::string& authority) const
    {
        return "ou=" + authority + "," + m_base;
    }
    std::string nameOf(const std::string& authority, unsigned long number) const
    {
        return "cn=" + subjectOf(number) + "," + nameOf(authority);
    }

  private:
    static void close(LDAP* ldap) { ::ldap_unbind_ext_s(ldap, nullptr, nullptr); }

    std::string m_base;
    std::unique_ptr<LDAP, decltype(&Directory::close)> m_ldap{nullptr, &Directory::close};
};

std::shared_ptr<Directory> connectLdap(const json& command)
{
    return std::make_shared<Directory>(command);
}

/// The length of an entry's first value of an attribute; 0 without one.
std::size_t valueLength(LDAP* ldap, LDAPMessage* entry, const char* attribute)
{
    berval** values = ::ldap_get_values_len(ldap, entry, attribute);
    const std::size_t length = values && values[0] ? values[0]->bv_len : 0;
    ::ldap_value_free_len(values);
    return length;
}

Operation ldapRead(const json& command)
{
    return [directory = connectLdap(command), authority = command.at("authority"),
            size = command.at("size").get<unsigned long>(), numbers = Numbers(command)]() mutable {
        char attribute[] = "benchValue";
        char* attributes[] = {attribute, nullptr};
        LDAPMessage* found = nullptr;
        const int result = ::ldap_search_ext_s(
            directory->get(), directory->nameOf(authority, numbers.next()).c_str(), LDAP_SCOPE_BASE,
            nullptr, attributes, 0, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &found);
        const Message guard(found, &::ldap_msgfree);
        check(result, "search");
        LDAPMessage* entry = ::ldap_first_entry(directory->get(), found);
        if (!entry || valueLength(directory->get(), entry, attribute) != size)
            throw std::runtime_error("the directory does not find a value");
    };
}

/// Lists the names of entries. They arrive as the server finds them, without pages.
Operation ldapList(const json& command)
{
    const auto pattern = command.at("pattern").get<std::string>();
    return [directory = connectLdap(command), filter = "(cn=" + pattern + ")",
            authority = command.at("authority").get<std::string>(),
            count = command.at("count").get<unsigned long>()] {
        LDAP* ldap = directory->get();
        char attribute[] = "cn";
        char* attributes[] = {attribute, nullptr};
        int id = 0;
        check(::ldap_search_ext(ldap, directory->nameOf(authority).c_str(), LDAP_SCOPE_ONELEVEL,
                                filter.c_str(), attributes, 0, nullptr, nullptr, nullptr,
                                LDAP_NO_LIMIT, &id),
              "search");
        unsigned long found = 0;
        for (;;) {
            LDAPMessage* message = nullptr;
            const int type = ::ldap_result(ldap, id, LDAP_MSG_ONE, nullptr, &message);
            const Message guard(message, &::ldap_msgfree);
            if (type == LDAP_RES_SEARCH_RESULT)
                break;
            if (type != LDAP_RES_SEARCH_ENTRY)
                throw std::runtime_error("the directory's answer breaks off");
            if (valueLength(ldap, message, attribute) > 0)
                ++found;
        }
        if (found != count)
            throw std::runtime_error("the directory lists " + std::to_string(found) + " entries");
    };
}

/// Replaces the value of an entry, or adds a missing entry.
Operation ldapPut(const json& command)
{
    return [directory = connectLdap(command), authority = command.at("authority"),
            isNew = command.value("new", false),
            payload = payloadOf(command.at("size").get<unsigned long>()),
            numbers = Numbers(command)]() mutable {
        char valueName[] = "benchValue";
        berval value{payload.size(), payload.data()};
        berval* values[] = {&value, nullptr};
        LDAPMod change{};
        change.mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
        change.mod_type = valueName;
        change.mod_bvalues = values;
        const unsigned long number = numbers.next();
        const std::string name = directory->nameOf(authority, number);
        if (!isNew) {
            LDAPMod* changes[] = {&change, nullptr};
            const int result =
                ::ldap_modify_ext_s(directory->get(), name.c_str(), changes, nullptr, nullptr);
            if (result != LDAP_NO_SUCH_OBJECT) {
                check(result, "modify");
                return;
            }
        }
        change.mod_op = LDAP_MOD_ADD | LDAP_MOD_BVALUES;
        char className[] = "objectClass";
        char classValue[] = "benchRecord";
        char* classValues[] = {classValue, nullptr};
        LDAPMod type{};
        type.mod_op = LDAP_MOD_ADD;
        type.mod_type = className;
        type.mod_values = classValues;
        char subjectName[] = "cn";
        std::string subject = subjectOf(number);
        char* subjectValues[] = {subject.data(), nullptr};
        LDAPMod naming{};
        naming.mod_op = LDAP_MOD_ADD;
        naming.mod_type = subjectName;
        naming.mod_values = subjectValues;
        LDAPMod* entry[] = {&type, &naming, &change, nullptr};
        check(::ldap_add_ext_s(directory->get(), name.c_str(), entry, nullptr, nullptr), "add");
    };
}

} // namespace

std::map<std::string, Preparation> ldapOperations()
{
    return {{"ldap.read", ldapRead}, {"ldap.list", ldapList}, {"ldap.put", ldapPut}};
}

} // namespace Veltrane::Quillmark::Bench
