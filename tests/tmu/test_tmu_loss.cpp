// What a unit does when a resource fails it: records are dropped and counted, files stay readable, and
// the process goes on. A program of its own: it sets process-wide limits and the process trace.
#include "tmu_test_util.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr std::uint64_t kThreeMiBOfRecords = (3u << 20) / TF_CPU_SAMPLE_SIZE;

// A process-wide limit, put back when the scope ends.
class ScopedLimit {
public:
  ScopedLimit(int resource, rlim_t soft) : resource_(resource)
  {
    getrlimit(resource_, &saved_);
    struct rlimit changed = saved_;
    changed.rlim_cur = soft;
    ok_ = setrlimit(resource_, &changed) == 0;
  }
  ~ScopedLimit() { setrlimit(resource_, &saved_); }
  bool ok() const { return ok_; }

private:
  int resource_;
  struct rlimit saved_;
  bool ok_;
};

// The descriptor of this process that names path, or -1.
int descriptor_of(const std::string &path)
{
  DIR *dir = opendir("/proc/self/fd");
  int found = -1;
  while (dirent *e = dir ? readdir(dir) : nullptr) {
    char link[4096];
    std::string entry = std::string("/proc/self/fd/") + e->d_name;
    ssize_t n = readlink(entry.c_str(), link, sizeof link - 1);
    if (n > 0 && std::string(link, std::size_t(n)) == path) found = std::atoi(e->d_name);
  }
  if (dir) closedir(dir);
  return found;
}

long vm_size_kib()
{
  std::FILE *f = std::fopen("/proc/self/status", "r");
  char line[256];
  long size = 0;
  while (f && std::fgets(line, sizeof line, f)) std::sscanf(line, "VmSize: %ld", &size);
  if (f) std::fclose(f);
  return size;
}

class Loss : public ::testing::Test {
protected:
  void SetUp() override { creator_ = vorx_tmu_creator_alloc(0); }
  void TearDown() override { vorx_tmu_creator_set_compression_level(creator_, 0); }
  vorx_tmu_creator_t *creator_ = nullptr;
  ScratchDir dir_;
};

} // namespace

TEST_F(Loss, RefusedBuffersAreCountedForTheUnitAndTheProcess)
{
  std::uint64_t before = vorx_tmu_records_lost();
  vorx_tmu_t *refused = creator_->alloc(creator_, vorx_tmu_per_thread, "/dev/full");
  vorx_tmu_t *fine = creator_->alloc(creator_, vorx_tmu_per_thread, dir_.file("fine.th").c_str());
  ASSERT_NE(refused, nullptr);
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) {
    ASSERT_EQ(put_sample(refused, 1, i), 1) << "the record itself found room";
    ASSERT_EQ(put_sample(fine, 2, i), 1);
  }
  EXPECT_GE(refused->pool.buffs[0].spills, 2u);
  creator_->free_unit(creator_, refused);
  creator_->free_unit(creator_, fine);
  EXPECT_EQ(refused->records_lost, kThreeMiBOfRecords);
  EXPECT_EQ(fine->records_lost, 0u);
  EXPECT_EQ(vorx_tmu_records_lost(), before + kThreeMiBOfRecords);
  EXPECT_TRUE(vorx_tmu_loss_causes() & VORX_TMU_LOST_WRITE);
  expect_sequence(read_trace(dir_.file("fine.th")), 2, 0, kThreeMiBOfRecords);
}

// A disk that fills up in the middle of a buffer: the part written is taken back, so the file ends on a
// whole record, every record is either in the file (in order) or counted, and later spills append cleanly.
// (A full buffer is refused, the shorter last one may still fit.)
TEST_F(Loss, AFullDiskLeavesWholeRecordsAndCountsTheRest)
{
  signal(SIGXFSZ, SIG_IGN);
  for (int level : {0, 1}) {
    SCOPED_TRACE(level ? "deflated blocks" : "plain records");
    vorx_tmu_creator_set_expected_compressors(creator_, 1);
    vorx_tmu_creator_set_compression_level(creator_, level);
    std::string path = dir_.file(level ? "full_z.trace" : "full.trace");
    vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_process, path.c_str());
    {
      ScopedLimit small_files(RLIMIT_FSIZE, 64 << 10);
      ASSERT_TRUE(small_files.ok());
      for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) ASSERT_EQ(put_sample(u, 1, i), 1);
      u->spill(u);
    }
    Collected c = read_trace(path);
    EXPECT_TRUE(c.problems.empty()) << c.problems.front();
    EXPECT_EQ(c.magics, 1u);
    std::uint64_t kept = c.samples.size();
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, kThreeMiBOfRecords);
    EXPECT_EQ(kept + u->records_lost, kThreeMiBOfRecords);
    for (std::size_t i = 1; i < c.samples.size(); i++) ASSERT_LT(c.samples[i - 1].second, c.samples[i].second);

    put_sample(u, 1, kThreeMiBOfRecords); // the disk has room again
    creator_->free_unit(creator_, u);
    Collected after = read_trace(path);
    EXPECT_TRUE(after.problems.empty());
    ASSERT_EQ(after.samples.size(), kept + 1);
    EXPECT_EQ(after.samples.back().second, kThreeMiBOfRecords);
  }
}

