// The generated wrappers run against a stand-in collector (fake_glue.h): what each kind of the template
// does with errno, levels, enter/release, the incomplete-wait stack, retries, timeouts, callbacks.
#include <errno.h>
#include <poll.h>
#include <gtest/gtest.h>

#include <cstring>

#include "wrapper_template.h"

extern "C" {
long vorx_read_mod0_ver0(int fd, void* buf, unsigned n);
long vorx_read_mod1_ver2(int fd, void* buf, unsigned n);
int vorx_open_mod1_ver0(const char* file, int oflag, unsigned mode);
int vorx_poll_mod1_ver0(void* fds, unsigned long nfds, int timeout);
unsigned vorx_sleep_mod1_ver0(unsigned seconds);
int vorx_pthread_mutex_lock_mod2_ver0(void* mutex);
int vorx_pthread_mutex_unlock_mod2_ver0(void* mutex);
void* vorx_malloc_mod1_ver0(unsigned size);
void vorx_free_mod1_ver0(void* ptr);
long vorx_syscall_mod1_ver0(long number, long a1, long a2, long a3, long a4, long a5, long a6, long a7);
void vorx_exit_mod1_ver0(int status);
char* vorx_getenv_mod1_ver0(const char* name);
int vorx_socket_mod1_ver0(int domain, int type, int protocol);
void vorx___ozk_counter_inc_mod1_ver0(void* counter);
int vorx_sigaction_mod1_ver0(int sig, const void* act, void* oact);
void vorx___ozk_task_begin_mod0_ver1(void* domain, vorx_ozk_id_t taskid, vorx_ozk_id_t parentid, void* name);
void vorx___ozk_task_end_overlapped_mod0_ver0(void* domain, vorx_ozk_id_t taskid);
int vorx___ozk_event_create_mod0_ver0(const char* name, int namelen);
void vorx___ozk_api_init_mod0_ver0(void* api_table, int init_type);
}

namespace {

struct seen_t {
    int calls = 0;
    int errno_at_call = 0;
    unsigned level_at_call = 0;
    vorx_probe_data_t* wait_at_call = nullptr;
    long args[8] = {};
    int timeouts[4] = {};
} seen;

void set_row(unsigned id, unsigned versions, unsigned mod, unsigned ver, void* fn) {
    vorx_probe_row(id, versions, mod, ver)->trampoline = fn;
}

void note_call() {
    auto& s = fake::st();
    seen.errno_at_call = s.app_errno;
    seen.level_at_call = s.wsp.runtime_level;
    seen.wait_at_call = s.wsp.incomplete_wait;
    ++seen.calls;
}

// read: the first `eintr_rounds` calls fail with EINTR, marked as the collector's own signal if `internal`
int eintr_rounds = 0;
bool internal = true;
long fake_read(int fd, void*, unsigned n) {
    note_call();
    seen.args[0] = fd;
    fake::st().clock += 50;  // the call takes 50 ticks
    if (eintr_rounds > 0) {
        --eintr_rounds;
        fake::st().wsp.internal_signal = internal ? 1 : 0;
        fake::st().app_errno = EINTR;
        return -1;
    }
    fake::st().app_errno = 77;  // what the original leaves behind
    return n;
}

class Wrappers : public ::testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        seen = seen_t{};
        eintr_rounds = 0;
        internal = true;
        for (unsigned m = 0; m < 3; ++m)
            for (unsigned v = 0; v < 3; ++v) set_row(vorx_pi_read, 3, m, v, (void*)&fake_read);
    }
    static unsigned index(unsigned id, unsigned state, unsigned order) { return VORX_CALLBACK_INDEX(id, state, order); }
};

TEST_F(Wrappers, BeforeStartOrOnUnknownThreadsTheOriginalRunsAlone) {
    fake::st().rtl = false;
    fake::st().app_errno = 5;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(seen.errno_at_call, 5);
    EXPECT_EQ(fake::st().enters, 0u);

    fake::reset();
    fake::st().first_enter = fake::answer::not_found;
    fake::st().app_errno = 9;
    EXPECT_EQ(vorx_read_mod1_ver2(4, nullptr, 20), 20);
    EXPECT_EQ(seen.errno_at_call, 9);
    EXPECT_EQ(fake::st().releases, 0u);
    EXPECT_TRUE(fake::st().callbacks.empty());
}

