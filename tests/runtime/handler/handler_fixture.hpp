// A test thread's workspace whose two units write real trace files, and the reader that decodes them.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "event_filtering.h"
#include "runtime_entries.h"
#include "trace_tokenizer.hpp"
#include "vorx_config.h"
#include "vorx_timesource.h"
#include "vorx_tmu.h"

using vorx::report::Field;
using vorx::report::Record;

struct ApiRecord {
  std::string name;
  uint32_t tid = 0, function_id = 0;
  uint64_t begin = 0, end = 0, time = 0;
  std::vector<uint8_t> args;  // raw argument bytes behind the version byte
  int version = -1;
  std::vector<std::pair<std::string, uint64_t>> typed;
  std::vector<std::string> texts;  // typed text values, in order
};

struct Collector : vorx::report::TraceSink {
  std::vector<ApiRecord> api;
  std::vector<std::string> problems;
  void on_record(const Record& r, const vorx::report::Location&) override {
    if (r.name() != "apiwrap_v1" && r.name() != "apiwrap_v2") return;
    ApiRecord a;
    a.name = std::string(r.name());
    for (const auto& f : r.fields) {
      if (f.name == "tid") a.tid = uint32_t(f.num);
      else if (f.name == "function_id") a.function_id = uint32_t(f.num);
      else if (f.name == "begin_time") a.begin = f.num;
      else if (f.name == "end_time") a.end = f.num;
      else if (f.name == "time") a.time = f.num;
      else if (f.name == "version") a.version = int(f.num);
      else if (f.name == "args") a.args.assign(f.bytes.begin(), f.bytes.end());
      else if (f.name.starts_with("arg") && f.kind == Field::Kind::Str)
        a.texts.emplace_back(f.bytes.begin(), f.bytes.end());
      else if (f.name.starts_with("arg")) a.typed.emplace_back(std::string(f.name), f.num);
    }
    api.push_back(std::move(a));
  }
  void on_problem(vorx::report::Stat, const std::string& m) override { problems.push_back(m); }
};

inline uint32_t word_at(const std::vector<uint8_t>& b, size_t i) {
  uint32_t v;
  std::memcpy(&v, b.data() + i * 4, 4);
  return v;
}

// A thread's workspace with its two units writing into a scratch directory.
class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vorx_handler_XXXXXX";
    dir_ = mkdtemp(tmpl);
    ASSERT_EQ(vorx_timesource_init(vorx_timesource_system), 1);
    creator_ = vorx_tmu_creator_alloc(0);
    memset(&wsp_, 0, sizeof wsp_);
    wsp_.thread = 4242;
    wsp_.master_tmu = creator_->alloc(creator_, vorx_tmu_per_thread, (dir_ + "/master.trace").c_str());
    wsp_.aux_tmu = creator_->alloc(creator_, vorx_tmu_per_thread, (dir_ + "/aux.trace").c_str());
    wsp_.filtering_data = vorx_alloc_filtering_data();
    conf_ = vorx_alloc_configuration();
    vorx_conf_publish(conf_);
    memset(&data_, 0, sizeof data_);
    data_.locals.state = 1;
    data_.locals.enter_time = 1000;
    data_.locals.leave_time = 251000;
    data_.locals.to_aux_tmu = 1;
  }
  void TearDown() override {
    vorx_unlink_callback_tables();
    vorx_free_filtering_data(wsp_.filtering_data);
    if (wsp_.master_tmu) creator_->free_unit(creator_, wsp_.master_tmu);
    if (wsp_.aux_tmu) creator_->free_unit(creator_, wsp_.aux_tmu);
    vorx_conf_publish(nullptr);
    vorx_free_configuration(conf_);
    std::system(("rm -rf " + dir_).c_str());
  }
  // Closes the units and decodes what they wrote.
  Collector read(const char* which) {
    for (vorx_tmu_t** u : {&wsp_.master_tmu, &wsp_.aux_tmu}) {
      if (*u) creator_->free_unit(creator_, *u);
      *u = nullptr;
    }
    std::string path = dir_ + "/" + which + ".trace";
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
    Collector c;
    vorx::report::Stats stats;
    vorx::report::TraceTokenizer tok(path, c, stats);
    tok.feed(vorx::report::Bytes(bytes.data(), bytes.size()));
    tok.finish();
    EXPECT_TRUE(c.problems.empty()) << c.problems.front();
    return c;
  }
  vorx_filtering_data* filtering() { return static_cast<vorx_filtering_data*>(wsp_.filtering_data); }

  std::string dir_;
  vorx_tmu_creator_t* creator_ = nullptr;
  vorx_workspace wsp_;
  vorx_configuration* conf_ = nullptr;
  vorx_probe_data_t data_;
};

