#include "platform/udp/udp_cast_client.h"

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_cast_server.h"
#include "platform/udp/udp_frame.h"

namespace kelo {
namespace {

using Reply = UdpCastClient::Reply;
using Deadline = std::chrono::steady_clock::time_point;
constexpr char kGroup[] = "224.0.0.88";

// Answers "who" under "who_recv" with `body`.
void Serve(UdpCastServer* server, const std::string& body) {
  server->register_callback("who", [server, body](const std::string& peer, int port, UdpMessage& m) {
    server->send_data(peer, port, UdpMessage("who_recv", body, 0, m.id()));
  });
}

// Catches a port only one socket can serve, the largest answers lost, and the reply limit ignored.
TEST(UdpCastClientTest, EveryServerOfTheGroupAnswersAndAQueryStopsAtItsLimit) {
  std::string big(kUdpMaxBodyBytes, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  UdpCastServer first(kGroup, 28106), second(kGroup, 28106);
  Serve(&first, big);
  Serve(&second, "second");
  UdpCastClient client;
  EXPECT_EQ(client.query(kGroup, 28106, "who", "", "who_recv", 60000, 1).size(), 1u);
  std::set<std::string> bodies;
  std::set<int> ports;
  for (const Reply& r : client.query(kGroup, 28106, "who", "", "who_recv", 20000, 2)) {
    bodies.insert(r.body);
    ports.insert(r.port);
    EXPECT_EQ(r.peer, "127.0.0.1");
  }
  EXPECT_TRUE(bodies == (std::set<std::string>{big, "second"}));
  EXPECT_EQ(ports, (std::set<int>{first.endpoint_port(), second.endpoint_port()}));
  EXPECT_EQ(client.dropped_datagrams(), 0u);
  EXPECT_FALSE(first.send_data(kGroup, 28106, UdpMessage("who_recv", big + "x")));
}

// Catches a query cut short, and answers to other queries or under other keys collected.
TEST(UdpCastClientTest, OnlyAnswersToThisVeryQueryUnderTheReplyKeyAreCollected) {
  UdpCastServer server(kGroup, 28103);
  std::atomic<bool> slept{false};
  server.register_callback("ask", [&server, &slept](const std::string& peer, int port, UdpMessage& m) {
    if (m.body() == "slow" && !slept.exchange(true)) std::this_thread::sleep_for(std::chrono::milliseconds(700));
    server.send_data(peer, port, UdpMessage("ask_recv", "unsolicited"));
    server.send_data(peer, port, m.create_recv("other"));
    server.send_data(peer, port, UdpMessage("ask_recv", m.body(), 0, m.id()));
  });
  UdpCastClient client;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(client.query(kGroup, 28103, "ask", "slow", "ask_recv", 300).empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  const std::vector<Reply> replies = client.query(kGroup, 28103, "ask", "fast", "ask_recv", 2000);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].body, "fast");
  // At least the two datagrams the server sent before its answer to "fast" were seen and dropped
  // (how many of the late answers to "slow" and of the other copies' come in time depends on the load).
  EXPECT_GE(client.stats().unhandled_messages, 2u);
  EXPECT_EQ(client.error(), "");
}

// Catches a question lost on the way never asked again, or asked again all at once (a burst
// that loses one copy loses them all), and a member answering each copy counted as several.
TEST(UdpCastClientTest, AQuestionLostOnTheWayIsAskedAgainAndEachMemberAnswersOnce) {
  UdpCastServer server(kGroup, 28109);
  std::atomic<int> asked{0};
  std::atomic<int64_t> first{0}, last{0};  // ns
  server.register_callback("ask", [&](const std::string& peer, int port, UdpMessage& m) {
    (asked.load() == 0 ? first : last) = std::chrono::steady_clock::now().time_since_epoch().count();
    if (asked++ > 0) server.send_data(peer, port, m.create_recv("ask_recv"));
  });
  UdpCastClient client;
  EXPECT_EQ(client.query(kGroup, 28109, "ask", "", "ask_recv", 900).size(), 1u);
  EXPECT_EQ(asked.load(), 3);
  EXPECT_GE(last - first, 500000000);  // spread over the wait
  // A wait too short to spread copies over asks once.
  client.query(kGroup, 28109, "ask", "", "ask_recv", 2);
  while (asked.load() < 4) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(asked.load(), 4);
}

// Catches bad addresses, ports, interfaces or bodies sent anyway or failing silently.
TEST(UdpCastClientTest, AQueryThatCannotBeSentSaysWhy) {
  for (auto [interface_name, group, port, body, reason] :
       std::vector<std::tuple<std::string, std::string, int, size_t, std::string>>{
           {"lo", "not-an-address", 28106, 0, "not an IPv4 address"},
           {"lo", kGroup, 0, 0, "out of range"},
           {"lo", "192.0.2.1", 28106, 0, "off this host"},
           {"lo", kGroup, 28106, 9 << 20, "too large"},
           {"nosuchif0", kGroup, 28106, 0, "no network interface named"}}) {
    UdpCastOptions options;
    options.interface_name = interface_name;
    UdpCastClient client(options);
    EXPECT_TRUE(client.query(group, port, "k", std::string(body, 'x'), "k_recv", 100).empty());
    EXPECT_NE(client.error().find(reason), std::string::npos) << client.error();
    bool called = false;
    EXPECT_FALSE(client.exchange(group, port, "k", std::string(body, 'x'), 100,
                                 [&](const Reply&, Deadline*) { return called = true; }));
    EXPECT_FALSE(called);
  }
}

}  // namespace
}  // namespace kelo
