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
}

TEST(UdpCastServerTest, RegisteringAgainUnderAKeyReplacesTheCallback) {
  Inbox first, second;
  UdpCastServer receiver(kGroup, 28002);
  UdpCastServer sender(kGroup, 28902);
  receiver.register_callback("k", first.Collect());
  ASSERT_TRUE(sender.send_data(kGroup, 28002, UdpMessage("k")));
  ASSERT_TRUE(first.WaitFor(1));
  receiver.register_callback("k", second.Collect());
  ASSERT_TRUE(sender.send_data(kGroup, 28002, UdpMessage("k")));
  ASSERT_TRUE(second.WaitFor(1));
  EXPECT_EQ(first.size(), 1u);
  // An empty callback removes the key.
  receiver.register_callback("k", UdpCastBase::Callback());
  EXPECT_FALSE(receiver.has_callback("k"));
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
  const std::vector<size_t> sizes = {0,
                                     1,
                                     cap - 1,
                                     cap,
                                     cap + 1,
                                     2 * cap,
                                     2 * cap + 1,
                                     150000,
                                     size_t{1} << 20,
                                     size_t{4} << 20,
                                     kUdpMaxBodyBytes};
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

TEST(UdpCastServerTest, ACallbackMayUnregisterItselfAndRegisterOthersWithoutDeadlock) {
  std::atomic<int> once_calls{0};
  Inbox later;
  Inbox answered;
  UdpCastServer receiver(kGroup, 28006), sender(kGroup, 28906);
  receiver.register_callback("once", [&](const std::string& peer, int port, UdpMessage& m) {
    ++once_calls;
    receiver.unregister_callback("once");
    receiver.register_callback("later", later.Collect());
    // Sending from inside a callback works too.
    receiver.send_data(peer, port, m.create_recv("once_recv"));
  });
  sender.register_callback("once_recv", answered.Collect());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(sender.send_data(kGroup, 28006, UdpMessage("once")));
  ASSERT_TRUE(sender.send_data(kGroup, 28006, UdpMessage("later")));
  ASSERT_TRUE(later.WaitFor(1));
  ASSERT_TRUE(answered.WaitFor(1));
  EXPECT_EQ(once_calls.load(), 1);
  EXPECT_EQ(receiver.stats().unhandled_messages, 2u);
}

TEST(UdpCastServerTest, ACallbackThatThrowsIsCountedAndTheServerGoesOn) {
  Inbox good;
  UdpCastServer receiver(kGroup, 28007), sender(kGroup, 28907);
  receiver.register_callback("bad",
                             [](const std::string&, int, UdpMessage&) { throw std::runtime_error("no"); });
  receiver.register_callback("good", good.Collect());
  ASSERT_TRUE(sender.send_data(kGroup, 28007, UdpMessage("bad")));
  ASSERT_TRUE(sender.send_data(kGroup, 28007, UdpMessage("good")));
  ASSERT_TRUE(good.WaitFor(1));
  EXPECT_EQ(receiver.stats().callback_exceptions, 1u);
}

// Every kind of bad datagram, sent both to the group and to the server's own port. None may
// reach a callback, each is counted, memory stays bounded, and questions are still answered.
TEST(UdpCastServerTest, BadDatagramsAreDroppedCountedAndNeverDeliveredWhileQuestionsAreStillAnswered) {
  UdpCastOptions options;
  options.reassembly.max_pending_bytes = 1 << 20;
  options.reassembly.max_pending_messages = 32;
  options.reassembly.timeout_ms = 500;
  std::atomic<int> probes{0};
  Inbox answers;
  UdpCastServer server(kGroup, 28008, options), asker(kGroup, 28908);
  ASSERT_TRUE(server.ok() && asker.ok());
  server.register_callback("probe", [&](const std::string&, int, UdpMessage&) { ++probes; });
  ServeEcho(&server, "ask");
  asker.register_callback("ask_recv", answers.Collect());

  auto frames = [](uint32_t id, const std::string& body) {
    std::vector<std::string> d;
    EncodeUdpFrames(99, id, 0, "probe", body, 1472, &d);
    return d;
  };
  const std::string valid = frames(1, "x")[0];
  std::vector<std::string> foreign = {"", "hello", std::string(65507, '\xff')};
  std::mt19937 rng(12);
  for (int i = 0; i < 200; ++i) foreign.push_back(Pattern(1 + rng() % 1500, rng()));
  std::vector<std::string> versions;
  for (int v : {0, 2, 200}) {
    std::string d = valid;
    d[4] = static_cast<char>(v);
    versions.push_back(d);
  }
  std::vector<std::string> malformed;
  for (size_t cut = 4; cut < valid.size(); ++cut) malformed.push_back(valid.substr(0, cut));
  malformed.push_back(valid + "trailing");
  for (size_t at : {size_t{6}, size_t{20}, size_t{24}, size_t{26}}) {  // key size, body size, index, count
    std::string d = valid;
    d[at] = '\xff';
    d[at + 1] = '\xff';
    malformed.push_back(d);
  }

  RawSender raw;
  int sent = 0;
  auto send_everywhere = [&](const std::string& d) {
    ASSERT_TRUE(raw.Send(d, kGroup, 28008));
    ASSERT_TRUE(raw.Send(d, "127.0.0.1", server.endpoint_port()));
    sent += 2;
  };
  for (const auto* list : {&foreign, &versions, &malformed}) {
    for (const std::string& d : *list) send_everywhere(d);
  }
  // A question in the middle of the garbage is answered.
  ASSERT_TRUE(asker.send_data(kGroup, 28008, UdpMessage("ask", "still there?")));
  // Repeats: a fragment four times (both paths lead to one reassembly, as the sender is
  // the same), then a whole message twice.
  const std::vector<std::string> three = frames(2, Pattern(3000, 1));
  send_everywhere(three[0]);
  send_everywhere(three[0]);
  const std::string whole = frames(3, "")[0];
  ASSERT_TRUE(raw.Send(whole, kGroup, 28008));
  ASSERT_TRUE(raw.Send(whole, kGroup, 28008));
  sent += 2;
  // Messages that never complete: first fragments claiming the largest body.
  std::string first = frames(4, std::string(kUdpMaxBodyBytes, 'z'))[0];
  for (uint32_t id = 100; id < 400; ++id) {
    for (int i = 0; i < 4; ++i) first[12 + i] = static_cast<char>((id >> (8 * i)) & 0xff);
    ASSERT_TRUE(raw.Send(first, kGroup, 28008));
    ++sent;
  }

  ASSERT_TRUE(answers.WaitFor(1));
  ASSERT_TRUE(Eventually([&] {
    return server.stats().received_datagrams == static_cast<uint64_t>(sent) + 1;
  })) << server.stats().received_datagrams
      << " of " << sent + 1;
  UdpCastStats s = server.stats();
  EXPECT_EQ(s.foreign_datagrams, 2 * foreign.size());
  EXPECT_EQ(s.bad_version_datagrams, 2 * versions.size());
  EXPECT_EQ(s.malformed_datagrams, 2 * malformed.size());
  EXPECT_EQ(s.duplicate_datagrams, 4u);  // three fragment copies, one whole repeat
  EXPECT_EQ(server.dropped_datagrams(), 2 * (foreign.size() + versions.size() + malformed.size()) + 4);
  EXPECT_LE(s.pending_bytes, options.reassembly.max_pending_bytes);
  EXPECT_LE(s.pending_messages, options.reassembly.max_pending_messages);

  // Everything partial is abandoned, by the timeout or to make room: the 3-fragment
  // message and the 300 never-complete ones.
  ASSERT_TRUE(Eventually([&] { return server.stats().pending_messages == 0; }));
  s = server.stats();
  EXPECT_EQ(s.pending_bytes, 0u);
  EXPECT_EQ(s.dropped_messages, 301u);
  EXPECT_EQ(s.completed_messages, 2u);  // the question, and the whole message once
  EXPECT_EQ(probes.load(), 1);          // that whole message was a valid "probe"
  EXPECT_EQ(answers.size(), 1u);
  std::string echoed = answers.received()[0].message.body();
  EXPECT_EQ(echoed, "still there?");
}

TEST(UdpCastServerTest, CallbacksComeAndGoSafelyWhileQuestionsPourIn) {
  std::atomic<int> answers{0}, calls_after_unregister{0};
  Inbox final_answer;
  UdpCastServer server(kGroup, 28009), asker(kGroup, 28909);
  ASSERT_TRUE(server.ok() && asker.ok());
  asker.register_callback("q_recv", [&](const std::string&, int, UdpMessage&) { ++answers; });

  std::atomic<bool> done{false};
  std::thread churn([&] {
    for (int i = 0; i < 300; ++i) {
      // Each registration has its own token; no call may see it revoked.
      auto alive = std::make_shared<std::atomic<bool>>(true);
      server.register_callback("q", [&, alive](const std::string& peer, int port, UdpMessage& m) {
        if (!*alive) ++calls_after_unregister;
        server.send_data(peer, port, m.create_recv("q_recv"));
      });
      server.register_callback("x" + std::to_string(i % 7), [](const std::string&, int, UdpMessage&) {});
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      server.unregister_callback("q");
      *alive = false;
      server.unregister_callback("x" + std::to_string(i % 7));
    }
    done = true;
  });
  std::vector<std::thread> askers;
  for (int t = 0; t < 2; ++t) {
    askers.emplace_back([&] {
      for (int i = 0; i < 2000 && !done; ++i) {
        asker.send_data(kGroup, 28009, UdpMessage(i % 3 == 0 ? "x1" : "q", "payload"));
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    });
  }
  churn.join();
  for (std::thread& t : askers) t.join();
  EXPECT_EQ(calls_after_unregister.load(), 0);

  // Left registered, the key is answered again.
  asker.register_callback("q_recv", final_answer.Collect());
  ServeEcho(&server, "q");
  ASSERT_TRUE(asker.send_data(kGroup, 28009, UdpMessage("q", "last")));
  ASSERT_TRUE(final_answer.WaitFor(1));
  EXPECT_GT(answers.load(), 0);
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