TEST_F(Wrappers, AMeasuredWaitRunsAtLevel2OnTheWaitStackAndReportsLongWaits) {
    fake::st().app_errno = 5;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(seen.errno_at_call, 5) << "the application's errno is restored for the original";
    EXPECT_EQ(fake::st().app_errno, 77) << "and the original's errno is what the caller sees";
    EXPECT_EQ(seen.level_at_call, 2u);
    ASSERT_NE(seen.wait_at_call, nullptr);
    EXPECT_EQ(seen.wait_at_call->locals.last_probe_id, unsigned(vorx_pi_read));
    EXPECT_EQ(fake::st().wsp.incomplete_wait, nullptr);
    EXPECT_EQ(fake::st().wsp.runtime_level, 3u);
    EXPECT_EQ(fake::st().enters, fake::st().releases);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().callbacks[0].index, index(vorx_pi_read, 1, 0));
    EXPECT_EQ(fake::st().callbacks[1].index, index(vorx_pi_read, 1, 1));
    EXPECT_EQ(fake::st().callbacks[1].leave_time - fake::st().callbacks[1].enter_time, 50u);
    EXPECT_EQ(fake::st().callbacks[1].to_aux, 1);

    // a wait below the threshold makes no record, and a short one would get the cheaper stack
    fake::reset();
    fake::st().wait_threshold = 100;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    ASSERT_EQ(fake::st().callbacks.size(), 1u);  // the pre entry only
}

TEST_F(Wrappers, NestedCallsAndCallsFromTheCollectorPassThrough) {
    fake::st().wsp.runtime_level = 2;  // inside another wrapper's original
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(fake::st().nested_checks, 1u);
    EXPECT_TRUE(fake::st().callbacks.empty());
    EXPECT_EQ(fake::st().wsp.runtime_level, 2u);
    EXPECT_EQ(fake::st().releases, 1u);

    fake::reset();
    fake::st().first_enter = fake::answer::acquired;  // the collector itself is on this stack
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(fake::st().releases, 0u);
    EXPECT_TRUE(fake::st().callbacks.empty());
}

TEST_F(Wrappers, DetachDuringTheCallSkipsThePostWork) {
    fake::st().later_enter = fake::answer::closed;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(fake::st().app_errno, 77);
    EXPECT_EQ(fake::st().callbacks.size(), 1u);
}

TEST_F(Wrappers, TheCollectorsOwnSignalIsHiddenAndTheApplicationsIsNot) {
    eintr_rounds = 2;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    EXPECT_EQ(seen.calls, 3);
    EXPECT_EQ(fake::st().app_errno, 77);

    fake::reset();
    seen = seen_t{};
    eintr_rounds = 1;
    internal = false;
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), -1);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(fake::st().app_errno, EINTR);
}

int poll_rounds = 0;
int fake_poll(void*, unsigned long, int timeout) {
    seen.timeouts[seen.calls++] = timeout;
    fake::st().wall += 300000;  // 300 ms pass in each call
    if (poll_rounds-- > 0) {
        fake::st().wsp.internal_signal = 1;
        fake::st().app_errno = EINTR;
        return -1;
    }
    return 0;
}

TEST_F(Wrappers, RestartedPollWaitsOnlyForWhatIsLeft) {
    set_row(vorx_pi_poll, 3, 1, 0, (void*)&fake_poll);
    poll_rounds = 2;
    EXPECT_EQ(vorx_poll_mod1_ver0(nullptr, 0, 1000), 0);
    ASSERT_EQ(seen.calls, 3);
    EXPECT_EQ(seen.timeouts[0], 1000);
    EXPECT_EQ(seen.timeouts[1], 700);
    EXPECT_EQ(seen.timeouts[2], 400);
}

