// The system layer against the real kernel, and its parsers against crafted input.
#include <fcntl.h>
#include <sched.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sal.h"
#include "vorx_test_child.hpp"

namespace {

constexpr vorx_address_t kNoLimit = static_cast<vorx_address_t>(-1);

// A temporary directory removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/vorx_sal_XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir()
    {
        std::string command = "rm -rf '" + path_ + "'";
        (void)!system(command.c_str());
    }
    std::string file(const std::string &name, const std::string &content, mode_t mode = 0644) const
    {
        std::string full = path_ + "/" + name;
        std::ofstream(full, std::ios::binary) << content;
        chmod(full.c_str(), mode);
        return full;
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// A descriptor that reads the given text (a pipe, so reads may come short).
int text_fd(const std::string &text)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    EXPECT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fds[1]);
    return fds[0];
}

std::vector<std::string> read_all_lines(const std::string &text, size_t buffer_size)
{
    int fd = text_fd(text);
    std::vector<char> buffer(buffer_size);
    sal_read_line_state state;
    sal_init_read_line_state(&state, fd, buffer.data(), buffer.size());
    std::vector<std::string> lines;
    char *line = nullptr;
    while (sal_read_line(&state, &line) == 1) {
        EXPECT_EQ(line, buffer.data());
        lines.emplace_back(line);
    }
    EXPECT_EQ(sal_read_line(&state, &line), 0) << "the end stays the end";
    close(fd);
    return lines;
}

} // namespace

// ---- stack and memory ------------------------------------------------------

TEST(SalStackLimits, CurrentStackIsTheMappingHoldingSp)
{
    int local = 0;
    auto sp = reinterpret_cast<vorx_address_t>(&local);
    vorx_address_t top = 0, bottom = 0;
    ASSERT_EQ(sal_get_thread_stack_limits(sp, &top, &bottom), vorx_er_success);
    EXPECT_LE(top, sp);
    EXPECT_LT(sp, bottom);
    EXPECT_EQ(top % 4096, 0u);
    EXPECT_EQ(bottom % 4096, 0u);
}

TEST(SalStackLimits, SpInNoMappingGivesSuccessWithTheInitialLimits)
{
    const size_t page = sal_get_page_size();
    auto *area = static_cast<char *>(sal_mmap(3 * page));
    ASSERT_NE(area, nullptr);
    sal_munmap(area + page, page); // a hole between two mappings
    vorx_address_t top = 1, bottom = 1;
    EXPECT_EQ(sal_get_thread_stack_limits(reinterpret_cast<vorx_address_t>(area + page + 16), &top,
                                          &bottom),
              vorx_er_success);
    EXPECT_EQ(top, 0u);
    EXPECT_EQ(bottom, kNoLimit);
    sal_munmap(area, page);
    sal_munmap(area + 2 * page, page);
}

TEST(SalStackLimits, ThreadLibraryLimitsOnlyForTheCallersStack)
{
    int local = 0;
    vorx_address_t top = 0, bottom = 0;
    EXPECT_EQ(sal_get_thread_stack_limits_by_pthread(reinterpret_cast<vorx_address_t>(&local), &top,
                                                     &bottom),
              vorx_er_success);
    EXPECT_LE(top, reinterpret_cast<vorx_address_t>(&local));
    EXPECT_GT(bottom, reinterpret_cast<vorx_address_t>(&local));

    static int not_on_stack;
    EXPECT_EQ(sal_get_thread_stack_limits_by_pthread(reinterpret_cast<vorx_address_t>(&not_on_stack),
                                                     &top, &bottom),
              vorx_er_general_failure);
    EXPECT_EQ(top, 0u);
    EXPECT_EQ(bottom, kNoLimit);
}

TEST(SalRemap, ZeroLengthKeepsTheOldMappingUntouched)
{
    const size_t page = sal_get_page_size();
    auto *old = static_cast<char *>(sal_mmap(page));
    ASSERT_NE(old, nullptr);
    old[0] = 'x';
    EXPECT_EQ(sal_remap(old, page, 0), old);
    vorx_address_t top = 0, bottom = 0;
    sal_get_memory_region_address_range(reinterpret_cast<vorx_address_t>(old), &top, &bottom);
    EXPECT_LE(top, reinterpret_cast<vorx_address_t>(old)) << "still mapped";
    EXPECT_GT(bottom, reinterpret_cast<vorx_address_t>(old));
    EXPECT_EQ(old[0], 'x');
    sal_munmap(old, page);
}

