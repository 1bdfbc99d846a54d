#include "platform/udp/udp_cast_base.h"

#include <algorithm>
#include <utility>

namespace kelo {

UdpCastBase::UdpCastBase() = default;

UdpCastBase::~UdpCastBase() = default;

void UdpCastBase::register_callback(const std::string& key, Callback func) {
  if (!func) {
    unregister_callback(key);
    return;
  }
  auto shared = std::make_shared<const Callback>(std::move(func));
  std::lock_guard<std::mutex> hold(mu_);
  callbacks_[key] = std::move(shared);
}

void UdpCastBase::unregister_callback(const std::string& key) {
  std::shared_ptr<const Callback> removed;  // destroyed after the lock is released
  std::unique_lock<std::mutex> hold(mu_);
  auto it = callbacks_.find(key);
  if (it != callbacks_.end()) {
    removed = std::move(it->second);
    callbacks_.erase(it);
  }
  const std::thread::id self = std::this_thread::get_id();
  // A call on this very thread is the caller itself: waiting for it would never end.
  finished_.wait(hold, [&] {
    return std::none_of(running_.begin(), running_.end(),
                        [&](const Running& r) { return r.key == key && r.thread != self; });
  });
  hold.unlock();
}

bool UdpCastBase::has_callback(const std::string& key) const {
  std::lock_guard<std::mutex> hold(mu_);
  return callbacks_.count(key) != 0;
}

bool UdpCastBase::dispatch(const std::string& peer, int port, UdpMessage& message) {
  std::shared_ptr<const Callback> callback;
  const Running me{message.key(), std::this_thread::get_id()};
  {
    std::lock_guard<std::mutex> hold(mu_);
    auto it = callbacks_.find(me.key);
    if (it == callbacks_.end()) return false;
    callback = it->second;
    // Marked running under the same lock as the lookup, so an unregister either comes
    // first (no call) or sees this call and waits for it.
    running_.push_back(me);
  }
  struct Done {
    UdpCastBase* base;
    const Running& me;
    std::shared_ptr<const Callback>& callback;
    ~Done() {
      // The callable (and what it captured) goes before the call counts as finished: once
      // unregister_callback() returns, nothing of the callback is touched any more.
      callback.reset();
      std::lock_guard<std::mutex> hold(base->mu_);
      auto it = std::find_if(base->running_.begin(), base->running_.end(),
                             [&](const Running& r) { return r.key == me.key && r.thread == me.thread; });
      if (it != base->running_.end()) base->running_.erase(it);
      base->finished_.notify_all();
    }
  } done{this, me, callback};
  (*callback)(peer, port, message);
  return true;
}

}  // namespace kelo
