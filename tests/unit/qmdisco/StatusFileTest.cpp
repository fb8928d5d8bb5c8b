// run/status.json: its content. A reader never finds an incomplete file.

#include "StatusFile.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <thread>

#include <sys/resource.h>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "TestRoot.h"

using namespace Veltrane::Quillmark::Qmdisco;
using QmTest::TestRoot;

namespace {

Status sample()
{
    Status status;
    status.version = "1.2.3";
    status.pid = 4711;
    status.state = "running";
    status.role = "master";
    status.host = "backup1";
    status.start = "2024-02-29T13:05:00+01:00";
    status.endpoint = "192.0.2.7:14400";
    status.root = "/some/where";
    status.logLevel = 4;
    status.assertions = 2;
    status.requestsInProgress = 3;
    status.certificateExpires = 1709208300 + 86400;
    status.counters = {{"puts", 5}, {"queries", 18446744073709551615u}};
    ::setenv("TZ", "CET-1", 1);
    ::tzset();
    status.explorers.lines = {
        {"push", "Files", "cl5", "srv1", 3, 7, "/some/lib.so", 1709208300, "pushed"},
        {"pull", "Ours", "cl5/now", "srv1", 3, 1, "", 0, ""}};
    status.writers = {3, 2, {{"192.0.2.9", 2, 1709208300}, {"", 1, 1709208301}}};
    status.explorers.nextPush = 1709208300 + 14400;
    return status;
}

class StatusFileTest : public testing::Test
{
  protected:
    TestRoot m_root;
    bool write(const Status& status)
    {
        const auto written = m_file.write(status);
        m_error = written ? "" : written.error().text;
        return written.has_value();
    }

    StatusFile m_file{m_root.path("status.json")};
    std::string m_error; ///< the failure of the last write
};

TEST_F(StatusFileTest, HasEveryMember)
{
    ASSERT_TRUE(write(sample())) << m_error;
    EXPECT_EQ(R"({
  "version": "1.2.3",
  "pid": 4711,
  "state": "running",
  "role": "master",
  "host": "backup1",
  "start": "2024-02-29T13:05:00+01:00",
  "endpoint": "192.0.2.7:14400",
  "root": "/some/where",
  "logLevel": 4,
  "assertions": 2,
  "requestsInProgress": 3,
  "certificateExpires": "2024-03-01T13:05:00+01:00",
  "counters": {
    "puts": 5,
    "queries": 18446744073709551615
  },
  "writers": {
    "open": 3,
    "peers": 2,
    "most": [
      {
        "peer": "192.0.2.9",
        "count": 2,
        "oldest": "2024-02-29T13:05:00+01:00"
      },
      {
        "peer": "",
        "count": 1,
        "oldest": "2024-02-29T13:05:01+01:00"
      }
    ]
  },
  "nextPush": "2024-02-29T17:05:00+01:00",
  "explorersRegistered": 2,
  "explorers": [
    {
      "kind": "push",
      "name": "Files",
      "subject": "cl5",
      "authority": "srv1",
      "type": 3,
      "priority": 7,
      "library": "/some/lib.so",
      "last": "2024-02-29T13:05:00+01:00",
      "outcome": "pushed"
    },
    {
      "kind": "pull",
      "name": "Ours",
      "subject": "cl5/now",
      "authority": "srv1",
      "type": 3,
      "priority": 1,
      "library": "",
      "last": null,
      "outcome": ""
    }
  ]
}
)",
              m_root.read("status.json"));
    EXPECT_FALSE(m_root.exists("status.json.tmp"));
    struct stat status = {};
    ASSERT_EQ(0, ::stat(m_root.path("status.json").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777u) << "the group may read it, whatever the umask";
}

TEST_F(StatusFileTest, WithoutCountersThereIsAnEmptyObject)
{
    Status status = sample();
    status.counters.clear();
    EXPECT_EQ(nlohmann::json::object(), nlohmann::json::parse(toJson(status))["counters"]);
}

TEST_F(StatusFileTest, IsJsonWhateverTheNamesHold)
{
    Status status = sample();
    status.host = "a\"b\\c\nd\x01";
    status.root = "/caf\xC3\xA9/\xFF\xC3";
    status.counters = {{"\xFE", 1}};
    const auto read = nlohmann::json::parse(toJson(status));
    EXPECT_EQ("a\"b\\c\nd\x01", read["host"]);
    EXPECT_EQ("/caf\xC3\xA9/\xEF\xBF\xBD\xEF\xBF\xBD", read["root"]);
    EXPECT_EQ(1, read["counters"]["\xEF\xBF\xBD"]);
}

TEST_F(StatusFileTest, IsWrittenOnlyWhenSomethingChanged)
{
    ASSERT_TRUE(write(sample()));
    struct stat first = {};
    struct stat second = {};
    ASSERT_EQ(0, ::stat(m_root.path("status.json").c_str(), &first));
    ASSERT_TRUE(write(sample()));
    ASSERT_EQ(0, ::stat(m_root.path("status.json").c_str(), &second));
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
    Status changed = sample();
    changed.counters[0].second = 6;
    ASSERT_TRUE(write(changed));
    EXPECT_EQ(6, nlohmann::json::parse(m_root.read("status.json"))["counters"]["puts"]);
}

TEST_F(StatusFileTest, AReaderNeverSeesHalfOfIt)
{
    ASSERT_TRUE(write(sample()));
    std::atomic<bool> done{false};
    unsigned bad = 0;
    std::thread reader([&] {
        while (!done)
            if (!nlohmann::json::accept(m_root.read("status.json")))
                ++bad;
    });
    Status status = sample();
    for (int i = 0; i < 200; ++i) {
        // The lengths differ much, so that a write in place would show.
        status.host = std::string(i % 2 ? 20000 : 1, 'h');
        EXPECT_TRUE(write(status)) << m_error;
    }
    done = true;
    reader.join();
    EXPECT_EQ(0u, bad);
}

TEST_F(StatusFileTest, AFullDiskLeavesTheOldOne)
{
    ASSERT_TRUE(write(sample()));
    const std::string before = m_root.read("status.json");
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit little{20, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &little));
    Status changed = sample();
    changed.state = "stopping";
    EXPECT_FALSE(write(changed));
    const rlimit everything{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &everything));
    EXPECT_EQ("cannot write " + m_root.path("status.json.tmp") + ": File too large", m_error);
    EXPECT_EQ(before, m_root.read("status.json"));
    EXPECT_FALSE(m_root.exists("status.json.tmp"));
    // A failed write is tried again, even if the status did not change.
    EXPECT_TRUE(write(changed));
    EXPECT_EQ("stopping", nlohmann::json::parse(m_root.read("status.json"))["state"]);
}

TEST_F(StatusFileTest, WhatCannotBeOpenedOrReplacedIsNamed)
{
    m_root.makeDirectory("status.json/not empty");
    EXPECT_FALSE(write(sample()));
    EXPECT_EQ("cannot replace " + m_root.path("status.json") + ": Is a directory", m_error);
    EXPECT_FALSE(m_root.exists("status.json.tmp"));
    m_root.makeDirectory("status.json.tmp");
    EXPECT_FALSE(write(sample()));
    EXPECT_EQ("cannot open " + m_root.path("status.json.tmp") + ": Is a directory", m_error);
}

TEST(IsoTime, HasAZoneWithAColon)
{
    ::setenv("TZ", "UTC-5:30", 1);
    ::tzset();
    EXPECT_EQ("1970-01-01T05:30:00+05:30", toIsoTime(0));
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    EXPECT_EQ("2009-02-13T18:31:30-05:00", toIsoTime(1234567890));
}

} // namespace
