#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "platform/fileio/file_path.h"
#include "platform/space/file_space_manager.h"
#include "platform/trigger/trigger_sender.h"
#include "record/bag_record_options.h"
#include "record/bag_record_writer.h"
#include "record/wall_clock.h"
#include "tests/support/bag_files.h"
#include "tests/support/report_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::ReportLog;
using testing_support::TempDir;
using testing_support::WriteFileDated;

// Settings as load_opts() leaves them for a trigger-mode command line.
void Load(BagRecordOpt* opt, const std::string& output, std::vector<const char*> args) {
  args.insert(args.begin(), "kelo_bag");
  args.insert(args.end(), {"--trigger", "-o", output.c_str()});
  EXPECT_EQ(opt->parse(static_cast<int>(args.size()), args.data()), ToolsOptions::ParseResult::kLoaded);
}

BagRecordWriter::Message At(long time) { return {time, time, "/t", "demo.T", std::to_string(time)}; }

// Catches a managed folder when switched off or not a folder, and the wrong mode at the 2048 MB edge or below 0.
TEST(BagRecordTriggerTest, TheFolderIsManagedForANormalPathUnlessSwitchedOffInAModeBySize) {
  TempDir dir;
  // Whether the output names a file (not only a folder), the options, and the manager's mode (-1: none).
  for (const auto& [file, args, mode] : std::vector<std::tuple<bool, std::vector<const char*>, int>>{
           {true, {"--nospacelimit"}, -1}, {true, {"--fs", "2048"}, 1}, {true, {"--fs", "2049"}, 0},
           {true, {"--fs", "-5"}, 1}, {false, {}, -1}}) {
    BagRecordOpt opt;
    Load(&opt, dir.file("drive"), args);
    testing::internal::CaptureStdout();
    BagRecordTrigger writer(opt, fileio::FilePath(file ? opt.output : dir.path() + "/"));
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(writer.space_manager() != nullptr, mode >= 0);
    if (mode >= 0) { EXPECT_EQ(static_cast<int>(writer.space_manager()->mode()), mode); }
  }
}

// Catches deleting others' files or the newest own bag, a silent deletion, and one event saved twice.
TEST(BagRecordTriggerTest, FolderIsBroughtWithinBudgetBeforeEachFileWithItsOwnBagsOnly) {
  TempDir dir;
  // Three old bags of this recorder, 600 KB each, against a budget of 1 MB; others' files older still.
  WriteFileDated(dir.file("drive_20200101000001_a.kelobag"), 600000, time(nullptr) - 300);
  WriteFileDated(dir.file("drive_20200101000002.kelobag"), 600000, time(nullptr) - 200);
  WriteFileDated(dir.file("drive_20200101000003-1.kelobag"), 600000, time(nullptr) - 100);
  for (const char* foreign : {"old_1.kelobag", "drive_2020.kelobag", "drive_20200101000004.kelobag.active",
                              "bag_20200101000004_0.kelobag", "notes.txt"}) {
    WriteFileDated(dir.file(foreign), 600000, time(nullptr) - 1000);
  }
  BagRecordOpt opt;
  Load(&opt, dir.file("drive"), {"--reserve", "5", "--duration", "5", "--fs", "1"});
  ReportLog saved, reports;  // the files saved come on the trigger service's thread
  {
    BagRecordTrigger writer(opt, fileio::FilePath(opt.output));
    writer.set_on_save(saved.sink());
    writer.set_on_report(reports.sink());
    long now = WallClockMs();
    for (long t = now - 4000; t < now; t += 100) writer.save_message(At(t));
    TriggerSender sender;
    sender.Send("budget", now, 20000);
    ASSERT_EQ(saved.texts().size(), 1u);
    for (long again : {now - 3000, now}) {  // inside the window just saved: the same event, that file
      auto results = sender.Send("again", again, 20000);
      ASSERT_EQ(results.size(), 1u);
      EXPECT_EQ(results[0].file, saved.texts()[0]);
    }
    EXPECT_EQ(saved.texts().size(), 1u);
  }
  auto deleted = [&](const char* name) {
    return "deleted " + dir.file(name) + " (600000 bytes) to keep " + dir.path() + " within its 1 MB budget";
  };
  EXPECT_THAT(reports.texts(), ElementsAre(deleted("drive_20200101000001_a.kelobag"), deleted("drive_20200101000002.kelobag")));
  EXPECT_THAT(dir.List(), testing::AllOf(testing::Contains("drive_20200101000003-1.kelobag"), testing::SizeIs(7)))
      << "the newest own bag, the others' 5 files and the new bag";
}

}  // namespace
}  // namespace kelo
