// The user-callback registry: what register answers for application code,
// for the collector's own code and for ignored helper code, the ignored-range
// list, and the contract checks.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "vorx_user_cbk.h"

namespace {

constexpr vorx_address_t kOursStart = 0x10000;
constexpr vorx_address_t kOursEnd = 0x20000;
constexpr vorx_address_t kHelperStart = 0x50000; // a helper library's code
constexpr vorx_address_t kHelperEnd = 0x51000;
constexpr vorx_address_t kAppCode = 0x80000;

size_t ignored_count()
{
    size_t n = 0;
    for (auto *r = g_ignored_addrs_dir.next; r != &g_ignored_addrs_dir; r = r->next)
        ++n;
    return n;
}

bool all_words_zero(const vorx_usr_cbk_entry_t *e)
{
    return e->user_addr == 0 && e->user_param == 0 && e->wrapper_addr == 0 &&
           e->wrapper_param == 0 && e->properties[0] == 0 && e->properties[1] == 0 &&
           e->properties[2] == 0 && e->spare == 0;
}

class UserCbk : public ::testing::Test {
protected:
    void SetUp() override { vorx_usr_cbk_init(kOursStart, kOursEnd); }
    void TearDown() override { vorx_usr_cbk_fini(); }
};

TEST_F(UserCbk, RegisterAnswersByWhereTheCodeIs)
{
    vorx_usr_cbk_ignore_range(kHelperStart, kHelperEnd);
    vorx_usr_cbk_ignore_addr(kOursStart + 0x300); // an entry point inside our own code
    const struct {
        const char *what;
        vorx_address_t code, param;
        vorx_usr_cbk_reg_t answer;
        vorx_address_t wrapper; // as the fresh entry holds it
    } cases[] = {
        {"application code: a fresh entry to wrap", kAppCode, 0x1234, vorx_usr_cbk_reg_wrap, 0},
        {"ignored helper: called directly", kHelperStart + 0x100, 5, vorx_usr_cbk_reg_direct,
         kHelperStart + 0x100},
        {"the end of a range is outside it", kHelperEnd, 5, vorx_usr_cbk_reg_wrap, 0},
        {"an ignored address in our code is not ours: its parameter is no entry of ours",
         kOursStart + 0x300, 0x77, vorx_usr_cbk_reg_direct, kOursStart + 0x300},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        vorx_usr_cbk_entry_t *entry = nullptr;
        EXPECT_EQ(vorx_usr_cbk_register(c.code, c.param, &entry), c.answer);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(vorx_usr_cbk_get_user_param(entry), c.param);
        EXPECT_EQ(vorx_usr_cbk_get_wrapper_addr(entry), c.wrapper);
        vorx_usr_cbk_unregister(entry);
    }

    // Our own code without a parameter: an empty entry.
    vorx_usr_cbk_entry_t *entry = nullptr;
    EXPECT_EQ(vorx_usr_cbk_register(kOursStart + 4, 0, &entry), vorx_usr_cbk_reg_wrap);
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(all_words_zero(entry));
    vorx_usr_cbk_unregister(entry);
}

TEST_F(UserCbk, OwnWrapperWithItsEntryIsUsedAsItStands)
{
    vorx_usr_cbk_entry_t *first = nullptr;
    ASSERT_EQ(vorx_usr_cbk_register(kAppCode, 7, &first), vorx_usr_cbk_reg_wrap);
    vorx_usr_cbk_set_wrapper_addr(first, kOursStart + 0x40, reinterpret_cast<vorx_address_t>(first));

    vorx_usr_cbk_entry_t *again = nullptr;
    EXPECT_EQ(vorx_usr_cbk_register(kOursStart + 0x40, reinterpret_cast<vorx_address_t>(first), &again),
              vorx_usr_cbk_reg_internal);
    EXPECT_EQ(again, first);
    EXPECT_EQ(vorx_usr_cbk_get_user_addr(again), kAppCode) << "the earlier entry is not touched";
    vorx_usr_cbk_unregister(first);
}

TEST_F(UserCbk, RangesAreListedOnceAndStillAcceptedAfterTheFirstRegistration)
{
    vorx_usr_cbk_ignore_range(kHelperStart, kHelperEnd);
    vorx_usr_cbk_ignore_range(kHelperStart + 0x10, kHelperStart + 0x20); // held already
    vorx_usr_cbk_ignore_addr(kHelperStart);                              // held already
    EXPECT_EQ(ignored_count(), 1u);
    EXPECT_FALSE(g_ignored_addrs_dir_closed);

    vorx_usr_cbk_entry_t *entry = nullptr;
    vorx_usr_cbk_register(kAppCode, 0, &entry);
    vorx_usr_cbk_unregister(entry);
    EXPECT_TRUE(g_ignored_addrs_dir_closed);

    const vorx_address_t late = 0x90000;
    vorx_usr_cbk_ignore_range(late, late + 0x100);
    EXPECT_EQ(ignored_count(), 2u);
    EXPECT_EQ(g_ignored_addrs_dir.next->start, late) << "new ranges go to the head";
    EXPECT_EQ(vorx_usr_cbk_register(late + 1, 0, &entry), vorx_usr_cbk_reg_direct);
    vorx_usr_cbk_unregister(entry);
}

TEST_F(UserCbk, OnlyTheFirstInitCounts)
{
    vorx_usr_cbk_init(0x1, 0x2);
    EXPECT_EQ(g_internal_domain_code_address_range.start, kOursStart);
    EXPECT_EQ(g_internal_domain_code_address_range.end, kOursEnd);
}

TEST_F(UserCbk, ConcurrentRegistrationsAndRangesStayConsistent)
{
    constexpr int kThreads = 4, kRounds = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kRounds; ++i) {
                const vorx_address_t base = 0x100000 + (vorx_address_t)(t * kRounds + i) * 0x10;
                vorx_usr_cbk_ignore_range(base, base + 8);
                vorx_usr_cbk_entry_t *entry = nullptr;
                ASSERT_EQ(vorx_usr_cbk_register(base + 4, 1, &entry), vorx_usr_cbk_reg_direct);
                ASSERT_EQ(vorx_usr_cbk_register(base + 8, 1, &entry), vorx_usr_cbk_reg_wrap);
                vorx_usr_cbk_unregister(entry);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(ignored_count(), (size_t)kThreads * kRounds);
}

using UserCbkDeathTest = UserCbk;

TEST_F(UserCbkDeathTest, ContractViolationsAreAssertions)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(vorx_usr_cbk_ignore_range(kHelperEnd, kHelperStart), "start < end");
    EXPECT_DEATH(vorx_usr_cbk_ignore_range(kOursEnd - 0x10, kOursEnd + 0x10), "");
    EXPECT_DEATH(vorx_usr_cbk_get_user_addr(nullptr), "entry");
    vorx_usr_cbk_entry_t *entry = nullptr;
    vorx_usr_cbk_register(kAppCode, 0, &entry);
    EXPECT_DEATH(vorx_usr_cbk_set_property(entry, 3, 1), "index");
    vorx_usr_cbk_unregister(entry);
}

} // namespace
