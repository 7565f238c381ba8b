// The private environment.
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vorx_environ.h"
#include "vorx_log.h"
#include "../sal/vorx_test_child.hpp"

namespace {

struct EnvironTest : ::testing::Test {
    vorx_environ_object *env = nullptr;
    void SetUp() override
    {
        env = static_cast<vorx_environ_object *>(vorx_alloc_object(vorx_environ_t()));
        ASSERT_NE(env, nullptr);
    }
    void TearDown() override { vorx_free_object(env); }
};

} // namespace

TEST_F(EnvironTest, SetGetAndOverwrite)
{
    EXPECT_EQ(vorx_environ_getenv(env, "MISSING"), nullptr);
    EXPECT_EQ(vorx_environ_setenv(env, "NAME", "first", 0), 0);
    EXPECT_STREQ(vorx_environ_getenv(env, "NAME"), "first");
    EXPECT_EQ(vorx_environ_setenv(env, "NAME", "second", 0), 0);
    EXPECT_STREQ(vorx_environ_getenv(env, "NAME"), "first") << "overwrite 0 keeps the old value";
    const char *held = vorx_environ_getenv(env, "NAME");
    EXPECT_EQ(vorx_environ_setenv(env, "NAME", "third", 1), 0);
    EXPECT_STREQ(vorx_environ_getenv(env, "NAME"), "third");
    EXPECT_STREQ(held, "first") << "a reader's old value stays valid";
}

TEST_F(EnvironTest, AStoredNameAnswersSearchesForLongerNames)
{
    vorx_environ_setenv(env, "DIR", "/tmp", 0);
    EXPECT_STREQ(vorx_environ_getenv(env, "DIRECTORY"), "/tmp");
    EXPECT_EQ(vorx_environ_getenv(env, "DI"), nullptr);
    vorx_environ_setenv(env, "DIRECTORY", "/var", 0);
    EXPECT_STREQ(vorx_environ_getenv(env, "DIRECTORY"), "/tmp")
        << "the setenv found DIR and kept it";
}

TEST_F(EnvironTest, BadNamesAreAssertions)
{
    for (const char *name : {"A=B", ""}) {
        ChildResult child = run_in_child([&] { vorx_environ_setenv(env, name, "x", 1); });
        EXPECT_TRUE(child.killed_by(SIGSEGV)) << name;
        EXPECT_NE(child.err.find(*name ? "(strchr(name, '=') == ((void *)0))"
                                       : "(strlen(name) != 0)"),
                  std::string::npos)
            << child.err;
    }
}

TEST_F(EnvironTest, ConcurrentWritersLoseNothing)
{
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                std::string name = "T" + std::to_string(t) + "_" + std::to_string(i) + "_";
                vorx_environ_setenv(env, name.c_str(), "v", 1);
            }
        });
    for (auto &w : writers)
        w.join();
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 200; ++i) {
            std::string name = "T" + std::to_string(t) + "_" + std::to_string(i) + "_";
            EXPECT_STREQ(vorx_environ_getenv(env, name.c_str()), "v") << name;
        }
}

TEST(VorxEnv, ProcessWideEnvironmentIsOneObject)
{
    EXPECT_EQ(vorx_environ(), vorx_environ());
    EXPECT_TRUE(vorx_object_belongs_to_class(vorx_environ(), vorx_environ_t()));
    EXPECT_EQ(vorx_env_setenv("VORX_PRIVATE", "yes", 1), 0);
    EXPECT_STREQ(vorx_env_getenv("VORX_PRIVATE"), "yes");
    EXPECT_EQ(getenv("VORX_PRIVATE"), nullptr) << "the process environment is not touched";
}
