// The tool entry's file helpers and the naming of trace files.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tool_entry.h"
#include "trace_names.h"
#include "vorx_config.h"

namespace {

std::string read_file(const std::string &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class TempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vorx-entry-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { system(("rm -rf " + dir_).c_str()); }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  std::string dir_;
};

using Gdbinit = TempDir;

TEST_F(Gdbinit, OursIsRewrittenForTheNewProcessForeignIsKept) {
  std::string file = path(".gdbinit");
  EXPECT_EQ(vorx_update_gdbinit(file.c_str(), 111, "add-symbol-file a"), GdbinitResult::written);
  EXPECT_EQ(vorx_update_gdbinit(file.c_str(), 222, "add-symbol-file b"), GdbinitResult::written);
  EXPECT_EQ(read_file(file), std::string(kGdbinitHeader) + "# Actual for PID: 222\n\nadd-symbol-file b\n");

  std::ofstream(file) << "set pagination off\n";
  EXPECT_EQ(vorx_update_gdbinit(file.c_str(), 333, "add-symbol-file c"), GdbinitResult::foreign_file_kept);
  EXPECT_EQ(read_file(file), "set pagination off\n");
}

TEST(ElfSections, OwnExecutableHasTextDataAndBss) {
  ElfSections sections{};
  ASSERT_TRUE(vorx_read_elf_sections("/proc/self/exe", &sections));
  EXPECT_NE(sections.text, 0u);
  EXPECT_NE(sections.data, 0u);
  EXPECT_NE(sections.bss, 0u);
  EXPECT_LT(sections.text, sections.bss);
  EXPECT_FALSE(vorx_read_elf_sections("/etc/hostname", &sections));
  EXPECT_FALSE(vorx_read_elf_sections("/nonexistent/file", &sections));
}

class TraceNames : public TempDir {
 protected:
  void SetUp() override {
    TempDir::SetUp();
    conf_ = vorx_alloc_configuration();
    ASSERT_NE(conf_, nullptr);
    std::string data_dir = dir_ + "/";
    conf_->ops->set_data_dir(conf_, data_dir.c_str());
    g_vorx_conf = conf_;
    vorx_reset_process_trace_counter();
  }
  void TearDown() override {
    g_vorx_conf = nullptr;
    vorx_free_configuration(conf_);
    TempDir::TearDown();
  }
  std::string process_name(const char *ext) {
    sal_allocator allocator = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *name = nullptr;
    EXPECT_EQ(vorx_generate_process_trace_filename(ext, "trace", &allocator, &name), vorx_er_success);
    std::string result = name ? name : "";
    allocator.vtbl->destroy(&allocator);
    return result;
  }
  std::string thread_name(vorx_u32_t tid) {
    sal_allocator allocator = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *name = nullptr;
    EXPECT_EQ(vorx_generate_thread_trace_filename("th", tid, &allocator, &name), vorx_er_success);
    std::string result = name ? name : "";
    allocator.vtbl->destroy(&allocator);
    return result;
  }
  std::string expected(unsigned index, const char *ext) {
    char text[256];
    snprintf(text, sizeof text, "%s/%u-%u.%u.%s", dir_.c_str(), (unsigned)getppid(), (unsigned)getpid(), index, ext);
    return text;
  }
  vorx_configuration *conf_ = nullptr;
};

TEST_F(TraceNames, LogAndTraceShareTheFirstFreeIndexOfTheMasterExtension) {
  // A recycled process id left a trace at index 0: the new process takes 1,
  // and its log follows the trace's index even though no log 0 exists.
  std::ofstream(expected(0, "trace")) << "old";
  EXPECT_EQ(process_name("log"), expected(1, "log"));
  EXPECT_EQ(process_name("trace"), expected(1, "trace"));
  vorx_reset_process_trace_counter();
  std::ofstream(expected(1, "trace")) << "old";
  EXPECT_EQ(process_name("trace"), expected(2, "trace"));
}

TEST_F(TraceNames, ThreadFilesCountUpUntilFree) {
  process_name("trace");
  std::string first = thread_name(77);
  char suffix[64];
  snprintf(suffix, sizeof suffix, ".0-77.0.th");
  EXPECT_NE(first.find(suffix), std::string::npos) << first;
  std::ofstream(first) << "taken";
  std::string second = thread_name(77);
  EXPECT_NE(second.find(".0-77.1.th"), std::string::npos) << second;
}

}  // namespace
