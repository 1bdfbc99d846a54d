// Our bag files against the ROS 1 bag storage library, on the same payloads in one run:
// writing (each against a plain sequential write + fsync of the same payload bytes),
// describing a file (`kelo_bag info` against opening a ROS 1 bag, which reads its index),
// and reading every message, with the page cache warm and dropped (each against reading
// the same file sequentially in 1 MB blocks, as dd does).
//
//   bag_peers --dir DIR --kelo_bag PATH [--runs 3] [--total_mb 1024] [--small_mb 100]
//
// Messages of 1 MB make a file of --total_mb, messages of 100 B one of --small_mb. Prints
// every figure of every run, then the medians as ratios. Needs
// `apt-get install librosbag-storage-dev libstd-msgs-dev` (see bench/CMakeLists.txt).

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <rosbag/bag.h>
#include <rosbag/view.h>
#include <std_msgs/UInt8MultiArray.h>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"

extern char** environ;

namespace {

double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Writes what is still in the page cache for `path` to disk, then drops its pages, so that
// the next read comes from the disk.
void SyncAndDrop(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return;
  ::fsync(fd);
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  ::close(fd);
}

uint64_t FileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

std::string Payload(size_t size, unsigned seed) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 7 + seed) & 0xff);
  return s;
}

void PlainWrite(const std::string& path, const std::string& payload, size_t count) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::string block;
  const size_t per_block = std::max<size_t>(1, (1 << 20) / payload.size());
  for (size_t i = 0; i < per_block; ++i) block += payload;
  for (size_t done = 0; done < count; done += per_block) {
    const size_t n = std::min(per_block, count - done) * payload.size();
    if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) std::perror("write");
  }
  ::fsync(fd);
  ::close(fd);
}

void OursWrite(const std::string& path, const std::string& payload, size_t count) {
  kelo::BagWriterOptions options;
  options.compression = kelo::BagCompression::kNone;
  kelo::BagWriter writer(kelo::fileio::FilePath(path + ".active"), options);
  for (size_t i = 0; i < count; ++i) {
    writer.append_message(1700000000000 + static_cast<long>(i / 1000), 0, "/data", payload, "std_msgs/UInt8MultiArray");
  }
  writer.close();  // completes the file with an fsync
}

void RosWrite(const std::string& path, const std::string& payload, size_t count) {
  std_msgs::UInt8MultiArray message;
  message.data.assign(payload.begin(), payload.end());
  {
    rosbag::Bag bag(path, rosbag::bagmode::Write);
    for (size_t i = 0; i < count; ++i) bag.write("/data", ros::Time(1700000000 + i / 1000000, 0), message);
  }
  SyncAndDrop(path);  // the same durability as ours: on disk when done
}

uint64_t OursRead(const std::string& path) {
  uint64_t bytes = 0;
  kelo::BagReader reader(path);
  for (reader.seek(0); !reader.eof(); reader.next()) bytes += reader.read()->data.size();
  return bytes;
}

uint64_t RosRead(const std::string& path) {
  uint64_t bytes = 0;
  rosbag::Bag bag(path, rosbag::bagmode::Read);
  rosbag::View view(bag);
  for (const rosbag::MessageInstance& m : view) bytes += m.instantiate<std_msgs::UInt8MultiArray>()->data.size();
  return bytes;
}

uint64_t RosIndex(const std::string& path) {
  rosbag::Bag bag(path, rosbag::bagmode::Read);
  return rosbag::View(bag).size();
}

uint64_t DdRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  std::vector<char> block(1 << 20);
  uint64_t bytes = 0;
  for (ssize_t n; (n = ::read(fd, block.data(), block.size())) > 0;) bytes += static_cast<uint64_t>(n);
  ::close(fd);
  return bytes;
}

