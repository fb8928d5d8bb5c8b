// The ORB's own name resolution, with a limit on its time.
//
// References of other hosts may contain names. The ORB would wait for the system's resolver without
// a limit, also during a stop. So this file replaces the ORB's two functions, in the same way as
// OrbRepairs.cpp.

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <netdb.h>
#include <sys/socket.h>

#include <omniORB4/CORBA.h>

#include <omniORB4/internal/libcWrapper.h>

#include <tlx/Resolver.h>

namespace {

using omni::LibcWrapper;

/// How long one name of a reference may take.
constexpr std::chrono::seconds NAME_LIMIT{5};
/// The most names of references that may wait for the resolver at a time. The rest of MAX_RESOLVING
/// is for the hosts that this process looks up itself.
constexpr int MAX_RESOLVING_REFERENCES = Veltrane::Quillmark::Tlx::MAX_RESOLVING / 4;

/// A numeric address and those that follow it.
class ResolvedAddress final : public LibcWrapper::AddrInfo
{
  public:
    ResolvedAddress(const addrinfo& info, std::unique_ptr<ResolvedAddress> next)
        : m_family(info.ai_family),
          m_bytes(reinterpret_cast<const char*>(info.ai_addr),
                  reinterpret_cast<const char*>(info.ai_addr) + info.ai_addrlen),
          m_next(std::move(next))
    {
    }

    sockaddr* addr() override { return reinterpret_cast<sockaddr*>(m_bytes.data()); }
    int addrSize() override { return static_cast<int>(m_bytes.size()); }
    int addrFamily() override { return m_family; }
    char* asString() override
    {
        char text[NI_MAXHOST] = "";
        (void)::getnameinfo(addr(), static_cast<socklen_t>(m_bytes.size()), text, sizeof text,
                            nullptr, 0, NI_NUMERICHOST);
        return CORBA::string_dup(text);
    }
    char* name() override { return nullptr; } // the ORB then uses the address
    AddrInfo* next() override { return m_next.get(); }

  private:
    const int m_family;
    std::vector<char> m_bytes;
    const std::unique_ptr<ResolvedAddress> m_next;
};

/// Puts a numeric address in front of others. With null it is the address to listen on.
std::unique_ptr<ResolvedAddress> prepend(const char* numeric, CORBA::UShort port,
                                         std::unique_ptr<ResolvedAddress> others)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (::getaddrinfo(numeric, std::to_string(port).c_str(), &hints, &found) != 0)
        return others;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, &::freeaddrinfo);
    std::vector<const addrinfo*> all;
    for (const addrinfo* each = found; each; each = each->ai_next)
        all.push_back(each);
    std::reverse(all.begin(), all.end());
    for (const addrinfo* const each : all)
        others = std::make_unique<ResolvedAddress>(*each, std::move(others));
    return others;
}

} // namespace

/// The addresses of a host, or null. The ORB frees them.
LibcWrapper::AddrInfo* omni::LibcWrapper::getAddrInfo(const char* node, CORBA::UShort port)
{
    if (!node)
        return prepend(nullptr, port, nullptr).release();
    std::vector<std::string> addresses =
        Veltrane::Quillmark::Tlx::resolveHost(node, NAME_LIMIT, MAX_RESOLVING_REFERENCES);
    std::unique_ptr<ResolvedAddress> all;
    std::reverse(addresses.begin(), addresses.end());
    for (const std::string& each : addresses)
        all = prepend(each.c_str(), port, std::move(all));
    return all.release();
}

void omni::LibcWrapper::freeAddrInfo(AddrInfo* addresses)
{
    delete addresses;
}