TEST(SalRemap, GrowsIntoAZeroedMappingAndUnmapsTheOld)
{
    const size_t page = sal_get_page_size();
    auto *old = static_cast<char *>(sal_mmap(page));
    ASSERT_NE(old, nullptr);
    memset(old, 0xAB, page);
    auto *grown = static_cast<unsigned char *>(sal_remap(old, page, 3 * page));
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(grown[page - 1], 0xAB);
    EXPECT_EQ(grown[page], 0);
    EXPECT_EQ(grown[3 * page - 1], 0);
    vorx_address_t top = 1, bottom = 1;
    sal_get_memory_region_address_range(reinterpret_cast<vorx_address_t>(old), &top, &bottom);
    EXPECT_EQ(top, 0u) << "the old mapping is gone";

    auto *shrunk = static_cast<unsigned char *>(sal_remap(grown, 3 * page, page));
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(shrunk[0], 0xAB);
    sal_munmap(shrunk, page);

    auto *fresh = static_cast<unsigned char *>(sal_remap(nullptr, 0, page));
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh[0], 0);
    sal_munmap(fresh, page);
}

TEST(SalMemmove, OverlappingCopiesInBothDirections)
{
    char up[] = "abcdef";
    sal_memmove(up + 2, up, 4);
    EXPECT_STREQ(up, "ababcd");
    char down[] = "abcdef";
    sal_memmove(down, down + 2, 4);
    EXPECT_STREQ(down, "cdefef");
}

// ---- line reader -------------------------------------------------------------

