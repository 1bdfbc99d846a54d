#include "tools/kelo_bag/lcm_bus.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <lcm/lcm.h>

namespace kelo {
namespace cli {

namespace {

// LCM's own default, as liblcm documents it: multicast that never leaves the host (ttl=0).
constexpr char kLcmDefaultUrl[] = "udpm://239.255.76.67:7667?ttl=0";

// Per subscription, the messages LCM holds for a handler that is behind before it drops
// them. Our handlers never wait for a disk, so this only has to absorb bursts; LCM's
// default of 30 loses messages of a 200 Hz topic whenever a 2 MB message is copied.
constexpr int kQueueCapacity = 1000;
// The channel on which LCM checks, as it opens a multicast bus, that its messages loop back.
constexpr char kSelfTestChannel[] = "LCM_SELF_TEST";

// LCM treats a channel as a regular expression; escaping every character that is not a
// letter or digit makes it match that one name.
std::string LiteralPattern(const std::string& channel) {
  std::string pattern;
  for (char c : channel) {
    if (!std::isalnum(static_cast<unsigned char>(c))) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// The port a UDP multicast URL listens on ("udpm://239.255.76.67:7667?ttl=0"); 0 for
// other providers.
int UdpmPort(const std::string& url) {
  if (url.rfind("udpm://", 0) != 0) return 0;
  const size_t query = url.find('?');
  const std::string address = url.substr(7, query == std::string::npos ? std::string::npos : query - 7);
  const size_t colon = address.rfind(':');
  return colon == std::string::npos ? 7667 : std::atoi(address.c_str() + colon + 1);
}

std::set<unsigned long> OwnSocketInodes() {
  std::set<unsigned long> inodes;
  std::error_code error;
  for (std::filesystem::directory_iterator fd("/proc/self/fd", error), end; fd != end; fd.increment(error)) {
    const std::string link = std::filesystem::read_symlink(fd->path(), error).string();
    unsigned long inode = 0;
    if (std::sscanf(link.c_str(), "socket:[%lu]", &inode) == 1) inodes.insert(inode);
  }
  return inodes;
}

uint64_t DropsOnPort(int port) {
  if (port <= 0) return 0;
  std::ifstream in("/proc/net/udp");
  std::stringstream table;
  table << in.rdbuf();
  return UdpDrops(table.str(), OwnSocketInodes(), port);
}

}  // namespace

uint64_t UdpDrops(const std::string& table, const std::set<unsigned long>& inodes, int port) {
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);  // the column names
  uint64_t drops = 0;
  while (std::getline(lines, line)) {
    // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout
    // inode ref pointer drops
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, refs, pointer;
    unsigned long inode = 0;
    uint64_t dropped = 0;
    if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode >>
          refs >> pointer >> dropped)) {
      continue;
    }
    const size_t colon = local.find(':');
    if (colon == std::string::npos || std::strtol(local.c_str() + colon + 1, nullptr, 16) != port) continue;
    if (inodes.count(inode) != 0) drops += dropped;
  }
  return drops;
}

std::unique_ptr<LcmBus> LcmBus::Open(const std::string& url, std::string* error) {
  lcm_t* lcm = lcm_create(url.c_str());
  if (lcm == nullptr) {
    *error = "cannot open the LCM bus at \"" + url + "\"";
    return nullptr;
  }
  return std::unique_ptr<LcmBus>(new LcmBus(lcm, url));
}

LcmBus::LcmBus(lcm_t* lcm, const std::string& url) : lcm_(lcm), url_(url) {
  drops_at_open_ = DropsOnPort(UdpmPort(url_));
}

uint64_t LcmBus::KernelDrops() const {
  const uint64_t drops = DropsOnPort(UdpmPort(url_));
  return drops > drops_at_open_ ? drops - drops_at_open_ : 0;
}

LcmBus::~LcmBus() { lcm_destroy(lcm_); }

void LcmBus::Subscribe(const std::vector<std::string>& channels, Handler handler) {
  if (channels.empty()) {
    // LCM's check of its own multicast loop is no traffic of the user's.
    handler = [inner = std::move(handler)](const Message& m) {
      if (std::strcmp(m.channel, kSelfTestChannel) != 0) inner(m);
    };
  }
  handlers_.push_back(std::unique_ptr<Handler>(new Handler(std::move(handler))));
  void* user = handlers_.back().get();
  auto subscribe = [&](const std::string& pattern) {
    lcm_subscription_t* sub = lcm_subscribe(
        lcm_, pattern.c_str(),
        [](const lcm_recv_buf_t* rbuf, const char* channel, void* user_data) {
          Dispatch(rbuf, channel, user_data);
        },
        user);
    if (sub != nullptr) lcm_subscription_set_queue_capacity(sub, kQueueCapacity);
  };
  if (channels.empty()) {
    subscribe(".*");
  } else {
    for (const std::string& channel : channels) subscribe(LiteralPattern(channel));
  }
}

void LcmBus::Dispatch(const void* rbuf_ptr, const char* channel, void* user) {
  const lcm_recv_buf_t* rbuf = static_cast<const lcm_recv_buf_t*>(rbuf_ptr);
  Message message{channel, rbuf->recv_utime, rbuf->data, rbuf->data_size};
  (*static_cast<Handler*>(user))(message);
}

int LcmBus::Handle(int timeout_ms) {
  const int handled = lcm_handle_timeout(lcm_, timeout_ms);
  return handled > 0 ? 1 : handled == 0 ? 0 : -1;
}

bool LcmBus::Publish(const std::string& channel, const std::string& data) {
  return lcm_publish(lcm_, channel.c_str(), data.data(), static_cast<unsigned int>(data.size())) == 0;
}

std::string BusUrl(const std::string& given, long receive_buffer_bytes) {
  std::string url = given;
  if (url.empty()) {
    const char* env = std::getenv("LCM_DEFAULT_URL");
    url = env != nullptr && *env != '\0' ? env : kLcmDefaultUrl;
  }
  if (url.rfind("udpm://", 0) != 0 || ReceiveBufferOf(url) > 0 || receive_buffer_bytes <= 0) return url;
  url += url.find('?') == std::string::npos ? "?" : "&";
  return url + "recv_buf_size=" + std::to_string(receive_buffer_bytes);
}

long ReceiveBufferOf(const std::string& url) {
  const size_t query = url.find('?');
  if (query == std::string::npos) return 0;
  const std::string key = "recv_buf_size=";
  size_t at = query + 1;
  while (at < url.size()) {
    size_t end = url.find('&', at);
    if (end == std::string::npos) end = url.size();
    if (url.compare(at, key.size(), key) == 0) {
      return std::strtol(url.substr(at + key.size(), end - at - key.size()).c_str(), nullptr, 10);
    }
    at = end + 1;
  }
  return 0;
}

std::string ReceiveBufferCapNotice(const std::string& url, long rmem_max) {
  const long asked = ReceiveBufferOf(url);
  if (asked <= 0 || rmem_max < 0 || asked <= rmem_max) return "";
  return "the kernel caps the bus receive buffer at " + std::to_string(rmem_max) +
         " bytes (net.core.rmem_max), below the " + std::to_string(asked) +
         " asked for: large messages may be lost; raise it with: sysctl -w net.core.rmem_max=" +
         std::to_string(asked);
}

long ReadRmemMax() {
  std::ifstream in("/proc/sys/net/core/rmem_max");
  long value = -1;
  if (!(in >> value)) return -1;
  return value;
}

}  // namespace cli
}  // namespace kelo
