#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_RECORD_NODE_API_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_RECORD_NODE_API_H_

#include <functional>
#include <memory>
#include <string>

#include "platform/fileio/directory_path.h"

namespace kelo {

class TriggerKey;

// A recording node of the trigger service. Every trigger sent to the recorders' cast group
// (224.0.0.88:2801, see trigger_protocol.h) reaches every node, in this process and in
// others; each node waits until its own `duration` seconds after the trigger's time and then
// hands the trigger's notice text (TriggerNotice) to its callback, which typically saves the
// window around the trigger and says which file it wrote:
//
//   TriggerRecordNodeApi node("bag_record", "kelo_bag_record_17", fileio::DirectoryPath("rec"), 5);
//   node.SetNotifyCallback([&](const std::string& notice) {
//     node.ReportSaved(notice, writer.save_file(notice));
//   });
//
// Each node acknowledges a trigger to its sender at once (with when its notice is due) and
// answers again after the notice (with the file reported, if any). Notices come on the
// node's own thread, one at a time, in the order of their due times (ties in arrival order),
// never before their due time. Any number of nodes may live in one process.
//
// A node is open to any process that can reach the group, so it guards itself: the same
// trigger sent again (a retry, a replay) joins the notice already pending; a trigger dated
// more than 10 s ahead of the node's clock, one a sender sends beyond its rate (a burst of
// 10, then 5 a second) or while 16 of its own are pending, one without the node's key's
// signature (SetKey), and one the owner's check refuses (SetTriggerCheck) are refused, and
// the sender learns why in the acknowledgement.
class TriggerRecordNodeApi {
 public:
  // Joins the service as node `node_name` of `name` (the kind of program, e.g. "bag_record",
  // reported to senders with the node's name). `directory` is where the node saves its
  // files, also reported to senders. A notice comes `duration` seconds after its trigger's
  // time (0: as soon as the trigger arrives). Triggers that arrive before SetNotifyCallback()
  // are noticed with whatever callback is installed when they fall due.
  TriggerRecordNodeApi(const std::string& name, const std::string& node_name,
                       const fileio::DirectoryPath& directory, unsigned int duration);

  // Leaves the service: no trigger is taken and no notice begins once it has started; a
  // notice in progress is waited for. Senders still waiting for pending notices are told
  // that nothing was saved. Must not be called from this node's own notice callback.
  ~TriggerRecordNodeApi();

  TriggerRecordNodeApi(const TriggerRecordNodeApi&) = delete;
  TriggerRecordNodeApi& operator=(const TriggerRecordNodeApi&) = delete;

  // Makes `callback` the function called with each notice's text, on the node's notice
  // thread, never on the cast library's receive thread. An empty callback ignores notices.
  // What it throws is reported on stderr and taken as "nothing saved". May be called from
  // any thread, the callback included; a notice already running keeps its callback.
  void SetNotifyCallback(std::function<void(const std::string&)> callback);

  // Says that this node saved `file` for `notice` ("" for nothing, and then `why`, when
  // known); the node's final reply to the trigger's sender carries it, a file made absolute
  // against the current directory when it is relative. Takes effect only while the callback
  // for `notice` is running (normally it is called from that callback); otherwise it does
  // nothing. The last call wins. May be called from any thread.
  void ReportSaved(const std::string& notice, const std::string& file, const std::string& why = "");

  // From now on takes only triggers signed with `key` (none: any). May be called from any
  // thread.
  void SetKey(const TriggerKey& key);

  // From now on asks `check` about every new trigger (its time, ms), on the cast library's
  // receive thread: "" takes it, anything else is why it is refused. It must not block.
  // May be called from any thread.
  void SetTriggerCheck(std::function<std::string(long time_ms)> check);

 private:
  class Node;
  std::unique_ptr<Node> node_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_RECORD_NODE_API_H_