int nanosleep_calls = 0;
long nanosleep_seconds = -1;
int fake_nanosleep(const struct timespec* req, struct timespec* rem) {
    ++nanosleep_calls;
    nanosleep_seconds = req->tv_sec;
    if (rem) *rem = {0, 0};
    return 0;
}
int sleep_calls = 0;
unsigned fake_sleep(unsigned) { return ++sleep_calls, 0; }

TEST_F(Wrappers, SleepGoesThroughNanosleepAndSleepZeroThroughItself) {
    vorx_head_row(vorx_pi_nanosleep)->trampoline = (void*)&fake_nanosleep;
    set_row(vorx_pi_sleep, 3, 1, 0, (void*)&fake_sleep);
    EXPECT_EQ(vorx_sleep_mod1_ver0(0), 0u);
    EXPECT_EQ(sleep_calls, 1);
    EXPECT_EQ(fake::st().enters, 0u);
    EXPECT_EQ(vorx_sleep_mod1_ver0(2), 0u);
    EXPECT_EQ(nanosleep_calls, 1);
    EXPECT_EQ(nanosleep_seconds, 2);
    EXPECT_EQ(sleep_calls, 1);
    vorx_head_row(vorx_pi_nanosleep)->trampoline = nullptr;
}

int trylock_result = 0;
int lock_calls = 0;
int fake_trylock(void*) { return trylock_result; }
int fake_lock(void* m) {
    ++lock_calls;
    seen.wait_at_call = fake::st().wsp.incomplete_wait;
    fake::st().clock += 2;
    return 0;
}
int fake_unlock(void*) { return 0; }