// Runs `kelo_bag info FILE` with its output thrown away; false when it failed.
bool Info(const std::string& kelo_bag, const std::string& path) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<std::string> args = {kelo_bag, "info", path};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_t pid = -1;
  const bool started = posix_spawn(&pid, kelo_bag.c_str(), &actions, nullptr, argv.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return started && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> flags = {{"dir", ""}, {"kelo_bag", ""}, {"runs", "3"},
                                              {"total_mb", "1024"}, {"small_mb", "100"}};
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name.rfind("--", 0) != 0 || !flags.count(name.substr(2))) {
      std::fprintf(stderr, "unknown option %s\n", argv[i]);
      return 2;
    }
    flags[name.substr(2)] = argv[i + 1];
  }
  if (flags["dir"].empty() || flags["kelo_bag"].empty()) {
    std::fprintf(stderr, "usage: %s --dir DIR --kelo_bag PATH [--runs N] [--total_mb MB] [--small_mb MB]\n", argv[0]);
    return 2;
  }
  const std::string dir = flags["dir"];
  const int runs = std::stoi(flags["runs"]);
  std::map<std::string, std::vector<double>> ratios;
  for (int run = 1; run <= runs; ++run) {
    for (size_t size : {size_t{1} << 20, size_t{100}}) {
      const size_t count = (size > 1000 ? std::stoul(flags["total_mb"]) : std::stoul(flags["small_mb"])) *
                           (1 << 20) / size;
      const std::string payload = Payload(size, static_cast<unsigned>(run));
      const std::string plain = dir + "/plain.bin", ours = dir + "/ours.kelobag", ros = dir + "/ros.bag";
      for (const std::string& f : {plain, ours, ros}) ::unlink(f.c_str());
      const std::string what = size > 1000 ? "1 MB" : "100 B";
      const double t_plain = Seconds([&] { PlainWrite(plain, payload, count); });
      const double t_ours = Seconds([&] { OursWrite(ours, payload, count); });
      const double t_ros = Seconds([&] { RosWrite(ros, payload, count); });
      std::printf("run %d %s x %zu: write plain %.3f s, ours %.3f s, ros %.3f s\n", run, what.c_str(), count, t_plain,
                  t_ours, t_ros);
      ratios["write " + what + ": ours / plain write+fsync (speed)"].push_back(t_plain / t_ours);
      ratios["write " + what + ": ours / ROS 1 (speed)"].push_back(t_ros / t_ours);

      // Describing the file, cold: what a user waits for on a bag just copied in.
      SyncAndDrop(ours);
      SyncAndDrop(ros);
      bool info_ok = true;
      const double t_info = Seconds([&] { info_ok = Info(flags["kelo_bag"], ours); });
      uint64_t ros_messages = 0;
      const double t_index = Seconds([&] { ros_messages = RosIndex(ros); });
      std::printf("run %d %s: kelo_bag info %.4f s%s, ROS 1 open + index %.4f s (%llu messages)\n", run,
                  what.c_str(), t_info, info_ok ? "" : " (FAILED)", t_index,
                  static_cast<unsigned long long>(ros_messages));
      ratios["info " + what + ", cold: ours / ROS 1 index read (time)"].push_back(t_info / t_index);

      for (const bool cold : {true, false}) {
        const std::string temp = cold ? "cold" : "hot";
        for (const std::string& f : {ours, ros}) cold ? SyncAndDrop(f) : (void)DdRead(f);
        uint64_t ours_bytes = 0, ros_bytes = 0, dd_bytes = 0;
        const double r_ours = Seconds([&] { ours_bytes = OursRead(ours); });
        const double r_ros = Seconds([&] { ros_bytes = RosRead(ros); });
        if (cold) SyncAndDrop(ours);
        const double r_dd = Seconds([&] { dd_bytes = DdRead(ours); });
        if (ours_bytes != payload.size() * count || ros_bytes != ours_bytes) {
          std::fprintf(stderr, "read back %llu (ours) and %llu (ROS 1) payload bytes of %zu\n",
                       static_cast<unsigned long long>(ours_bytes), static_cast<unsigned long long>(ros_bytes),
                       payload.size() * count);
          return 1;
        }
        std::printf("run %d %s read %s: ours %.3f s, ros %.3f s, dd %.3f s (%.0f MB file)\n", run, what.c_str(),
                    temp.c_str(), r_ours, r_ros, r_dd, static_cast<double>(dd_bytes) / (1 << 20));
        ratios["read " + what + ", " + temp + ": ours / ROS 1 (speed)"].push_back(r_ros / r_ours);
        ratios["read " + what + ", " + temp + ": ours / dd, file bytes (speed)"].push_back(
            (static_cast<double>(FileSize(ours)) / r_ours) / (static_cast<double>(dd_bytes) / r_dd));
      }
      for (const std::string& f : {plain, ours, ros}) ::unlink(f.c_str());
    }
  }
  std::printf("\nmedians of %d runs (speed: above 1 is ours faster; time: below 1 is ours faster)\n", runs);
  for (const auto& [name, values] : ratios) std::printf("  %-58s %.2f\n", name.c_str(), Median(values));
  return 0;
}
