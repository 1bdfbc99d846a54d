#include "platform/udp/udp_cast_server.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_cast_manager.h"
#include "platform/udp/udp_frame.h"
#include "tests/platform/udp/udp_test_util.h"

namespace kelo {
namespace {

using testing_udp::Eventually;
using testing_udp::Inbox;
using testing_udp::RawSender;
using testing_udp::Received;

constexpr char kGroup[] = "224.0.0.88";

std::string Pattern(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(size, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

// Registers an echo under `key` on `server`: the answer, under key + "_recv", carries the
// question's body unchanged.
void ServeEcho(UdpCastServer* server, const std::string& key) {
  server->register_callback(key, [server, key](const std::string& peer, int port, UdpMessage& m) {
    UdpMessage reply = m.create_recv(key + "_recv");
    reply.write_bytes(m.body().data(), m.body().size());
    server->send_data(peer, port, reply);
  });
}

TEST(UdpCastServerTest, DeliversEachMessageToTheCallbackOfItsKeyWithTheSendersAddress) {
  // What callbacks touch is declared before the servers, whose destructors stop the calls.
  Inbox alpha, beta;
  UdpCastServer receiver(kGroup, 28001);
  UdpCastServer sender(kGroup, 28901);  // another group port: it does not hear itself here
  ASSERT_TRUE(receiver.ok()) << receiver.error();
  ASSERT_TRUE(sender.ok()) << sender.error();
  receiver.register_callback("alpha", alpha.Collect());
  receiver.register_callback("beta", beta.Collect());

  for (const char* key : {"alpha", "beta", "gamma", "alpha", "alpha", "beta"}) {
    UdpMessage m(key);
    m.write_string(std::string("to ") + key);
    ASSERT_TRUE(sender.send_data(kGroup, 28001, m));
  }
  ASSERT_TRUE(alpha.WaitFor(3));
  ASSERT_TRUE(beta.WaitFor(2));
  ASSERT_TRUE(Eventually([&] { return receiver.stats().unhandled_messages == 1; }));
  for (Received r : alpha.received()) {
    EXPECT_EQ(r.message.key(), "alpha");
    std::string text;
    ASSERT_TRUE(r.message.read_string(&text));
    EXPECT_EQ(text, "to alpha");
    EXPECT_EQ(r.peer, "127.0.0.1");
    EXPECT_EQ(r.port, sender.endpoint_port());
  }
  EXPECT_EQ(beta.size(), 2u);
  EXPECT_EQ(receiver.dropped_datagrams(), 0u);
  receiver.register_callback("alpha", UdpCastBase::Callback());  // an empty callback removes the key
  EXPECT_FALSE(receiver.has_callback("alpha"));
}

TEST(UdpCastServerTest, AnswersFromInsideACallbackReachOnlyTheAskerEvenWhenItSharesTheGroupPort) {
  // Three members of one group and port; the asker is one of them.
  Inbox got, overheard;
  UdpCastServer answerer(kGroup, 28003), asker(kGroup, 28003), bystander(kGroup, 28003);
  ASSERT_TRUE(answerer.ok() && asker.ok() && bystander.ok());
  answerer.register_callback("ask", [&answerer](const std::string& peer, int port, UdpMessage& m) {
    std::string question;
    m.read_string(&question);
    UdpMessage reply = m.create_recv("ask_recv");
    reply.write_string("answer to " + question);
    answerer.send_data(peer, port, reply);
  });
  asker.register_callback("ask_recv", got.Collect());
  bystander.register_callback("ask_recv", overheard.Collect());

  for (int i = 0; i < 5; ++i) {
    UdpMessage q("ask");
    q.write_string("q" + std::to_string(i));
    ASSERT_TRUE(asker.send_data(kGroup, 28003, q));
  }
  ASSERT_TRUE(got.WaitFor(5));
  std::vector<Received> replies = got.received();
  for (int i = 0; i < 5; ++i) {
    std::string text;
    ASSERT_TRUE(replies[i].message.read_string(&text));
    EXPECT_EQ(text, "answer to q" + std::to_string(i));
    EXPECT_NE(replies[i].message.reply_to(), 0u);
    EXPECT_EQ(replies[i].port, answerer.endpoint_port());
  }
  // Every member heard every question, the bystander none of the answers.
  ASSERT_TRUE(Eventually([&] { return bystander.stats().unhandled_messages == 5; }));
  EXPECT_EQ(overheard.size(), 0u);
}

TEST(UdpCastServerTest, BodiesOfEverySizeUpToTheLimitTravelWholeInBothDirections) {
  Inbox replies;
  UdpCastServer echo(kGroup, 28004), asker(kGroup, 28904);
  ASSERT_TRUE(echo.ok() && asker.ok());
  ServeEcho(&echo, "echo");
  asker.register_callback("echo_recv", replies.Collect());

  const size_t cap = echo.max_datagram_bytes() - kUdpFrameHeaderBytes - std::string("echo").size();
  const std::vector<size_t> sizes = {0, 1, cap - 1, cap, cap + 1, 2 * cap + 1, size_t{1} << 20, kUdpMaxBodyBytes};
  for (size_t i = 0; i < sizes.size(); ++i) {
    const std::string body = Pattern(sizes[i], static_cast<uint32_t>(i));
    ASSERT_TRUE(asker.send_data(kGroup, 28004, UdpMessage("echo", body))) << sizes[i];
    ASSERT_TRUE(replies.WaitFor(i + 1))
        << "no echo of " << sizes[i] << " bytes; " << echo.stats().dropped_messages << " messages abandoned";
    EXPECT_TRUE(replies.received()[i].message.body() == body) << sizes[i];
  }
  EXPECT_FALSE(asker.send_data(kGroup, 28004, UdpMessage("echo", std::string(kUdpMaxBodyBytes + 1, 'x'))));
  EXPECT_EQ(echo.dropped_datagrams(), 0u);
  EXPECT_EQ(asker.dropped_datagrams(), 0u);
}

TEST(UdpCastServerTest, UnregisterReturnsOnlyAfterTheCallInProgressHasFinished) {
  std::atomic<bool> entered{false}, release{false}, finished{false};
  Inbox other;
  UdpCastServer receiver(kGroup, 28005), sender(kGroup, 28905);
  receiver.register_callback("slow", [&](const std::string&, int, UdpMessage&) {
    entered = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    finished = true;
  });
  receiver.register_callback("other", other.Collect());
  ASSERT_TRUE(sender.send_data(kGroup, 28005, UdpMessage("slow")));
  ASSERT_TRUE(Eventually([&] { return entered.load(); }));

  std::atomic<bool> returned{false}, finished_at_return{false};
  std::thread unregistering([&] {
    receiver.unregister_callback("slow");
    finished_at_return = finished.load();
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(returned.load()) << "unregister did not wait for the running callback";
  // Other keys are neither blocked nor waited for.
  EXPECT_TRUE(receiver.has_callback("other"));
  EXPECT_FALSE(receiver.has_callback("slow"));
  release = true;
  unregistering.join();
  EXPECT_TRUE(finished_at_return.load());

  // Gone for good: a later "slow" is unhandled, while "other" still arrives.
  ASSERT_TRUE(sender.send_data(kGroup, 28005, UdpMessage("slow")));
  ASSERT_TRUE(sender.send_data(kGroup, 28005, UdpMessage("other")));
  ASSERT_TRUE(other.WaitFor(1));
  EXPECT_EQ(receiver.stats().unhandled_messages, 1u);
}

// A callback may unregister itself, register others and answer without deadlock; one that
// throws is counted and the server goes on.
TEST(UdpCastServerTest, CallbacksMayChangeRegistrationsAndThrowWithoutStoppingTheServer) {
  std::atomic<int> once_calls{0};
  Inbox later, answered;
  UdpCastServer receiver(kGroup, 28006), sender(kGroup, 28906);
  receiver.register_callback("once", [&](const std::string& peer, int port, UdpMessage& m) {
    ++once_calls;
    receiver.unregister_callback("once");
    receiver.register_callback("later", later.Collect());
    receiver.send_data(peer, port, m.create_recv("once_recv"));
  });
  receiver.register_callback("bad", [](const std::string&, int, UdpMessage&) { throw std::runtime_error("no"); });
  sender.register_callback("once_recv", answered.Collect());
  for (const char* key : {"once", "bad", "once", "once", "later"}) ASSERT_TRUE(sender.send_data(kGroup, 28006, UdpMessage(key)));
  ASSERT_TRUE(later.WaitFor(1));
  ASSERT_TRUE(answered.WaitFor(1));
  EXPECT_EQ(once_calls.load(), 1);
  EXPECT_EQ(receiver.stats().unhandled_messages, 2u);
  EXPECT_EQ(receiver.stats().callback_exceptions, 1u);
}

// Every kind of bad datagram, sent both to the group and to the server's own port. None may
// reach a callback, each is counted, memory stays bounded, and questions are still answered.
TEST(UdpCastServerTest, BadDatagramsAreDroppedCountedAndNeverDeliveredWhileQuestionsAreStillAnswered) {
  std::atomic<int> probes{0};
  Inbox answers;
  UdpCastServer server(kGroup, 28008), asker(kGroup, 28908);
  ASSERT_TRUE(server.ok() && asker.ok());
  server.register_callback("probe", [&](const std::string&, int, UdpMessage&) { ++probes; });
  ServeEcho(&server, "ask");
  asker.register_callback("ask_recv", answers.Collect());
  std::vector<std::string> frames;
  EncodeUdpFrames(99, 1, 0, "probe", "x", 1472, &frames);
  const std::string valid = frames[0];
  std::vector<std::string> foreign = {"", "hello", std::string(65507, '\xff')};
  for (uint32_t i = 0; i < 20; ++i) foreign.push_back(Pattern(1 + i * 70, i));
  std::string version = valid;
  version[4] = 2;
  std::vector<std::string> malformed = {valid + "trailing"};
  for (size_t cut = 4; cut < valid.size(); cut += 3) malformed.push_back(valid.substr(0, cut));
  RawSender raw;
  size_t sent = 0;
  for (const auto* list : {&foreign, &malformed}) {
    for (const std::string& d : *list) {  // to the group and to the server's own port
      ASSERT_TRUE(raw.Send(d, kGroup, 28008));
      ASSERT_TRUE(raw.Send(d, "127.0.0.1", server.endpoint_port()));
      sent += 2;
    }
  }
  ASSERT_TRUE(raw.Send(version, kGroup, 28008));
  ASSERT_TRUE(asker.send_data(kGroup, 28008, UdpMessage("ask", "still there?")));
  ASSERT_TRUE(raw.Send(valid, kGroup, 28008));
  ASSERT_TRUE(answers.WaitFor(1));
  ASSERT_TRUE(Eventually([&] { return server.stats().received_datagrams == sent + 3; }));
  const UdpCastStats s = server.stats();
  EXPECT_EQ(s.foreign_datagrams, 2 * foreign.size());
  EXPECT_EQ(s.bad_version_datagrams, 1u);
  EXPECT_EQ(s.malformed_datagrams, 2 * malformed.size());
  EXPECT_EQ(server.dropped_datagrams(), sent + 1);
  EXPECT_EQ(s.completed_messages, 2u);
  EXPECT_EQ(probes.load(), 1);
  EXPECT_EQ(answers.received()[0].message.body(), "still there?");
}

TEST(UdpCastServerTest, AServerThatCannotJoinSaysWhyAndNeitherSendsNorDelivers) {
  struct Case {
    std::string group;
    int port;
    std::string interface_name;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {"127.0.0.1", 28010, "lo", "not an IPv4 multicast address"},
      {"not-an-address", 28010, "lo", "not an IPv4 multicast address"},
      {kGroup, 0, "lo", "port out of range"},
      {kGroup, 70000, "lo", "port out of range"},
      {kGroup, 28010, "nosuchif0", "no network interface named \"nosuchif0\""},
  };
  for (const Case& c : cases) {
    UdpCastOptions options;
    options.interface_name = c.interface_name;
    UdpCastServer server(c.group, c.port, options);
    EXPECT_FALSE(server.ok());
    EXPECT_NE(server.error().find(c.reason), std::string::npos) << server.error();
    EXPECT_EQ(server.max_datagram_bytes(), 0u);
    EXPECT_FALSE(server.send_data(kGroup, 28010, UdpMessage("k")));
    server.register_callback("k", [](const std::string&, int, UdpMessage&) {});
    server.unregister_callback("k");
  }
}

TEST(UdpCastServerTest, OnLoopbackNothingIsSentOffThisHost) {
  UdpCastServer server(kGroup, 28011);
  ASSERT_TRUE(server.ok());
  EXPECT_EQ(server.interface_name(), "lo");
  // Documentation addresses: refused before any packet is made.
  for (const char* peer : {"192.0.2.1", "198.51.100.7", "203.0.113.9"}) {
    EXPECT_FALSE(server.send_data(peer, 28011, UdpMessage("k"))) << peer;
  }
  for (const char* peer : {"not an address", ""})
    EXPECT_FALSE(server.send_data(peer, 28011, UdpMessage("k")));
  EXPECT_FALSE(server.send_data("127.0.0.1", 0, UdpMessage("k")));
  EXPECT_TRUE(server.send_data("127.0.0.2", 28011, UdpMessage("k")));
}

TEST(UdpCastManagerTest, SharesOneServerPerGroupAndPortAndKeepsLoopbackUntilToldOtherwise) {
  EXPECT_EQ(UdpCastManager::GetInterface(), "lo");
  UdpCastServer* a = UdpCastManager::GetCastServer(kGroup, 28012);
  ASSERT_NE(a, nullptr);
  EXPECT_TRUE(a->ok()) << a->error();
  EXPECT_EQ(a->interface_name(), "lo");
  EXPECT_EQ(UdpCastManager::GetCastServer(kGroup, 28012), a);
  EXPECT_NE(UdpCastManager::GetCastServer(kGroup, 28013), a);
  EXPECT_NE(UdpCastManager::GetCastServer("224.0.0.89", 28012), a);

  EXPECT_FALSE(UdpCastManager::SetInterface("nosuchif0"));
  EXPECT_EQ(UdpCastManager::GetInterface(), "lo");
  EXPECT_TRUE(UdpCastManager::SetInterface(""));
  EXPECT_EQ(UdpCastManager::GetInterface(), "lo");
  // A bad group still yields a server, one that never works.
  UdpCastServer* bad = UdpCastManager::GetCastServer("nonsense", 1);
  ASSERT_NE(bad, nullptr);
  EXPECT_FALSE(bad->ok());
}

}  // namespace
}  // namespace kelo