TEST_F(Wrappers, FreeLocksCostOneTryAndContendedOnesAreMeasured) {
    int mutex = 0;
    vorx_head_row(vorx_pi_pthread_mutex_trylock)->trampoline = (void*)&fake_trylock;
    set_row(vorx_pi_pthread_mutex_lock, 3, 2, 0, (void*)&fake_lock);
    EXPECT_EQ(vorx_pthread_mutex_lock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(lock_calls, 0);
    EXPECT_EQ(fake::st().enters, 0u);

    trylock_result = EBUSY;
    fake::st().contention_filter = true;
    fake::st().contended = true;  // another thread's unlock found this waiter
    EXPECT_EQ(vorx_pthread_mutex_lock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(lock_calls, 1);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);  // short, but contended: forced
    EXPECT_EQ(fake::st().callbacks[1].stack_policy, 1u);
    EXPECT_EQ(fake::st().sync_pushed, nullptr) << "the filter's object list is cleared at the end";
    vorx_head_row(vorx_pi_pthread_mutex_trylock)->trampoline = nullptr;
    trylock_result = 0;
}

TEST_F(Wrappers, WakersPassThroughWhilePaused) {
    int mutex = 0;
    set_row(vorx_pi_pthread_mutex_unlock, 3, 2, 0, (void*)&fake_unlock);
    fake::st().conf_state = 0;
    EXPECT_EQ(vorx_pthread_mutex_unlock_mod2_ver0(&mutex), 0);
    EXPECT_TRUE(fake::st().callbacks.empty());
    fake::st().conf_state = 1;
    fake::st().contention_filter = true;
    EXPECT_EQ(vorx_pthread_mutex_unlock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(fake::st().callbacks.size(), 1u) << "no waiter found: the unlock is not reported";
    fake::st().waiter_found = true;
    EXPECT_EQ(vorx_pthread_mutex_unlock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(fake::st().callbacks.size(), 3u);

    // while no thread has a lock object in its block there is nobody to find: the release is not entered
    fake::st().waiters_possible = false;
    unsigned enters = fake::st().enters;
    EXPECT_EQ(vorx_pthread_mutex_unlock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(fake::st().callbacks.size(), 3u);
    EXPECT_EQ(fake::st().enters, enters);
    fake::st().contention_filter = false;  // without the filter every release is reported
    EXPECT_EQ(vorx_pthread_mutex_unlock_mod2_ver0(&mutex), 0);
    EXPECT_EQ(fake::st().callbacks.size(), 5u);
}

char block[256];
void* fake_malloc(unsigned) { return block; }
void fake_free(void*) {}

TEST_F(Wrappers, HeapCallsBelowTheSizeFilterLeaveNoTrace) {
    set_row(vorx_pi_malloc, 3, 1, 0, (void*)&fake_malloc);
    set_row(vorx_pi_free, 3, 1, 0, (void*)&fake_free);
    EXPECT_EQ(vorx_malloc_mod1_ver0(16), block);
    EXPECT_TRUE(fake::st().callbacks.empty());
    EXPECT_TRUE(fake::st().heap.empty());
    EXPECT_EQ(vorx_malloc_mod1_ver0(128), block);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().callbacks[1].to_aux, 0) << "allocations go to the master unit";
    ASSERT_EQ(fake::st().heap.size(), 1u);
    vorx_free_mod1_ver0(block);
    EXPECT_EQ(fake::st().callbacks.size(), 4u);
    EXPECT_TRUE(fake::st().heap.empty());
    unsigned enters = fake::st().enters;
    vorx_free_mod1_ver0(block + 1);  // never sampled: straight to the original, not even entered
    EXPECT_EQ(fake::st().callbacks.size(), 4u);
    EXPECT_EQ(fake::st().enters, enters);
}

long syscall_calls = 0;
long fake_syscall(long number, long a1, long a2, long a3, long a4, long a5, long a6, long a7) {
    ++syscall_calls;
    fake::st().clock += 50;  // a futex wait that lasts
    seen.args[0] = number;
    seen.args[1] = a1;
    seen.args[7] = a7;
    return 42;
}

TEST_F(Wrappers, SyscallHandsFutexToTheFutexWrapper) {
    vorx_head_row(vorx_pi_syscall)->trampoline = (void*)&fake_syscall;
    set_row(vorx_pi_syscall, 3, 1, 0, (void*)&fake_syscall);
    EXPECT_EQ(vorx_syscall_mod1_ver0(240, 0x1234, 0, 1, 0, 0, 0, 0), 42);
    EXPECT_EQ(seen.args[0], 240);
    EXPECT_EQ(seen.args[1], 0x1234);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().callbacks[0].id, unsigned(vorx_pi_futex));
    fake::st().callbacks.clear();
    EXPECT_EQ(vorx_syscall_mod1_ver0(20, 1, 2, 3, 4, 5, 6, 7), 42);
    EXPECT_EQ(seen.args[7], 7) << "all eight words go on";
    EXPECT_TRUE(fake::st().callbacks.empty()) << "syscall itself is thin";
    vorx_head_row(vorx_pi_syscall)->trampoline = nullptr;
}

int exit_calls = 0;
void fake_exit(int) { ++exit_calls; }
char env_value[] = "from-the-application";
char* fake_getenv(const char*) { return env_value; }

TEST_F(Wrappers, ThinMembers) {
    set_row(vorx_pi_exit, 3, 1, 0, (void*)&fake_exit);
    vorx_exit_mod1_ver0(0);
    EXPECT_EQ(exit_calls, 1);
    EXPECT_EQ(fake::st().detaches, 1u);
    EXPECT_EQ(fake::st().stops, 1u);
    EXPECT_EQ(fake::st().enters, 0u);

    set_row(vorx_pi_getenv, 3, 1, 0, (void*)&fake_getenv);
    EXPECT_STREQ(vorx_getenv_mod1_ver0("X"), "from-the-application");
    fake::st().private_env = "collector-view";
    EXPECT_STREQ(vorx_getenv_mod1_ver0("X"), "collector-view");
}

void* init_table = nullptr;
int init_flags = -1;
void fake_api_init(void* table, int flags) { init_table = table, init_flags = flags; }

// The annotation library hands its table over from its constructor, before the runtime opens.
TEST_F(Wrappers, ApiInitHandsTheTableOverAndPassesTheMaskAlsoBeforeStart) {
    set_row(vorx_pi___ozk_api_init, 3, 0, 0, (void*)&fake_api_init);
    int table = 0;
    fake::st().rtl = false;
    fake::st().api_mask = 0x100e;
    vorx___ozk_api_init_mod0_ver0(&table, 0);
    EXPECT_EQ(fake::st().handed_table, &table);
    EXPECT_EQ(init_table, &table);
    EXPECT_EQ(init_flags, 0x100e);
    EXPECT_EQ(fake::st().enters, 0u);
}

int fake_socket(int, int, int) {
    fake::st().app_errno = 0;
    return 9;
}

TEST_F(Wrappers, EventsAlwaysReportAndKeepNoWait) {
    set_row(vorx_pi_socket, 3, 1, 0, (void*)&fake_socket);
    fake::st().wait_threshold = 1000000;
    EXPECT_EQ(vorx_socket_mod1_ver0(2, 1, 0), 9);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().callbacks[1].index, index(vorx_pi_socket, 1, 1));
    EXPECT_EQ(fake::st().wsp.incomplete_wait, nullptr);
}

int counter_calls = 0;
void fake_counter_inc(void*) { ++counter_calls; }
int sigaction_calls = 0;
int fake_sigaction(int, const void*, void*) {
    note_call();
    seen.args[0] = fake::st().enters - fake::st().releases;  // descriptors held during the call
    return ++sigaction_calls, 0;
}

TEST_F(Wrappers, CountedCallsRecordUnderTheGlobalLockAndReplacedOnesFallBackToTheOriginal) {
    set_row(vorx_pi___ozk_counter_inc, 3, 1, 0, (void*)&fake_counter_inc);
    int counter = 0;
    vorx___ozk_counter_inc_mod1_ver0(&counter);
    EXPECT_EQ(counter_calls, 1);
    EXPECT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().global_locks, 2u);  // pre and post

    // no signal subsystem linked in: the weak routine is absent and the original runs as it is, outside the
    // collector: no other thread may ever wait for a thread that sits in a signal call
    set_row(vorx_pi_sigaction, 3, 1, 0, (void*)&fake_sigaction);
    EXPECT_EQ(vorx_sigaction_mod1_ver0(10, nullptr, nullptr), 0);
    EXPECT_EQ(sigaction_calls, 1);
    EXPECT_EQ(seen.level_at_call, 2u);
    EXPECT_EQ(seen.args[0], 0);
    EXPECT_EQ(fake::st().wsp.runtime_level, 3u);
    EXPECT_EQ(fake::st().enters, fake::st().releases);
}

