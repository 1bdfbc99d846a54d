#include "platform/udp/udp_cast_server.h"

#include <arpa/inet.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_socket.h"
#include "tests/support/report_log.h"
#include "tests/support/subprocess.h"

namespace kelo {
namespace {

constexpr char kGroup[] = "224.0.0.88";

bool Eventually(const std::function<bool()>& condition) { return testing_support::WaitFor(condition, 20000); }

// Keeps "peer:port body" of what a callback was given, for the test thread to wait on.
struct Inbox : testing_support::ReportLog {
  UdpCastBase::Callback Collect() {
    return [this](const std::string& peer, int port, UdpMessage& m) {
      sink()(peer + ":" + std::to_string(port) + " " + m.body());
    };
  }
  std::vector<std::string> Wait(size_t count = 0) {
    Eventually([&] { return texts().size() >= count; });
    return texts();
  }
};

std::string From(const UdpCastServer& s) { return "127.0.0.1:" + std::to_string(s.endpoint_port()) + " "; }

// Catches messages handed to a wrong or replaced callback, and answers heard by the whole group.
TEST(UdpCastServerTest, DeliversToTheCurrentCallbackOfTheKeyAndAnswersOnlyTheAsker) {
  Inbox alpha, beta, replaced, answers, overheard;  // first: the servers' destructors stop the calls
  UdpCastServer receiver(kGroup, 28001), asker(kGroup, 28001), bystander(kGroup, 28001);
  ASSERT_TRUE(receiver.ok() && asker.ok() && bystander.ok()) << receiver.error();
  receiver.register_callback("alpha", alpha.Collect());
  receiver.register_callback("beta", beta.Collect());
  receiver.register_callback("ask", [&receiver](const std::string& peer, int port, UdpMessage& m) {
    receiver.send_data(peer, port, UdpMessage("ask_recv", m.body(), 0, m.id()));  // the echo of a question
  });
  asker.register_callback("ask_recv", answers.Collect());
  bystander.register_callback("ask_recv", overheard.Collect());
  for (const char* key : {"alpha", "beta", "gamma", "ask"})
    ASSERT_TRUE(asker.send_data(kGroup, 28001, UdpMessage(key, key)));
  EXPECT_EQ(alpha.Wait(1), std::vector<std::string>{From(asker) + "alpha"});
  EXPECT_EQ(answers.Wait(1), std::vector<std::string>{From(receiver) + "ask"});
  ASSERT_TRUE(Eventually([&] { return receiver.stats().unhandled_messages == 1; }));  // gamma
  receiver.register_callback("beta", replaced.Collect());
  ASSERT_TRUE(asker.send_data(kGroup, 28001, UdpMessage("beta", "again")));
  EXPECT_EQ(replaced.Wait(1).size(), 1u);
  EXPECT_EQ(beta.Wait().size(), 1u);
  EXPECT_TRUE(overheard.Wait().empty());
  receiver.register_callback("beta", UdpCastBase::Callback());
  EXPECT_FALSE(receiver.has_callback("beta"));
}

// Catches unregister not waiting for a running call, or deadlocking when called from it.
TEST(UdpCastServerTest, UnregisterWaitsForTheRunningCallButNotForItself) {
  std::atomic<bool> entered{false}, release{false}, finished{false}, returned{false};
  std::atomic<int> once_calls{0};
  Inbox later;
  UdpCastServer receiver(kGroup, 28005), sender(kGroup, 28905);
  receiver.register_callback("slow", [&](const std::string&, int, UdpMessage&) {
    entered = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    finished = true;
  });
  receiver.register_callback("once", [&](const std::string&, int, UdpMessage&) {
    ++once_calls;
    receiver.unregister_callback("once");
    receiver.register_callback("later", later.Collect());
  });
  receiver.register_callback("bad", [](const std::string&, int, UdpMessage&) { throw std::runtime_error(""); });
  ASSERT_TRUE(sender.send_data(kGroup, 28005, UdpMessage("slow")));
  ASSERT_TRUE(Eventually([&] { return entered.load(); }));
  bool finished_at_return = false;
  std::thread unregistering([&] {
    receiver.unregister_callback("slow");
    finished_at_return = finished.load();
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(returned.load());
  EXPECT_TRUE(receiver.has_callback("once"));
  release = true;
  unregistering.join();
  EXPECT_TRUE(finished_at_return);
  for (const char* key : {"slow", "bad", "once", "once", "later"})
    ASSERT_TRUE(sender.send_data(kGroup, 28005, UdpMessage(key)));
  EXPECT_EQ(later.Wait(1).size(), 1u);
  EXPECT_EQ(once_calls.load(), 1);
  EXPECT_EQ(receiver.stats().unhandled_messages, 2u);
  EXPECT_EQ(receiver.stats().callback_exceptions, 1u);
}

// Catches bad settings accepted and sends off the host. (One server per group and port in a process:
// the trigger and monitor tests see it in the ports nodes answer from.)
TEST(UdpCastServerTest, BadSettingsAreRefusedAndNothingLeavesThisHost) {
  for (auto [group, port, interface_name, reason] : std::vector<std::tuple<std::string, int, std::string, std::string>>{
           {"127.0.0.1", 28010, "lo", "not an IPv4 multicast address"}, {kGroup, 70000, "lo", "port out of range"},
           {kGroup, 28010, "nosuchif0", "no network interface named \"nosuchif0\""}}) {
    UdpCastOptions options;
    options.interface_name = interface_name;
    UdpCastServer server(group, port, options);
    EXPECT_FALSE(server.ok());
    EXPECT_NE(server.error().find(reason), std::string::npos) << server.error();
    EXPECT_FALSE(server.send_data(kGroup, 28010, UdpMessage("k")));
  }
  UdpCastServer server(kGroup, 28012);
  ASSERT_TRUE(server.ok()) << server.error();
  for (const char* peer : {"192.0.2.1", "203.0.113.9", "not an address"})
    EXPECT_FALSE(server.send_data(peer, 28012, UdpMessage("k"))) << peer;
  EXPECT_FALSE(server.send_data("127.0.0.1", 0, UdpMessage("k")));
  EXPECT_TRUE(server.send_data("127.0.0.2", 28012, UdpMessage("k")));
  // An interface gone since it was looked up (an adapter unplugged) is refused, not half used.
  UdpInterface gone;
  std::string error;
  ASSERT_TRUE(ResolveUdpInterface("lo", &gone, &error)) << error;
  gone.index = 100000;
  UdpSocket s;
  EXPECT_TRUE(!s.OpenEndpoint(gone, &error) && error.find("cannot send multicast on lo: ") == 0) << error;
  EXPECT_TRUE(!s.OpenGroup(gone, inet_addr(kGroup), 9, &error) && error.find("cannot join ") == 0) << error;
}

}  // namespace
}  // namespace kelo
