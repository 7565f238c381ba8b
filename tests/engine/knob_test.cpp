// Command-line parsing by KEL_Init: engine switches before -t, the tool's after it, up to "--".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kel.h"

namespace {

KNOB<std::string> knob_dir(KNOB_MODE_WRITEONCE, "keltool", "prd_dir", "", "product directory path");
KNOB<std::string> knob_pause(KNOB_MODE_WRITEONCE, "keltool", "pause_runtime", "0", "sleep time on start");
KNOB<BOOL> knob_flag(KNOB_MODE_WRITEONCE, "keltool", "flag", "0", "a switch without value");
KNOB<std::string> knob_list(KNOB_MODE_ACCUMULATE, "keltool", "item", "", "repeatable");

struct Parse {
  bool failed;
  std::string errors;
};

Parse parse(std::vector<std::string> args) {
  for (KNOB_BASE* k : std::initializer_list<KNOB_BASE*>{&knob_dir, &knob_pause, &knob_flag, &knob_list}) k->Reset();
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  testing::internal::CaptureStderr();
  bool failed = KEL_Init(static_cast<INT32>(args.size()), argv.data());
  return {failed, testing::internal::GetCapturedStderr()};
}

TEST(KelInit, ReadsToolSwitchesUpToTheProgram) {
  Parse p = parse({"kel", "-t", "/x/tool.so", "-prd_dir", "/opt/p", "-flag", "--", "app", "-prd_dir", "y"});
  ASSERT_FALSE(p.failed) << p.errors;
  EXPECT_EQ(knob_dir.Value(), "/opt/p");
  EXPECT_EQ(knob_pause.Value(), "0");  // default
  EXPECT_TRUE(knob_flag.Value());
  EXPECT_TRUE(knob_dir.IsSet());
  EXPECT_FALSE(knob_pause.IsSet());
}

TEST(KelInit, AccumulatingKnobJoinsValues) {
  Parse p = parse({"kel", "-t", "tool.so", "-item", "a", "-item", "b", "--", "app"});
  ASSERT_FALSE(p.failed) << p.errors;
  EXPECT_EQ(knob_list.Value(), "a,b");
  p = parse({"kel", "-log_level", "0", "-t", "tool.so", "--", "app"});
  EXPECT_FALSE(p.failed) << "engine switches come before the tool: " << p.errors;
}

TEST(KelInit, BadCommandLinesAreNamed) {
  const struct {
    std::vector<std::string> args;
    const char* error;
  } cases[] = {
      {{"kel", "-t", "tool.so", "-prd_dir", "a", "-prd_dir", "b", "--", "app"},
       "trying to overwrite write-once knob 'prd_dir'"},
      {{"kel", "-t", "tool.so", "-no_such", "1", "--", "app"}, "unknown switch '-no_such' for tool 'tool.so'"},
      // A tool switch in the engine's place is the engine's unknown switch.
      {{"kel", "-prd_dir", "x", "-t", "tool.so", "--", "app"}, "unknown engine switch '-prd_dir'"},
      {{"kel", "-t", "tool.so", "-prd_dir"}, "needs a value"},
  };
  for (const auto& c : cases) {
    Parse p = parse(c.args);
    EXPECT_TRUE(p.failed) << c.error;
    EXPECT_NE(p.errors.find(c.error), std::string::npos) << p.errors;
  }
  parse({"kel", "-t", "tool.so", "-prd_dir", "a", "-prd_dir", "b", "--", "app"});
  EXPECT_EQ(knob_dir.Value(), "a") << "a write-once knob keeps its first value";
}

}  // namespace
