#ifndef KELO_TOOLS_KELO_BAG_LCM_BUS_H_
#define KELO_TOOLS_KELO_BAG_LCM_BUS_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

typedef struct _lcm_t lcm_t;

namespace kelo {
namespace cli {

// The live bus of the tools: one LCM instance, to take messages from and to put them on.
//
//   std::string error;
//   std::unique_ptr<LcmBus> bus = LcmBus::Open(BusUrl(""), &error);
//   bus->Subscribe({}, [&](const LcmBus::Message& m) { record.AppendMessage(...); });
//   while (!stop) bus->Handle(100);   // handlers run here, on this thread
//
// Handlers run only inside Handle(), on the calling thread, one message at a time.
// Publish() may be called from handlers, and on a UDP multicast bus from any thread; on the
// in-process bus (memq://) only from the thread that calls Handle(): that provider stops
// waking Handle() when other threads publish while it still holds messages.
class LcmBus {
 public:
  // One received message; the pointers are valid during the handler call only.
  struct Message {
    const char* channel;
    int64_t recv_utime;  // when LCM received it, microseconds since the epoch
    const void* data;
    uint32_t size;
  };
  using Handler = std::function<void(const Message& message)>;

  // Connects to `url` (an LCM provider URL such as "udpm://239.255.76.67:7667?ttl=0" or
  // "memq://"). Returns null, with `error` set to one line, when LCM refuses it.
  static std::unique_ptr<LcmBus> Open(const std::string& url, std::string* error);
  ~LcmBus();

  LcmBus(const LcmBus&) = delete;
  LcmBus& operator=(const LcmBus&) = delete;

  // Hands every message of `channels` (of every channel but LCM's self-test when empty) to
  // `handler`. Channel names are taken literally. Call before the first Handle().
  void Subscribe(const std::vector<std::string>& channels, Handler handler);

  // Dispatches the first message that arrives within `timeout_ms` (0: one already there).
  // Returns 1 when one was dispatched, 0 when none came in time, -1 when the bus failed.
  int Handle(int timeout_ms);

  // Puts `data` on the bus under `channel`. Returns false when LCM refused it.
  bool Publish(const std::string& channel, const std::string& data);

  const std::string& url() const { return url_; }

  // Datagrams of this bus that the kernel dropped since Open() because the receive buffer
  // was full: they never reached LCM, so no handler saw them. 0 for providers other than
  // UDP multicast, and where /proc does not tell.
  uint64_t KernelDrops() const;

 private:
  LcmBus(lcm_t* lcm, const std::string& url);
  static void Dispatch(const void* rbuf, const char* channel, void* self);

  lcm_t* lcm_;
  const std::string url_;
  uint64_t drops_at_open_ = 0;
  std::vector<std::unique_ptr<Handler>> handlers_;
};

// What /proc/net/udp (its text in `table`) counts as dropped for the sockets with the
// given inodes that are bound to `port`.
uint64_t UdpDrops(const std::string& table, const std::set<unsigned long>& inodes, int port);

// The receive buffer asked of the kernel when the URL does not name one: enough for a
// stream of 1 MB messages at about 200 MB/s.
constexpr long kDefaultReceiveBufferBytes = 4L << 20;

// LCM's default URL when `given` is empty (LCM_DEFAULT_URL from the environment, else
// LCM's own default), with `recv_buf_size` added to a UDP multicast URL that lacks it.
// Other providers are returned as they are.
std::string BusUrl(const std::string& given, long receive_buffer_bytes = kDefaultReceiveBufferBytes);

// The receive buffer that `url` asks for; 0 when none.
long ReceiveBufferOf(const std::string& url);

// A line telling that the kernel limit `rmem_max` (net.core.rmem_max) is below the receive
// buffer that `url` asks for, and how to raise it; "" when it is not, or when `url` asks
// for none.
std::string ReceiveBufferCapNotice(const std::string& url, long rmem_max);

// The kernel's net.core.rmem_max; -1 when it cannot be read.
long ReadRmemMax();

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_LCM_BUS_H_
