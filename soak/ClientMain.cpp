// One client process of the soak. It reads its orders from standard input, one JSON object, and
// works until SIGTERM:
//   "workers"      the states of its workers (Worker.h), one thread each
//   "store"        the directory of a store; or
//   "endpointFile" where the service is (WireTarget.h), and "limit", seconds for each answer
// With "store" and "check", a list of names, it only reads: it prints one JSON object, with the
// "names" of all records, and in "versions" for each name [GENERATION, SIZE], "spoilt", or null if
// the record is absent or has no payload.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include <DiscDB.h>
#include <tlx/Log.h>
#include <tlx/Orb.h>

#include "Phase.h"
#include "Stamp.h"
#include "StoreTarget.h"
#include "WireTarget.h"
#include "Worker.h"

namespace {

namespace Tlx = Veltrane::Quillmark::Tlx;
using namespace Veltrane::Quillmark::Soak;

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

nlohmann::json check(const nlohmann::json& names)
{
    const auto target = makeStoreTarget();
    nlohmann::json versions = nlohmann::json::object();
    for (const std::string text : names) {
        const auto slash = text.find('/');
        std::string payload;
        nlohmann::json& found = versions[text];
        if (target->read({text.substr(0, slash), text.substr(slash + 1)}, payload) !=
            ReadOutcome::FOUND)
            continue;
        if (const auto version = checkPayload(text, payload))
            found = {version->generation, version->size};
        else
            found = "spoilt";
    }
    return {{"names", target->list("*", "*")}, {"versions", versions}};
}

int work(const nlohmann::json& orders)
{
    std::unique_ptr<Tlx::Orb> orb;
    if (orders.contains("endpointFile"))
        orb = std::make_unique<Tlx::Orb>(true, "", "soak", false);
    else
        Tlx::DiscoverySvc::getDiscoveryDBDatabase()->init(orders.at("store").get<std::string>());
    if (orders.contains("check")) {
        std::cout << check(orders.at("check")) << std::endl;
        return 0;
    }
    std::atomic<bool> good{true};
    std::vector<std::jthread> threads;
    for (const nlohmann::json& state : orders.at("workers"))
        threads.emplace_back([&] {
            Phase phase(state.at("ledger").get<std::string>() + ".phase");
            const auto target =
                orb ? makeWireTarget(*orb, orders.at("endpointFile"),
                                     std::chrono::seconds(orders.at("limit").get<unsigned>()),
                                     phase)
                    : makeStoreTarget();
            if (!Worker(state, *target).run(g_stop)) {
                good = false;
                g_stop = true;
            }
        });
    threads.clear();
    return good ? 0 : 1;
}

} // namespace

int main()
{
    Tlx::LoggerFactory::instance().setLevel(0);
    try {
        const auto orders = nlohmann::json::parse(std::cin);
        // After the ORB: the flag must be set by this handler.
        struct sigaction action = {};
        action.sa_handler = [](int) { g_stop = true; };
        ::sigaction(SIGTERM, &action, nullptr);
        return work(orders);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soak_client: %s\n", e.what());
        return 1;
    }
}