// Memory that runs out: the first buffer of a unit cannot be had, so its records are dropped and counted;
// when memory comes back the unit works again. In a child: the address-space limit is the whole process's.
TEST_F(Loss, NoMemoryDropsRecordsAndNeverStopsTheProcess)
{
  std::string path = dir_.file("no_memory.th");
  EXPECT_EXIT(
      {
        vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_thread, path.c_str());
        std::vector<void *> hog;
        hog.reserve(1u << 20);
        ScopedLimit no_more(RLIMIT_AS, rlim_t(vm_size_kib() + 256) << 10);
        for (std::size_t block : {1u << 16, 1u << 12, 1u << 6})
          while (void *p = std::malloc(block)) hog.push_back(p);
        for (int i = 0; i < 100; i++) put_sample(u, 1, i);
        bool dropped = u->records_lost == 100 && (vorx_tmu_loss_causes() & VORX_TMU_LOST_MEMORY);
        for (void *p : hog) std::free(p);
        for (int i = 100; i < 200; i++) put_sample(u, 1, i);
        creator_->free_unit(creator_, u);
        std::exit(dropped && u->records_lost == 100 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  expect_sequence(read_trace(path), 1, 100, 100);
}

TEST_F(Loss, ARecordBeyondTheLargestBufferIsDroppedAndTheUnitGoesOn)
{
  std::string path = dir_.file("huge.th");
  vorx_tmu_t *u = creator_->alloc(creator_, vorx_tmu_per_thread, path.c_str());
  put_sample(u, 1, 0);
  std::vector<std::uint8_t> body(VORX_TMU_MAX_BUFFER_SIZE + 1, 0xAB);
  std::uint8_t head[32];
  std::uint32_t n = tf_cpuinfo_put_head(head, 1, 0, std::uint32_t(body.size()));
  EXPECT_EQ(u->put_record(u, head, n, body.data(), std::uint32_t(body.size())), 0);
  EXPECT_EQ(u->records_lost, 1u);
  EXPECT_TRUE(vorx_tmu_loss_causes() & VORX_TMU_LOST_SIZE);
  put_sample(u, 1, 1);
  creator_->free_unit(creator_, u);
  expect_sequence(read_trace(path), 1, 0, 2);
}

// The program dropped the rights that made the results directory writable: units made afterwards cannot
// create their files, and units made before cannot open theirs again. Their buffers go into the process
// trace, whose file was opened when the unit was made.
TEST_F(Loss, UnitsThatCannotOpenTheirFilesWriteIntoTheProcessTrace)
{
  std::string trace_path = dir_.file("process.trace");
  vorx_tmu_t *trace = creator_->alloc(creator_, vorx_tmu_per_process, trace_path.c_str());
  vorx_tmu_keep_as_process_trace(trace);
  vorx_tmu_t *orphan = creator_->alloc(creator_, vorx_tmu_per_thread, dir_.file("gone/thread.th").c_str());
  for (std::uint64_t i = 0; i < kThreeMiBOfRecords; i++) {
    put_sample(trace, 1, i);
    put_sample(orphan, 2, i);
  }
  creator_->free_unit(creator_, orphan);
  EXPECT_EQ(orphan->records_lost, 0u);
  creator_->free_unit(creator_, trace);
  Collected c = read_trace(trace_path);
  EXPECT_TRUE(c.problems.empty());
  EXPECT_EQ(c.magics, 1u);
  expect_sequence(c, 1, 0, kThreeMiBOfRecords);
  expect_sequence(c, 2, 0, kThreeMiBOfRecords);

  // Without a process trace such records reach no file, and are counted.
  vorx_tmu_t *late = creator_->alloc(creator_, vorx_tmu_per_thread, dir_.file("gone/late.th").c_str());
  put_sample(late, 3, 0);
  creator_->free_unit(creator_, late);
  EXPECT_EQ(late->records_lost, 1u);
}

// The process trace's descriptor is out of the program's way, and when the program closes it anyway and
// opens a file of its own under that number, the unit writes nothing there, closes nothing of the
// program's, and opens its own file again.
TEST_F(Loss, TheProcessTraceNeverWritesIntoADescriptorTheProgramReused)
{
  std::string trace_path = dir_.file("kept.trace"), other_path = dir_.file("program.txt");
  vorx_tmu_t *trace = creator_->alloc(creator_, vorx_tmu_per_process, trace_path.c_str());
  vorx_tmu_keep_as_process_trace(trace);
  int fd = descriptor_of(trace_path);
  ASSERT_GE(fd, 0) << "the process trace opens its file when it becomes one";
  struct rlimit files;
  getrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur > 512) EXPECT_GE(fd, 512);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

  put_sample(trace, 1, 0);
  trace->spill(trace);
  int other = open(other_path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  ASSERT_EQ(dup2(other, fd), fd);
  close(other);
  put_sample(trace, 1, 1);
  creator_->free_unit(creator_, trace);
  EXPECT_TRUE(read_bytes(other_path).empty());
  EXPECT_NE(fcntl(fd, F_GETFD), -1) << "the program's descriptor is still open";
  close(fd);
  expect_sequence(read_trace(trace_path), 1, 0, 2);
}
