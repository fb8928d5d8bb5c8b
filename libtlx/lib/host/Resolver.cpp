#include <tlx/Resolver.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include <netdb.h>
#include <sys/socket.h>

#include <tlx/Address.h>
#include <tlx/StopNotice.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

using Addresses = std::vector<std::string>;
using Resolve = std::function<Addresses(const std::string&)>;

constexpr std::chrono::milliseconds LONGEST_WAIT = std::chrono::hours(24);
/// How often a wait looks whether the process stops.
constexpr std::chrono::milliseconds LOOK_FOR_STOP{100};

std::atomic<int> g_background{0};

struct Replacement
{
    std::mutex mutex;
    Resolve resolve;
};

// Never destroyed: a resolver that hangs may outlive the main function.
Replacement& replacement()
{
    static auto* const instance = new Replacement;
    return *instance;
}

Addresses systemAddresses(const std::string& host, int flags)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return {};
    Addresses result;
    for (const addrinfo* each = found; each; each = each->ai_next) {
        char text[NI_MAXHOST];
        if (::getnameinfo(each->ai_addr, each->ai_addrlen, text, sizeof text, nullptr, 0,
                          NI_NUMERICHOST) != 0)
            continue;
        if (std::find(result.begin(), result.end(), text) == result.end())
            result.emplace_back(text);
    }
    ::freeaddrinfo(found);
    return result;
}

// The caller and the background thread share it. The last one destroys it.
struct Question
{
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
    Addresses addresses;
};

void answer(const std::shared_ptr<Question>& question, const std::string& host,
            const Resolve& resolve) noexcept
{
    Addresses addresses;
    try {
        addresses = resolve ? resolve(host) : systemAddresses(host, 0);
    } catch (...) {
        addresses.clear(); // as after every failure
    }
    {
        std::lock_guard guard(question->mutex);
        question->addresses = std::move(addresses);
        question->done = true;
    }
    question->answered.notify_all();
    --g_background;
}

} // namespace

std::vector<std::string> resolveHost(const std::string& host, std::chrono::milliseconds limit,
                                     int most)
{
    if (host.empty() || host.find('\0') != std::string::npos)
        return {};
    try {
        if (Addresses numeric = systemAddresses(host, AI_NUMERICHOST); !numeric.empty())
            return numeric;

        Resolve resolve;
        {
            std::lock_guard guard(replacement().mutex);
            resolve = replacement().resolve;
        }
        auto question = std::make_shared<Question>();
        if (++g_background > most) {
            --g_background;
            return {};
        }
        try {
            std::thread([question, host, resolve] { answer(question, host, resolve); }).detach();
        } catch (...) {
            --g_background;
            return {};
        }
        std::unique_lock guard(question->mutex);
        // A huge limit would overflow the clock.
        const auto end = std::chrono::steady_clock::now() +
                         std::clamp(limit, std::chrono::milliseconds(0), LONGEST_WAIT);
        while (!question->done && !isStopAnnounced()) {
            const auto now = std::chrono::steady_clock::now();
            if (now >= end)
                break;
            question->answered.wait_until(guard, std::min(end, now + LOOK_FOR_STOP));
        }
        return question->addresses;
    } catch (const std::exception&) {
        return {}; // memory ran out
    }
}

bool isLocalAddress(const std::string& address)
{
    const auto wanted = NumericAddress::parse(address);
    if (!wanted)
        return false;
    if (wanted->isLoopback())
        return true;
    const std::vector<NumericAddress> own = interfaceAddresses();
    return std::binary_search(own.begin(), own.end(), *wanted);
}

void setResolver(std::function<std::vector<std::string>(const std::string& host)> resolver)
{
    std::lock_guard guard(replacement().mutex);
    replacement().resolve = std::move(resolver);
}

} // namespace Veltrane::Quillmark::Tlx
