// Feeds arbitrary bytes to BagReader as a bag file: whatever they hold, opening, walking,
// seeking and reading must neither crash, hang, nor allocate without bound. The input's
// size picks the way it is opened (even: every message, then seeks; odd: the summary
// alone), so that each run does one of the two and the input stays a plain file.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/bag/bag_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An anonymous in-memory file: no disk traffic, nothing left behind.
  int fd = ::memfd_create("bag", MFD_CLOEXEC);
  if (fd < 0) return 0;
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (size % 2 == 0) {
    kelo::BagReader reader(path);
    (void)reader.get_error();
    (void)reader.topics();
    const long start = reader.start_time();
    const long end = reader.end_time();
    size_t bytes = 0;
    for (reader.seek(0); !reader.eof(); reader.next()) {
      auto m = reader.read();
      if (!m) __builtin_trap();  // read() may only come up empty at the end
      bytes += m->data.size() + m->topic.size();
    }
    reader.seek_time(start + (end - start) / 2);
    if (!reader.eof() && !reader.read()) __builtin_trap();
    reader.seek(reader.count() / 2);
    if (!reader.eof() && !reader.read()) __builtin_trap();
    (void)bytes;
  } else {
    kelo::BagReader summary(path, true);
    (void)summary.topics();
    (void)summary.file_info();
    if (!summary.eof() && !summary.read()) __builtin_trap();
  }
  ::close(fd);
  return 0;
}
