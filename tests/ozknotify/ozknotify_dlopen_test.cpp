// A plug-in may load libozknotify.so late with dlopen(): the library must
// load (its thread-local block comes from the static TLS reserve), announce
// itself, and work from threads that existed before it was loaded.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <thread>

#include "ozknotify.h"

namespace {

template <typename Fn> Fn lookup(void *library, const char *name)
{
    return reinterpret_cast<Fn>(dlsym(library, name));
}

TEST(OzkDlopen, LateLoadedLibraryWorksOnEveryThread)
{
    std::thread early([] {}); // a thread that predates the library
    void *library = dlopen(OZKNOTIFY_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();

    auto domain_create = lookup<ozk_domain *(*)(const char *)>(library, "__ozk_domain_create");
    auto task_begin = lookup<void (*)(const ozk_domain *, ozk_id, ozk_id, ozk_string_handle *)>(
        library, "__ozk_task_begin");
    auto task_end = lookup<void (*)(const ozk_domain *)>(library, "__ozk_task_end");
    auto disable_push = lookup<void (*)(int)>(library, "__ozk_model_disable_push");
    auto is_disabled = lookup<int (*)(void)>(library, "__ozk_model_is_collection_disabled");
    ASSERT_TRUE(domain_create && task_begin && task_end && disable_push && is_disabled);
    EXPECT_EQ(dlsym(library, "ozk_registry_get"), nullptr) << "internals stay hidden";

    ozk_domain *domain = domain_create("late");
    EXPECT_EQ(domain_create("late"), domain);
    std::thread worker([&] {
        task_begin(domain, ozk_null_id(), ozk_null_id(), nullptr);
        task_end(domain);
        disable_push(1);
        EXPECT_EQ(is_disabled(), 1);
    });
    worker.join();
    EXPECT_EQ(is_disabled(), 0) << "the disable stack is per thread";
    early.join();
}

} // namespace
