#include "record/bag_record_options.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/fileio/file_extension.h"

namespace kelo {

namespace {

constexpr char kActiveBagSuffix[] = ".kelobag.active";
constexpr long kDefaultReserveSeconds = 60;
constexpr long kDefaultDurationSeconds = 65;
constexpr long kDefaultCacheBytes = 2147483648L;  // 2048 MB

// MB to bytes as a 64-bit left shift by 20, which also scales negative values (a signed
// shift of a negative value would be undefined; the unsigned one gives the same bits).
long MegabytesToBytes(long megabytes) {
  return static_cast<long>(static_cast<unsigned long>(megabytes) << 20);
}

}  // namespace

BagRecordOpt::BagRecordOpt() : ToolsOptions("record", "record", "topic_name(s)", OptionInfo::kList) {}

BagRecordOpt::~BagRecordOpt() = default;

void BagRecordOpt::register_opts() {
  register_opt("node_name", "node name", "node_name", OptionInfo::kString);
  register_opt("output", "output file name", "bag_name", OptionInfo::kString);
  register_opt("split_time", "actual mode split time", "split_time", OptionInfo::kInt);
  register_opt("all", "record all topics", "", OptionInfo::kFlag);
  register_opt("trigger", "trigger mode", "", OptionInfo::kFlag);
  register_opt("reserve", "trigger mode reserve time", "reserve_time", OptionInfo::kInt);
  register_opt("duration", "trigger mode duration time", "duration_time", OptionInfo::kInt);
  register_opt("cache", "trigger mode cache size, unit MB", "cache_size", OptionInfo::kInt);
  register_opt("folder_size", "trigger mode folder size, unit MB", "folder_size", OptionInfo::kInt);
  register_opt("debug", "print debug message", "type", OptionInfo::kList);
  register_opt("discovery", "use discovery", "", OptionInfo::kFlag);
  register_opt("nospacelimit", "no space limit", "", OptionInfo::kFlag);

  set_alias("node_name", "n");
  set_alias("output", "o");
  set_alias("split_time", "s");
  set_alias("all", "a");
  set_alias("folder_size", "fs");
  set_alias("discovery", "D");

  set_inner("debug");
  set_inner("discovery");
}

void BagRecordOpt::load_opts() {
  node_name = get_string("node_name", "");
  output = get_string("output", "");
  trigger = get_bool("trigger");
  split_time = get_int("split_time", 0);
  reserve_time = get_int("reserve", 0);
  duration_time = get_int("duration", 0);
  cache_size = get_int("cache", 0);
  folder_size = get_int("folder_size", 0);
  all = get_bool("all");
  discovery = get_bool("discovery");
  nocatchlimit = get_bool("nocatchlimit");  // never registered: always what an unknown key gives
  nospacelimit = get_bool("nospacelimit");
  std::set<std::string> debug_types = get_list("debug");
  topics = get_list("record");

  // The names are completed from the raw values, before any default below applies.
  update_node_name();
  update_file_name();

  debug = debug_types.count("2") != 0;

  if (reserve_time == 0) reserve_time = kDefaultReserveSeconds;
  if (duration_time == 0) duration_time = kDefaultDurationSeconds;
  cache_size = cache_size == 0 ? kDefaultCacheBytes : MegabytesToBytes(cache_size);
  // Unlike the cache, an absent folder size stays 0 ("no limit") and a negative one is kept.
  if (folder_size > 0) folder_size = MegabytesToBytes(folder_size);
}

void BagRecordOpt::update_node_name() {
  if (!node_name.empty()) return;
  // Reseeded on every call on purpose: recorders started in the same second agree.
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  int number = std::rand() % 10000 + 1;
  char text[16];
  std::snprintf(text, sizeof(text), "%d", number);
  node_name = std::string("kelo_") + "bag_record" + "_" + text;
}

void BagRecordOpt::update_file_name() {
  if (output.empty()) {
    output = "bag";
  } else if (output.back() == '/') {
    output += "bag";
  }
  if (common::util::CheckFileExtension(output, kActiveBagSuffix)) return;
  if (!trigger) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    tzset();
    time_t seconds = now.tv_sec;
    struct tm local;
    localtime_r(&seconds, &local);
    char stamp[40];
    std::strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", &local);
    output += std::string("_") + stamp;
  }
  output += kActiveBagSuffix;
}

}  // namespace kelo
