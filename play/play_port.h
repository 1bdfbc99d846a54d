#ifndef KELO_PLAY_PLAY_PORT_H_
#define KELO_PLAY_PLAY_PORT_H_

#include <string>

namespace kelo {

// Where the player delivers the messages of one topic, besides its message callback.
// Deserialize() runs on the thread that steps the player, with the player's lock held.
class PlayPortIntf {
 public:
  PlayPortIntf() = default;
  virtual ~PlayPortIntf();

  PlayPortIntf(const PlayPortIntf&) = delete;
  PlayPortIntf& operator=(const PlayPortIntf&) = delete;

  // Takes the serialized payload of one message.
  virtual void Deserialize(const std::string& data) = 0;
};

// The target of raw playback: the payload of the last message delivered, byte for byte.
struct OriginalPlayData {
  std::string data;
};

// A port that fills a record of type Data from each message. Only raw playback into
// OriginalPlayData exists here; other record types are for the embedding tool to define.
template <typename Data>
class PlayPort;

// Copies each payload, unparsed, into an OriginalPlayData that the caller owns and keeps
// alive for as long as the port exists; destroying the port leaves the record alone.
template <>
class PlayPort<OriginalPlayData> : public PlayPortIntf {
 public:
  explicit PlayPort(OriginalPlayData* data) : data_(data) {}
  ~PlayPort() override;

  void Deserialize(const std::string& data) override;

 private:
  OriginalPlayData* const data_;
};

}  // namespace kelo

#endif  // KELO_PLAY_PLAY_PORT_H_
