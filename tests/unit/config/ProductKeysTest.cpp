// The keys of all components, as a program declares them.
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Lines.h"

#include <tlx/HostConfig.h>
#include <tlx/OrbKeys.h>

#include "DaemonKeys.h"
#include "FileSystemKeys.h"
#include "ProductKeys.h"
#include "ServiceKeys.h"

namespace Veltrane::Quillmark {
namespace {

namespace ConfigKey = Tlx::ConfigKey;
using QmTest::Lines;
using Tlx::DeclaredKey;

struct ProductKeysTest : testing::Test
{
    ProductKeysTest() { declareProductKeys(); }

    static Tlx::HostConfig& config() { return Tlx::HostConfig::instance(); }
    static Lines problemsOf(const std::string& text)
    {
        config().readText(text, "qm.conf");
        Lines lines;
        for (const Tlx::HostConfig::Problem& problem : config().problems())
            lines.push_back(problem.toText());
        return lines;
    }
};

TEST_F(ProductKeysTest, EveryNumberHasItsBoundsAndItsDefault)
{
    struct Bounds
    {
        const DeclaredKey& key;
        std::uint64_t lowest;
        std::uint64_t highest;
        std::uint64_t standard;
    };
    for (const Bounds& bounds :
         {Bounds{ConfigKey::LOG_LEVEL, 0, 9, 1},
          Bounds{ConfigKey::LOG_BURST, 0, 1000000, 20},
          Bounds{ConfigKey::LOG_MAX_BYTES, 4096, 1ULL << 40, 10485760},
          Bounds{ConfigKey::LOG_ERRORS_MAX_BYTES, 4096, 1ULL << 40, 1048576},
          Bounds{ConfigKey::LOG_KEEP, 0, 100, 5},
          Bounds{ConfigKey::STOP_LIMIT, 1, 3600, 60},
          Bounds{ConfigKey::REMOTE_MAX_RECORDS, 1, 10000000, 1000000},
          Bounds{ConfigKey::REMOTE_MAX_BYTES, 1024, 1ULL << 30, 67108864},
          Bounds{ConfigKey::REMOTE_MAX_SECONDS, 1, 86400, 600},
          Bounds{ConfigKey::MAX_ITERATORS, 1, 1000000, 10000},
          Bounds{ConfigKey::MAX_ITERATORS_PER_PEER, 1, 1000000, 2500},
          Bounds{ConfigKey::MAX_WRITERS_PER_PEER, 1, 1000, 250},
          Bounds{ConfigKey::WRITER_IDLE_LIMIT, 0, 31536000, 86400},
          Bounds{ConfigKey::MAX_PULLED_BYTES, 1024, 1ULL << 40, 536870912},
          Bounds{ConfigKey::LOCK_WAIT_SECONDS, 1, 3600, 20},
          Bounds{ConfigKey::CACHED_RECORDS, 0, 10000000, 500000},
          Bounds{ConfigKey::MAX_CONNECTIONS, 16, 1000000, 10000},
          Bounds{ConfigKey::REQUEST_THREADS, 4, 4096, 128},
          Bounds{ConfigKey::MAX_ARRIVING_BYTES, 1ULL << 20, 1ULL << 40, 1ULL << 26},
          Bounds{ConfigKey::REQUEST_TIMEOUT, 1, 3600, 30},
          Bounds{ConfigKey::IDLE_CONNECTION_SECONDS, 10, 86400, 180},
          Bounds{ConfigKey::MAX_MESSAGE_BYTES, 65536, 1ULL << 30, 8388608},
          Bounds{ConfigKey::MAX_REMOTE_PRIORITY, 0, 4294967295, 4294967295}}) {
        const std::string key = bounds.key.name();
        EXPECT_EQ(problemsOf(""), Lines{});
        EXPECT_EQ(config().number(bounds.key), bounds.standard) << key;
        for (const std::uint64_t good : {bounds.lowest, bounds.highest}) {
            EXPECT_EQ(problemsOf(key + " = " + std::to_string(good)), Lines{});
            EXPECT_EQ(config().number(bounds.key), good) << key;
        }
        const std::string expected = " is out of range, expected " + std::to_string(bounds.lowest) +
                                     " to " + std::to_string(bounds.highest);
        const std::string above = std::to_string(bounds.highest + 1);
        EXPECT_EQ(problemsOf(key + " = " + above),
                  Lines{"qm.conf:1: " + key + ": '" + above + "'" + expected});
        EXPECT_EQ(config().number(bounds.key), bounds.standard) << key;
        if (bounds.lowest == 0)
            continue;
        const std::string below = std::to_string(bounds.lowest - 1);
        EXPECT_EQ(problemsOf(key + " = " + below),
                  Lines{"qm.conf:1: " + key + ": '" + below + "'" + expected});
    }
}

TEST_F(ProductKeysTest, TheExplorersKeysAreCheckedWithoutTheirLibrary)
{
    EXPECT_EQ(problemsOf("FILESYSTEM_PULL = off\nFILESYSTEM_EXCLUDE = pseudo, nfs4,fuse.x_y-z\n"),
              Lines{});
    EXPECT_EQ(problemsOf("FILESYSTEM_PULL = never\nFILESYSTEM_EXCLUDE = a/b\n"),
              (Lines{"qm.conf:1: FILESYSTEM_PULL: 'never' is not a boolean, expected TRUE or FALSE",
                     "qm.conf:2: FILESYSTEM_EXCLUDE: 'a/b' is no list of types, expected for "
                     "instance pseudo,nfs4"}));
    EXPECT_EQ(problemsOf("FILESYSTEM_EXCLUDE =\n"),
              Lines{"qm.conf:1: FILESYSTEM_EXCLUDE: '' is no list of types, expected for instance "
                    "pseudo,nfs4"});
    EXPECT_FALSE(config().getString(ConfigKey::FILESYSTEM_EXCLUDE));
}

TEST_F(ProductKeysTest, AWrongModeOfTlsIsKept)
{
    for (const std::string good : {"off", "on", "required"}) {
        EXPECT_EQ(problemsOf("TLS = " + good), Lines{});
        EXPECT_EQ(config().getString(ConfigKey::TLS), good);
    }
    EXPECT_EQ(problemsOf("TLS = require\n"),
              Lines{"qm.conf:1: TLS: 'require' is no mode, expected off, on or required"});
    EXPECT_EQ(config().getString(ConfigKey::TLS), "require");
    EXPECT_EQ(problemsOf("TLS\n"), Lines{"qm.conf:1: 'TLS' is not KEY = value"});
    EXPECT_EQ(config().getString(ConfigKey::TLS), "");
}

TEST_F(ProductKeysTest, TheFilesOfTlsHaveAbsolutePaths)
{
    for (const DeclaredKey* const key :
         {&ConfigKey::TLS_CERTIFICATE, &ConfigKey::TLS_KEY, &ConfigKey::TLS_CA}) {
        const std::string name = key->name();
        EXPECT_EQ(problemsOf(name + " = /etc/x.pem"), Lines{});
        EXPECT_EQ(config().getString(*key), "/etc/x.pem");
        EXPECT_EQ(problemsOf(name + " = x.pem"),
                  Lines{"qm.conf:1: " + name + ": 'x.pem' is no absolute path"});
        EXPECT_FALSE(config().getString(*key));
    }
}

TEST_F(ProductKeysTest, ASeverityIsOneOfFour)
{
    for (const std::string good : {"error", "warning", "notice", "debug"}) {
        EXPECT_EQ(problemsOf("LOG_SEVERITY = " + good), Lines{});
        EXPECT_EQ(config().getString(ConfigKey::LOG_SEVERITY), good);
    }
    EXPECT_EQ(problemsOf("LOG_SEVERITY = Errors\n"),
              Lines{"qm.conf:1: LOG_SEVERITY: 'Errors' is no severity, expected error, warning, "
                    "notice or debug"});
    EXPECT_FALSE(config().getString(ConfigKey::LOG_SEVERITY));
}

TEST_F(ProductKeysTest, TheListsSayWhatTheyExpect)
{
    EXPECT_EQ(problemsOf("ALLOW.read = web1, 192.0.2.0/24 2001:db8::/32 local master *\n"
                         "ALLOW.write = own\nALLOW.register = own, local\nALLOW.control =\n"),
              Lines{});
    EXPECT_EQ(config().list(ConfigKey::ALLOW_READ),
              (Lines{"web1", "192.0.2.0/24", "2001:db8::/32", "local", "master", "*"}));
    EXPECT_EQ(config().list(ConfigKey::ALLOW_CONTROL), Lines{});
    EXPECT_EQ(problemsOf("ALLOW.read = own\nALLOW.write = 192.0.2.7/24 local\n"
                         "ALLOW.register = 10.1\nALLOW.control = local own\nALLOW.all = *\n"),
              (Lines{"qm.conf:1: ALLOW.read: 'own' is left out, expected a host, an address, a "
                     "range, local, master or *",
                     "qm.conf:2: ALLOW.write: '192.0.2.7/24' is left out, expected a host, an "
                     "address, a range, own, local, master or *",
                     "qm.conf:3: ALLOW.register: '10.1' is left out, expected a host, an address, "
                     "a range, own, local, master or *",
                     "qm.conf:4: ALLOW.control: 'own' is left out, expected a host, an address, a "
                     "range, local, master or *",
                     "qm.conf:5: unknown key 'ALLOW.all'"}));
    EXPECT_EQ(config().list(ConfigKey::ALLOW_READ), Lines{});
    EXPECT_EQ(config().list(ConfigKey::ALLOW_WRITE), Lines{"local"});
    EXPECT_EQ(problemsOf(""), Lines{});
    for (const DeclaredKey& key :
         {ConfigKey::ALLOW_READ, ConfigKey::ALLOW_WRITE, ConfigKey::ALLOW_REGISTER})
        EXPECT_EQ(config().list(key), Lines{"*"}) << key.name();
    EXPECT_EQ(config().list(ConfigKey::ALLOW_CONTROL), (Lines{"local", "master"}));
}

TEST_F(ProductKeysTest, ARunningDaemonTakesTheseKeys)
{
    std::vector<std::string> taken;
    for (const DeclaredKey* const key : config().declaredKeys())
        if (key->isTakenWhileRunning())
            taken.emplace_back(key->name());
    EXPECT_EQ(taken, (std::vector<std::string>{"ALLOW.read", "ALLOW.write", "ALLOW.register",
                                               "ALLOW.control", "MAX_REMOTE_PRIORITY", "LOG_LEVEL",
                                               "LOG_SEVERITY", "LOG_BURST", "STOP_LIMIT"}));
}

/// The sample shows each key in a comment without a blank: "#KEY = value".
TEST_F(ProductKeysTest, TheSampleHasEveryKeyWithAGoodValue)
{
    std::ifstream sample(QM_SAMPLE);
    std::string text;
    std::size_t keys = 0;
    for (std::string line; std::getline(sample, line);)
        if (line.starts_with('#') && !line.starts_with("# ") && line.size() > 1) {
            text += line.substr(1) + "\n";
            ++keys;
        }
    EXPECT_EQ(keys, config().declaredKeys().size()) << text;
    EXPECT_EQ(problemsOf(text), Lines{}) << text;
}

} // namespace
} // namespace Veltrane::Quillmark
