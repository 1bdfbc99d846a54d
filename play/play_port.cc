#include "play/play_port.h"

namespace kelo {

PlayPortIntf::~PlayPortIntf() = default;

PlayPort<OriginalPlayData>::~PlayPort() = default;

void PlayPort<OriginalPlayData>::Deserialize(const std::string& data) { data_->data = data; }

}  // namespace kelo
