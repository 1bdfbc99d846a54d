#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_SENDER_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_SENDER_H_

#include <memory>
#include <string>
#include <vector>

#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_protocol.h"

namespace kelo {

class UdpCastClient;

// Sends one trigger to every recording node (TriggerRecordNodeApi) on the recorders' group
// and reports what each node did with it:
//
//   TriggerSender sender;
//   for (const TriggerSender::NodeResult& r : sender.Send("brake_event", 0, 120000)) {
//     std::printf("%s@%s: %s\n", r.node.c_str(), r.peer.c_str(), r.saved ? r.file.c_str() : "nothing");
//   }
//
// It does not join the group and starts no thread. One thread at a time per sender.
class TriggerSender {
 public:
  struct Options {
    std::string group = trigger_protocol::kGroup;
    int port = trigger_protocol::kPort;
    // Nodes acknowledge at once; this is how long Send() waits for acknowledgements before it
    // concludes that no other node is listening.
    int ack_window_ms = 1000;
    // How long after a node's due time its final reply may take (saving a file takes time).
    int reply_margin_ms = 10000;
    // Signs the trigger, for nodes that take only signed ones (TriggerRecordNodeApi::SetKey).
    TriggerKey key;
  };

  struct NodeResult {
    std::string name;       // the kind of program the node belongs to, e.g. "bag_record"
    std::string node;       // the node's name
    std::string peer;       // the address of the node's host
    int port = 0;           // the port it answered from (shared by the nodes of one process)
    std::string directory;  // where the node saves its files ("" when its acknowledgement was lost)
    long due_ms = 0;        // when its notice was due, ms since the epoch (0 when not acknowledged)
    bool answered = false;  // its final reply came in time
    bool saved = false;     // its final reply named a file
    std::string file;       // the file it saved, "" for none
    std::string why;        // why it saved nothing, when it said
    std::string refused;    // why it refused the trigger ("" when it took it); then no final reply comes
  };

  TriggerSender();
  explicit TriggerSender(const Options& options);
  ~TriggerSender();

  TriggerSender(const TriggerSender&) = delete;
  TriggerSender& operator=(const TriggerSender&) = delete;

  // Sends a trigger labelled `label` for `time_ms` (ms since the epoch; 0 for now, by this
  // host's wall clock) and returns one result per node heard from, in the order first heard.
  // After the acknowledgements it waits for every acknowledged node's final reply, until
  // the latest due time plus the reply margin, but never longer than `timeout_ms` in all;
  // it returns as soon as all are in once the acknowledgement window has passed. Nodes
  // whose final reply did not come in time have `answered` false. Returns no result, with
  // error() saying why, when the label is not a valid trigger label (TriggerNotice), the time
  // is out of range, or the trigger could not be sent.
  std::vector<NodeResult> Send(const std::string& label, long time_ms, int timeout_ms);

  // Why the last Send() sent nothing; "" when it sent its trigger.
  const std::string& error() const { return error_; }

  // The trigger time the last Send() used (the clock's reading when it was given 0).
  long time_ms() const { return time_ms_; }

 private:
  const Options options_;
  std::unique_ptr<UdpCastClient> client_;
  std::string error_;
  long time_ms_ = 0;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_SENDER_H_