TEST(SalReadLine, LinesAsTheyComeThroughShortReads)
{
    const struct {
        const char *text;
        size_t buffer;
        std::vector<std::string> lines;
    } cases[] = {
        {"first\r\nsecond\n\nlast", 64, {"first", "second", "", "last"}},
        {"0123456789abc\nxy\n", 8, {"0123456", "789abc", "xy"}}, // long lines in buffer-sized pieces
        {"", 16, {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(read_all_lines(c.text, c.buffer), c.lines) << c.text;
}

// ---- processor -------------------------------------------------------------------

TEST(SalCpuFrequency, FromTheBrandStringElseFromCpuinfo)
{
    EXPECT_EQ(sal_cpu_frequency_from_brand("Some CPU @ 800.50MHz"), 800500000ull);
    EXPECT_EQ(sal_cpu_frequency_from_brand("NoBlankAtAll"), 0ull);
    EXPECT_EQ(sal_cpu_frequency_from_brand(nullptr), 0ull);
    const struct {
        const char *brand;
        const char *cpuinfo;
        vorx_u64_t hz;
    } cases[] = {
        {"Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz", "", 2400000000ull},
        // Exactly 1 GHz would read as the nanosecond rate: bumped, from either source.
        {"Test CPU @ 1.00GHz", "", 1000000001ull},
        {"Virtual CPU", "processor\t: 0\nmodel name\t: Virtual\ncpu MHz\t\t: 1000.000\n", 1000000001ull},
        {"AMD EPYC 7B13", "processor : 0\ncpu MHz : 2494.140\nflags : fpu\n", 2494140000ull},
        {"AMD EPYC 7B13", "processor : 0\nflags : fpu\n", 0},
    };
    for (const auto &c : cases) {
        int fd = text_fd(c.cpuinfo);
        vorx_u64_t hz = sal_cpu_frequency_compute(c.brand, fd);
        close(fd);
        EXPECT_NEAR(static_cast<double>(hz), static_cast<double>(c.hz), 1000.0) << c.brand << c.cpuinfo;
        if (c.hz == 1000000001ull) {
            EXPECT_EQ(hz, c.hz);
        }
    }
}

TEST(SalCpuFrequency, MachineAnswerIsStableAndNeverTheNanosecondRate)
{
    vorx_u64_t first = 0, second = 0;
    if (!sal_cpu_frequency(&first))
        GTEST_SKIP() << "this processor names no frequency";
    ASSERT_TRUE(sal_cpu_frequency(&second));
    EXPECT_EQ(first, second);
    EXPECT_NE(first, 1000000000ull);
}

TEST(SalCpuid, RawLeavesCoverBasicAndExtendedRanges)
{
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    sal_cpuid_item *items = nullptr;
    vorx_size_t count = 0;
    ASSERT_EQ(sal_get_raw_cpuid(&items, &count, &alloc), vorx_er_success);
    ASSERT_GT(count, 2u);
    EXPECT_EQ(items[0].in_eax, 0u);
    bool saw_extended = false;
    for (vorx_size_t i = 0; i < count; ++i) {
        EXPECT_EQ(items[i].in_ebx, 0u);
        EXPECT_EQ(items[i].in_edx, 0u);
        saw_extended |= items[i].in_eax == 0x80000000u;
        if (i > 0 && items[i].in_eax == 4 && items[i - 1].in_eax == 4) {
            EXPECT_EQ(items[i].in_ecx, items[i - 1].in_ecx + 1) << "leaf 4 sub-leaves in order";
        }
    }
    EXPECT_TRUE(saw_extended);
    EXPECT_EQ(alloc.size, count * sizeof(sal_cpuid_item)) << "one block, grown item by item";
    sal_allocator_destroy(&alloc);
}

TEST(SalCpuid, BitPositionAndProcessorId)
{
    EXPECT_EQ(sal_get_bit_pos(0), -1);
    EXPECT_EQ(sal_get_bit_pos(1), 0);
    EXPECT_EQ(sal_get_bit_pos(0x80000000u), 31);
}

// ---- topology --------------------------------------------------------------------

TEST(SalTopology, PackageIdsBecomeDenseInOrder)
{
    sal_cpu_topology t[4] = {{0, 5, 0, 0}, {0, 5, 1, 0}, {0, 2, 0, 0}, {0, 9, 0, 0}};
    sal_adjust_pack_id(4, t);
    EXPECT_EQ(t[0].package_id, 1);
    EXPECT_EQ(t[1].package_id, 1);
    EXPECT_EQ(t[2].package_id, 0);
    EXPECT_EQ(t[3].package_id, 2);

    sal_cpu_topology single[2] = {{0, 7, 0, 0}, {0, 7, 1, 0}};
    sal_adjust_pack_id(2, single);
    EXPECT_EQ(single[0].package_id, 7) << "one package is left as it is";
}

TEST(SalTopology, CpuinfoGivesSignaturePlacesAndHardwareThreads)
{
    const char *text = "processor\t: 0\ncpu family\t: 6\nmodel\t\t: 85\nmodel name\t: X\n"
                       "stepping\t: 7\nphysical id\t: 0\nsiblings\t: 2\ncore id\t\t: 0\n\n"
                       "processor\t: 1\nphysical id\t: 0\nsiblings\t: 2\ncore id\t\t: 0\n\n"
                       "processor\t: 2\nphysical id\t: 4\nsiblings\t: 2\ncore id\t\t: 1\n\n";
    int fd = text_fd(text);
    vorx_u32_t signature[3] = {0, 0, 0};
    sal_cpu_topology t[3] = {};
    EXPECT_EQ(sal_parse_cpu_info(fd, signature, 3, t), 1);
    close(fd);
    EXPECT_EQ(signature[0], 6u);
    EXPECT_EQ(signature[1], 85u) << "\"model name\" must not be read as the model";
    EXPECT_EQ(signature[2], 7u);
    EXPECT_EQ(t[0].thread_id, 0);
    EXPECT_EQ(t[1].thread_id, 1) << "second thread of core 0";
    EXPECT_EQ(t[2].package_id, 1) << "package 4 renumbered";
    EXPECT_EQ(t[2].core_id, 1);
}

TEST(SalTopology, MoreProcessorsThanCountedIsAFailure)
{
    int fd = text_fd("processor : 0\ncore id : 0\nprocessor : 1\ncore id : 1\n");
    vorx_u32_t signature[3] = {};
    sal_cpu_topology t[1] = {};
    EXPECT_EQ(sal_parse_cpu_info(fd, signature, 1, t), 0);
    close(fd);
}

TEST(SalTopology, MachineCpuInfo)
{
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    vorx_u32_t signature[3], bits = 0, count = 0;
    vorx_address_t max_address = 0;
    sal_cpu_topology *topology = nullptr;
    EXPECT_EQ(sal_get_cpu_info(signature, &max_address, &bits, &count, &topology, &alloc), 1);
    EXPECT_EQ(count, sal_get_cpu_number());
    EXPECT_TRUE(bits == 32 || bits == 64);
    EXPECT_NE(topology, nullptr);
    sal_allocator_destroy(&alloc);
}

// ---- modules and binaries ----------------------------------------------------------

TEST(SalModuleName, BaseNameUpToTheSecondDot)
{
    struct Case {
        const char *path;
        const char *name; // null: no name
        vorx_size_t length;
    } cases[] = {
        {"/usr/lib/i386-linux-gnu/libfoo.so.1.2", "libfoo.so.1.2", 9},
        {"/lib/libc.so.6", "libc.so.6", 7},
        {"/usr/bin/bash", "bash", 4},
        {"/opt/app.d/tool", "tool", 4},
        {"libbar.so.3", "libbar.so.3", 777}, // slash-less: whole, length not set
        {"/opt/lib/", nullptr, 0},
        {"[vdso]", nullptr, 0},
        {nullptr, nullptr, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path ? c.path : "(null)");
        vorx_size_t length = 777;
        const char *name = sal_find_mod_name_with_ext(c.path, &length);
        if (c.name == nullptr) {
            EXPECT_EQ(name, nullptr);
            continue;
        }
        ASSERT_NE(name, nullptr);
        EXPECT_STREQ(name, c.name);
        EXPECT_EQ(length, c.length);
    }
    EXPECT_EQ(sal_file_name_compare("libc.so", "libc.so.6"), 0) << "a prefix is equal";
    EXPECT_NE(sal_file_name_compare("libc.so.6", "libc.so"), 0);
}

namespace {

std::string elf_header(unsigned char elf_class, unsigned short machine)
{
    std::string header(elf_class == 1 ? 52 : 64, '\0');
    header[0] = 0x7f;
    header[1] = 'E';
    header[2] = 'L';
    header[3] = 'F';
    header[4] = static_cast<char>(elf_class);
    header[18] = static_cast<char>(machine & 0xff);
    header[19] = static_cast<char>(machine >> 8);
    return header;
}

} // namespace

TEST(SalBinaryArch, ElfClassesAndMachines)
{
    TempDir dir;
    EXPECT_EQ(sal_get_binary_arch(dir.file("x64", elf_header(2, 62)).c_str()), vorx_arch_kex64);
    EXPECT_EQ(sal_get_binary_arch(dir.file("epic", elf_header(2, 50)).c_str()), vorx_arch_epic64);
    EXPECT_EQ(sal_get_binary_arch(dir.file("x86", elf_header(1, 3)).c_str()), vorx_arch_ia32);
    EXPECT_EQ(sal_get_binary_arch(dir.file("short", elf_header(2, 62).substr(0, 30)).c_str()),
              vorx_arch_ia32)
        << "a truncated header is no evidence of 64 bits";
    EXPECT_EQ(sal_get_binary_arch((dir.path() + "/missing").c_str()), vorx_arch_ia32);
}

TEST(SalBinaryArch, ScriptsFollowTheirInterpreter)
{
    TempDir dir;
    std::string interpreter = dir.file("python64", elf_header(2, 62), 0755);
    std::string script = dir.file("run.py", "#!  " + interpreter + " -u\nprint(1)\n", 0755);
    EXPECT_EQ(sal_get_binary_arch(script.c_str()), vorx_arch_kex64);

    std::string wrapper = dir.file("wrapper", "#!" + script + "\n", 0755);
    EXPECT_EQ(sal_get_binary_arch(wrapper.c_str()), vorx_arch_kex64) << "two levels of scripts";

    EXPECT_EQ(sal_get_binary_arch(dir.file("plain.txt", "just text\n").c_str()), vorx_arch_ia32);
    EXPECT_EQ(sal_get_binary_arch(dir.file("gone", "#!/nonexistent/interpreter\n").c_str()),
              vorx_arch_ia32);
    std::string self = dir.path() + "/self";
    dir.file("self", "#!" + self + "\n");
    EXPECT_EQ(sal_get_binary_arch(self.c_str()), vorx_arch_ia32) << "a loop of scripts ends";
}

// ---- system --------------------------------------------------------------------------

namespace {

const char *g_fake_release = "";
const char *g_fake_machine = "";

vorx_bool_t fake_release(char *buffer, vorx_size_t size)
{
    if (g_fake_release == nullptr)
        return VORX_FALSE;
    snprintf(buffer, size, "%s", g_fake_release);
    return VORX_TRUE;
}

vorx_bool_t fake_machine(char *buffer, vorx_size_t size)
{
    if (g_fake_machine == nullptr)
        return VORX_FALSE;
    snprintf(buffer, size, "%s", g_fake_machine);
    return VORX_TRUE;
}

class SalEngineHooks : public ::testing::Test {
protected:
    void SetUp() override
    {
        sal_engine_hooks hooks = {fake_release, fake_machine};
        sal_set_engine_hooks(&hooks);
    }
    void TearDown() override { sal_set_engine_hooks(nullptr); }
};

} // namespace

TEST_F(SalEngineHooks, KernelVersionDecidesPerThreadTimers)
{
    struct Case {
        const char *release;
        bool available;
    } cases[] = {{"2.6.11-5", false}, {"2.6.12", true}, {"2.4.99", false},
                 {"2.7.0", true},     {"3.0.0", true},  {"6.1.0-18-amd64", true}};
    for (const Case &c : cases) {
        g_fake_release = c.release;
        vorx_bool_t available = !c.available;
        EXPECT_EQ(sal_per_thread_posix_timer_available(&available), vorx_er_success);
        EXPECT_EQ(available != 0, c.available) << c.release;
    }
    g_fake_release = "6.1.0-18-amd64";
    sal_os_version v;
    ASSERT_EQ(sal_get_os_version(&v), vorx_er_success);
    EXPECT_EQ(v.major, 6);
    EXPECT_EQ(v.minor, 1);
    EXPECT_EQ(v.patch, 0);
    EXPECT_EQ(v.build, 18);
}

TEST_F(SalEngineHooks, HostArchitectureCodes)
{
    g_fake_machine = "x86_64";
    EXPECT_EQ(sal_get_os_arch(), vorx_arch_kex64);
    g_fake_machine = "i686";
    EXPECT_EQ(sal_get_os_arch(), vorx_arch_ia32);
    g_fake_machine = "aarch64";
    EXPECT_EQ(sal_get_os_arch(), vorx_arch_unknown);
    g_fake_machine = nullptr;
    EXPECT_EQ(sal_get_os_arch(), vorx_arch_unknown);
}

TEST_F(SalEngineHooks, OsNameIsReleaseThenDistribution)
{
    g_fake_release = "9.9.9-test";
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *name = sal_get_os_name(&alloc);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name).rfind("9.9.9-test ", 0), 0u) << name;
    EXPECT_GT(strlen(name), strlen("9.9.9-test "));
    EXPECT_NE(std::string(name).back(), '\n');
    sal_allocator_destroy(&alloc);
}

TEST(SalSystem, HypervisorAndHostNamesComeFromTheAllocator)
{
    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *hypervisor = sal_get_hypervisor_name(&alloc);
    ASSERT_NE(hypervisor, nullptr);
    EXPECT_EQ(hypervisor, alloc.block);
    EXPECT_LT(strlen(hypervisor), 13u);
    EXPECT_GT(strlen(hypervisor), 0u);
    sal_allocator_free(&alloc);

    char *host = sal_get_hostname(&alloc);
    ASSERT_NE(host, nullptr);
    char expected[256];
    gethostname(expected, sizeof(expected));
    EXPECT_STREQ(host, expected);
    sal_allocator_destroy(&alloc);
}

TEST(SalSystem, ThreadAndExecutableNames)
{
    char name[SAL_THREAD_NAME_SIZE];
    vorx_size_t length = sal_thread_name(sal_process_id(), name);
    std::ifstream comm("/proc/self/comm");
    std::string expected;
    std::getline(comm, expected);
    EXPECT_EQ(std::string(name, length), expected);
    EXPECT_EQ(sal_thread_name(0x7ffffff0u, name), 0u);
    EXPECT_STREQ(name, "");

    sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    char *exe = nullptr;
    length = sal_executable_name(&exe, &alloc);
    ASSERT_NE(exe, nullptr);
    EXPECT_STREQ(exe, "sal_system_test");
    EXPECT_EQ(length, strlen("sal_system_test"));
    sal_allocator_destroy(&alloc);
}

TEST(SalSystem, IdentityComesFromTheKernelEvenAfterAFork)
{
    EXPECT_EQ(sal_parent_process_id(), static_cast<vorx_u32_t>(getppid()));
    EXPECT_EQ(sal_get_tsd(), reinterpret_cast<void *>(pthread_self()))
        << "the thread block's self pointer";
    ChildResult child = run_in_child([] {
        _exit(sal_process_id() == static_cast<vorx_u32_t>(syscall(SYS_getpid)) &&
                      sal_thread_id() == sal_process_id()
                  ? 0
                  : 1);
    });
    EXPECT_TRUE(child.exited_with(0));
}

TEST(SalSystem, ClocksMoveForward)
{
    vorx_u64_t t0 = sal_system_time();
    vorx_u64_t c0 = sal_timestamp();
    usleep(2000);
    EXPECT_GT(sal_system_time(), t0 + 1000000u);
    EXPECT_GT(sal_timestamp(), c0);
    EXPECT_EQ(sal_system_time_freq(), 1000000000ull);
    char mark[64];
    sal_time_mark(mark, sizeof(mark));
    int y, mo, d, h, mi, s;
    EXPECT_EQ(sscanf(mark, "%d.%d.%d %d:%d:%d", &y, &mo, &d, &h, &mi, &s), 6) << mark;
}

TEST(SalSystem, CachedQueriesAgreeWithSysconf)
{
    EXPECT_EQ(sal_init(), vorx_er_success);
    EXPECT_EQ(sal_get_page_size(), static_cast<vorx_size_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(sal_get_cpu_number(), static_cast<vorx_u32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(SalSystem, EnvironmentCopiesAndUnsets)
{
    EXPECT_FALSE(sal_setenv(nullptr, "x"));
    ASSERT_TRUE(sal_setenv("VORX_SAL_TEST_VAR", "value"));
    char *copy = sal_getenv("VORX_SAL_TEST_VAR");
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "value");
    EXPECT_NE(copy, getenv("VORX_SAL_TEST_VAR")) << "a fresh copy";
    free(copy);
    ASSERT_TRUE(sal_setenv("VORX_SAL_TEST_VAR", nullptr));
    EXPECT_EQ(sal_getenv("VORX_SAL_TEST_VAR"), nullptr);
}

TEST(SalSystem, FilesCreateAppendSeekAndRemove)
{
    TempDir dir;
    std::string path = dir.path() + "/f";
    int fd = sal_create_ex(path.c_str(), 0600);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(sal_write(fd, "hello", 5), 5);
    EXPECT_EQ(sal_seek(fd, 1, 0, 0), 1);
    EXPECT_EQ(sal_seek(fd, 0, 0, 99), 0) << "an unknown whence is 0";
    sal_close(fd);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    fd = sal_open_append(path.c_str());
    EXPECT_EQ(sal_write(fd, "!", 1), 1);
    sal_close(fd);
    fd = sal_open_read(path.c_str());
    char text[8] = {};
    EXPECT_EQ(sal_read(fd, text, sizeof(text)), 6);
    EXPECT_STREQ(text, "hello!");
    sal_close(fd);

    EXPECT_TRUE(sal_file_exists(path.c_str()));
    EXPECT_EQ(sal_delete(path.c_str()), 0);
    EXPECT_FALSE(sal_file_exists(path.c_str()));
    std::string sub = dir.path() + "/sub";
    EXPECT_TRUE(sal_directory_create(sub.c_str()));
    EXPECT_FALSE(sal_directory_create(sub.c_str()));
    EXPECT_TRUE(sal_directory_remove(sub.c_str()));
}

#if defined(__i386__)
TEST(SalMachine, ContextHoldsTheCallersRegisters)
{
    ucontext_t context;
    memset(&context, 0xEE, sizeof(context));
    vorx_u32_t eax_before = context.uc_mcontext.gregs[REG_EAX];
    sal_get_context(&context);
    void *sp = sal_get_sp();
    EXPECT_EQ(static_cast<vorx_address_t>(context.uc_mcontext.gregs[REG_EBP]),
              reinterpret_cast<vorx_address_t>(__builtin_frame_address(0)));
    EXPECT_EQ(static_cast<vorx_u32_t>(context.uc_mcontext.gregs[REG_EAX]), eax_before)
        << "EAX is left alone";
    auto esp = static_cast<vorx_address_t>(context.uc_mcontext.gregs[REG_ESP]);
    EXPECT_LE(esp, reinterpret_cast<vorx_address_t>(__builtin_frame_address(0)));
    EXPECT_NEAR(static_cast<double>(esp), static_cast<double>(reinterpret_cast<vorx_address_t>(sp)),
                64.0);
    EXPECT_NE(context.uc_mcontext.gregs[REG_EIP], 0);
}
#endif

TEST(SalSignalfd, RawCallDeliversABlockedSignal)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &mask, &old);
    int fd = sal_signalfd(-1, &mask, 0);
    ASSERT_GE(fd, 0);
    pthread_kill(pthread_self(), SIGUSR2);
    unsigned char info[128];
    EXPECT_EQ(read(fd, info, sizeof(info)), 128);
    close(fd);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// ---- the layer's assertion ----------------------------------------------------------

TEST(SalAssert, FailurePrintsOneLineAndAborts)
{
    ChildResult child = run_in_child([] {
        sal_assert_fail("sal/src/x.c", 42, "do_it", "fd != -1", "remark %d", 7);
    });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_EQ(child.err, "sal/src/x.c:42 do_it: Assertion 'fd != -1' failed.\nremark 7\n");

    child = run_in_child([] {
        int result = -1;
        SAL_ASSERT(result == 0);
    });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_NE(child.err.find("Assertion 'result == 0' failed.\n\n"), std::string::npos)
        << child.err;
}

SAL_DECLARE_ASSERT_ROUTINE(testlib)
SAL_DEFINE_ASSERT_ROUTINE(testlib)

TEST(SalAssert, LibrariesGetTheirOwnRoutineAndTheTextStaysBounded)
{
    ChildResult child = run_in_child([] {
        std::string long_remark(1000, 'r');
        SAL_ASSERT_MSG_WITH(testlib_assert_fail, 1 == 2, "%s", long_remark.c_str());
    });
    EXPECT_TRUE(child.killed_by(SIGABRT));
    EXPECT_LE(child.err.size(), static_cast<size_t>(SAL_ASSERT_TEXT_SIZE - 1));
    EXPECT_NE(child.err.find("Assertion '1 == 2' failed."), std::string::npos);
}

// ---- moving between processors -----------------------------------------------------

namespace {

struct Visits {
    std::vector<vorx_u32_t> ids;
    std::vector<vorx_u32_t> steps;
};

void record_visit(vorx_u32_t processor_id, vorx_u32_t step, void *data)
{
    auto *visits = static_cast<Visits *>(data);
    visits->ids.push_back(processor_id);
    visits->steps.push_back(step);
}

} // namespace

TEST(SalTraverseCpus, VisitsEachProcessorOnceAndRestoresTheAffinity)
{
    if (sal_get_cpu_number() >= 32)
        GTEST_SKIP() << "the walk covers machines of fewer than 32 processors";
    cpu_set_t before;
    ASSERT_EQ(sched_getaffinity(0, sizeof(before), &before), 0);
    if (CPU_COUNT(&before) != static_cast<int>(sal_get_cpu_number()))
        GTEST_SKIP() << "this process may not run on every processor";

    Visits visits;
    vorx_u32_t calls = sal_traverse_cpus(record_visit, &visits);
    EXPECT_EQ(calls, sal_get_cpu_number());
    ASSERT_EQ(visits.ids.size(), calls);
    for (vorx_u32_t i = 0; i < calls; ++i)
        EXPECT_EQ(visits.steps[i], i);
    for (size_t i = 1; i < visits.ids.size(); ++i)
        EXPECT_NE(visits.ids[i], visits.ids[i - 1]) << "each step waited for the migration";

    cpu_set_t after;
    ASSERT_EQ(sched_getaffinity(0, sizeof(after), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}