// A signal deferred inside the collector runs its handler only once the thread let go of its descriptor.
TEST_F(Wrappers, DeferredSignalsAreDeliveredAfterTheRelease) {
    EXPECT_EQ(vorx_read_mod0_ver0(3, nullptr, 10), 10);
    ASSERT_GT(fake::st().completions, 0u);
    EXPECT_EQ(fake::st().releases_at_completion, fake::st().releases);
}

struct task_args {
    void* domain;
    vorx_ozk_id_t taskid, parentid;
    void* name;
} task_seen;
void fake_task_begin(void* domain, vorx_ozk_id_t taskid, vorx_ozk_id_t parentid, void* name) {
    task_seen = {domain, taskid, parentid, name};
}
void fake_task_end_overlapped(void* domain, vorx_ozk_id_t taskid) { task_seen = {domain, taskid, {}, nullptr}; }
int fake_event_create(const char*, int) { return 7; }

bool same_id(const vorx_ozk_id_t& a, const vorx_ozk_id_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Ids are three words passed by value: each word must reach the original and the callbacks where the caller
// put it, and the word after them (the name) must not be taken from inside an id.
TEST_F(Wrappers, TaskIdsPassByValueToTheOriginalAndTheCallbacks) {
    set_row(vorx_pi___ozk_task_begin, 3, 0, 1, (void*)&fake_task_begin);
    int domain = 0, name = 0;
    const vorx_ozk_id_t task = {{0x1111222233334444ull, 0x5555666677778888ull, 0x99990000aaaabbbbull}};
    const vorx_ozk_id_t parent = {{1, 2, 3}};
    vorx___ozk_task_begin_mod0_ver1(&domain, task, parent, &name);
    EXPECT_EQ(task_seen.domain, &domain);
    EXPECT_TRUE(same_id(task_seen.taskid, task));
    EXPECT_TRUE(same_id(task_seen.parentid, parent));
    EXPECT_EQ(task_seen.name, &name);
    ASSERT_EQ(fake::st().callbacks.size(), 2u);
    const auto& p = fake::st().last_params.u___ozk_task_begin;
    EXPECT_TRUE(same_id(p.__taskid, task));
    EXPECT_TRUE(same_id(p.__parentid, parent));
    EXPECT_EQ(p.__name, &name);
    EXPECT_EQ(vorx_head_row(vorx_pi___ozk_task_begin)->args_size, 56u) << "14 words on the stack";

    set_row(vorx_pi___ozk_task_end_overlapped, 3, 0, 0, (void*)&fake_task_end_overlapped);
    vorx___ozk_task_end_overlapped_mod0_ver0(&domain, parent);
    EXPECT_TRUE(same_id(task_seen.taskid, parent));
    EXPECT_EQ(vorx_head_row(vorx_pi___ozk_task_end_overlapped)->args_size, 28u);
}

unsigned level_in_task_begin = 0;
void fake_task_begin_level(void*, vorx_ozk_id_t, vorx_ozk_id_t, void*) {
    level_in_task_begin = fake::st().wsp.runtime_level;
    fake::st().app_errno = 5;
}

// A leaf (the annotation library's own bookkeeping) with no callback after it leaves before the original and
// does not come back; once a post callback is set (stacks), it is measured like any event.
TEST_F(Wrappers, LeafCallsWithNothingAfterThemEnterOnce) {
    set_row(vorx_pi___ozk_task_begin, 3, 0, 1, (void*)&fake_task_begin_level);
    int domain = 0, name = 0;
    fake::st().post_callbacks = false;
    fake::st().app_errno = 3;
    vorx___ozk_task_begin_mod0_ver1(&domain, {}, {}, &name);
    EXPECT_EQ(level_in_task_begin, 3u);
    EXPECT_EQ(fake::st().app_errno, 5) << "what the original leaves in errno is the caller's";
    EXPECT_EQ(fake::st().enters, 1u);
    EXPECT_EQ(fake::st().releases, 1u);
    EXPECT_EQ(fake::st().callbacks.size(), 1u);
    EXPECT_EQ(fake::st().wsp.runtime_level, 3u);

    fake::reset();
    set_row(vorx_pi___ozk_task_begin, 3, 0, 1, (void*)&fake_task_begin_level);
    vorx___ozk_task_begin_mod0_ver1(&domain, {}, {}, &name);
    EXPECT_EQ(level_in_task_begin, 2u);
    EXPECT_EQ(fake::st().enters, 2u);
    EXPECT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().wsp.runtime_level, 3u);

    // called from inside an original: no record, the full path's nesting check, the level left as it was
    fake::reset();
    set_row(vorx_pi___ozk_task_begin, 3, 0, 1, (void*)&fake_task_begin_level);
    fake::st().post_callbacks = false;
    fake::st().wsp.runtime_level = 2;
    vorx___ozk_task_begin_mod0_ver1(&domain, {}, {}, &name);
    EXPECT_EQ(level_in_task_begin, 2u);
    EXPECT_TRUE(fake::st().callbacks.empty());
    EXPECT_EQ(fake::st().nested_checks, 1u);
    EXPECT_EQ(fake::st().releases, fake::st().enters);
    EXPECT_EQ(fake::st().wsp.runtime_level, 2u);
}

TEST_F(Wrappers, EventKindsAreCreatedUnderTheGlobalLock) {
    set_row(vorx_pi___ozk_event_create, 3, 0, 0, (void*)&fake_event_create);
    EXPECT_EQ(vorx___ozk_event_create_mod0_ver0("draw", 4), 7);
    EXPECT_EQ(fake::st().callbacks.size(), 2u);
    EXPECT_EQ(fake::st().global_locks, 2u);
    EXPECT_EQ(fake::st().callbacks[1].to_aux, 0) << "creations go to the master unit";
}

}  // namespace
