#include "platform/udp/udp_cast_client.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/memory_stream.h"
#include "platform/udp/udp_cast_server.h"
#include "tests/support/peer_process.h"
#include "tests/platform/udp/udp_test_util.h"

namespace kelo {
namespace {

constexpr char kGroup[] = "224.0.0.88";
// How long a query listens when answers are expected at once: generous for slow builds.
constexpr int kAnswerWindowMs = 2000;

std::string ReadName(const UdpCastClient::Reply& reply) {
  MemoryStream body(reply.body);
  std::string name;
  return body.read_string(&name) ? name : "<unreadable>";
}

TEST(UdpCastClientTest, EveryServerOfTheGroupAnswersOneQueryWhateverProcessItLivesIn) {
  testing_support::PeerProcess a(KELO_UDP_CAST_PEER, {kGroup, "28101", "peer-a"});
  testing_support::PeerProcess b(KELO_UDP_CAST_PEER, {kGroup, "28101", "peer-b"});
  ASSERT_TRUE(a.WaitForLine("ready"));
  ASSERT_TRUE(b.WaitForLine("ready"));
  UdpCastServer local(kGroup, 28101);
  local.register_callback("who", [&local](const std::string& peer, int port, UdpMessage& m) {
    UdpMessage reply = m.create_recv("who_recv");
    reply.write_string("local");
    local.send_data(peer, port, reply);
  });

  UdpCastClient client;
  const std::vector<UdpCastClient::Reply> replies = client.query(kGroup, 28101, "who", "", "who_recv", 10000, 3);
  EXPECT_EQ(client.error(), "");
  std::multiset<std::string> names;
  std::set<int> ports;
  for (const UdpCastClient::Reply& r : replies) {
    names.insert(ReadName(r));
    ports.insert(r.port);
    EXPECT_EQ(r.peer, "127.0.0.1");
  }
  EXPECT_EQ(names, (std::multiset<std::string>{"local", "peer-a", "peer-b"}));
  EXPECT_EQ(ports.size(), 3u);
  EXPECT_EQ(ports.count(local.endpoint_port()), 1u);
  EXPECT_EQ(a.Stop(), 0);
  EXPECT_EQ(b.Stop(), 0);
}

TEST(UdpCastClientTest, AQueryStopsCollectingOnceTheExpectedAnswersAreIn) {
  UdpCastServer first(kGroup, 28106), second(kGroup, 28106);
  for (UdpCastServer* server : {&first, &second}) {
    server->register_callback("who", [server](const std::string& peer, int port, UdpMessage& m) {
      UdpMessage reply = m.create_recv("who_recv");
      reply.write_string("server");
      server->send_data(peer, port, reply);
    });
  }
  UdpCastClient client;
  EXPECT_EQ(client.query(kGroup, 28106, "who", "", "who_recv", 60000, 1).size(), 1u);
  EXPECT_EQ(client.query(kGroup, 28106, "who", "", "who_recv", kAnswerWindowMs, 0).size(), 2u);
}

TEST(UdpCastClientTest, WithNobodyListeningAQueryWaitsItsWholeTimeoutAndFindsNothing) {
  UdpCastClient client;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(client.query(kGroup, 28102, "who", "anyone?", "who_recv", 300).empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(client.error(), "");
}

TEST(UdpCastClientTest, LateAnswersToAnEarlierQueryAreNotTakenForAnswersToTheNextOne) {
  UdpCastServer server(kGroup, 28104);
  server.register_callback("slow", [&server](const std::string& peer, int port, UdpMessage& m) {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    UdpMessage answer = m.create_recv("slow_recv");
    answer.write_string(m.body());
    server.send_data(peer, port, answer);
  });
  UdpCastClient client;
  // The answer cannot come before 700 ms.
  EXPECT_TRUE(client.query(kGroup, 28104, "slow", "first", "slow_recv", 200).empty());
  const std::vector<UdpCastClient::Reply> replies =
      client.query(kGroup, 28104, "slow", "second", "slow_recv", 5000, 1);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(ReadName(replies[0]), "second");
  EXPECT_EQ(client.stats().unhandled_messages, 1u);
}

TEST(UdpCastClientTest, AQueryThatCannotBeSentSaysWhy) {
  struct Case {
    std::string interface_name, group;
    int port;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {"lo", "not-an-address", 28106, "not an IPv4 address"},
      {"lo", kGroup, 0, "out of range"},
      {"lo", "192.0.2.1", 28106, "off this host"},
      {"nosuchif0", kGroup, 28106, "no network interface named \"nosuchif0\""},
  };
  for (const Case& c : cases) {
    UdpCastOptions options;
    options.interface_name = c.interface_name;
    UdpCastClient client(options);
    EXPECT_TRUE(client.query(c.group, c.port, "k", "", "k_recv", 100).empty());
    EXPECT_NE(client.error().find(c.reason), std::string::npos) << client.error();
    bool called = false;
    EXPECT_FALSE(client.exchange(c.group, c.port, "k", "", 100,
                                 [&](const UdpCastClient::Reply&, std::chrono::steady_clock::time_point*) {
                                   return called = true;
                                 }));
    EXPECT_FALSE(called);
    EXPECT_NE(client.error().find(c.reason), std::string::npos) << client.error();
  }
  UdpCastOptions options;
  UdpCastClient client(options);
  EXPECT_TRUE(client.query(kGroup, 28106, "k", std::string(9 << 20, 'x'), "k_recv", 100).empty());
  EXPECT_NE(client.error().find("too large"), std::string::npos) << client.error();
}

TEST(UdpCastClientTest, AnExchangeHandsOverAnswersUnderEveryKeyInTheOrderTheyArrive) {
  UdpCastServer server(kGroup, 28107);
  server.register_callback("ask", [&server](const std::string& peer, int port, UdpMessage& m) {
    server.send_data(peer, port, m.create_recv("first"));
    server.send_data(peer, port, UdpMessage("second", "unsolicited"));  // answers nothing
    UdpMessage second = m.create_recv("second");
    second.write_string("body");
    server.send_data(peer, port, second);
  });
  UdpCastClient client;
  std::vector<UdpCastClient::Reply> replies;
  EXPECT_TRUE(client.exchange(kGroup, 28107, "ask", "", kAnswerWindowMs,
                              [&](const UdpCastClient::Reply& r, std::chrono::steady_clock::time_point*) {
                                replies.push_back(r);
                                return true;
                              }));
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0].key, "first");
  EXPECT_EQ(replies[1].key, "second");
  EXPECT_EQ(ReadName(replies[1]), "body");
  EXPECT_EQ(replies[1].port, server.endpoint_port());
  EXPECT_EQ(client.stats().unhandled_messages, 1u);
}

TEST(UdpCastClientTest, AnExchangeListensAsLongAsItsHandlerSays) {
  UdpCastServer server(kGroup, 28108);
  server.register_callback("ask", [&server](const std::string& peer, int port, UdpMessage& m) {
    server.send_data(peer, port, m.create_recv("now"));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    server.send_data(peer, port, m.create_recv("late"));
  });
  UdpCastClient client;
  // Extended past its first 200 ms, the exchange hears the late answer, and ends on it.
  std::vector<std::string> keys;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(
      client.exchange(kGroup, 28108, "ask", "", 200,
                      [&](const UdpCastClient::Reply& r, std::chrono::steady_clock::time_point* deadline) {
                        keys.push_back(r.key);
                        *deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
                        return r.key != "late";
                      }));
  EXPECT_EQ(keys, (std::vector<std::string>{"now", "late"}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));

  // Cut short after the first answer, it never hears the late one.
  keys.clear();
  EXPECT_TRUE(
      client.exchange(kGroup, 28108, "ask", "", 20000,
                      [&](const UdpCastClient::Reply& r, std::chrono::steady_clock::time_point* deadline) {
                        keys.push_back(r.key);
                        *deadline = std::chrono::steady_clock::now();
                        return true;
                      }));
  EXPECT_EQ(keys, std::vector<std::string>{"now"});
}

}  // namespace
}  // namespace kelo
