/* The private environment: a list of name and value, newest first. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "vorx_environ.h"
#include "vorx_log.h"

static void free_list(vorx_environ_variable *variable)
{
    while (variable != NULL) {
        vorx_environ_variable *next = variable->next;
        free(variable->name);
        free(variable->value);
        free(variable);
        variable = next;
    }
}

static void *environ_ctor(void *object, va_list *args)
{
    (void)args;
    vorx_environ_object *env = object;
    env->variables = NULL;
    env->retired = NULL;
    env->busy = 0;
    return env;
}

static void *environ_dtor(void *object)
{
    vorx_environ_object *env = object;
    free_list(env->variables);
    free_list(env->retired);
    env->variables = env->retired = NULL;
    return env;
}

static void environ_dump(const void *object, int fd)
{
    const vorx_environ_object *env = object;
    vorx_object_printf(fd, " [struct vorx_environ]: addr = %p\n", object);
    for (const vorx_environ_variable *v = env->variables; v != NULL; v = v->next)
        vorx_object_printf(fd, "  %s=%s\n", v->name, v->value);
}

static const void *volatile g_environ_meta = NULL;
static const void *volatile g_environ_class = NULL;
static const void *volatile g_environ = NULL;

const void *vorx_environ_t(void)
{
    const void *klass = __atomic_load_n(&g_environ_class, __ATOMIC_ACQUIRE);
    if (klass != NULL)
        return klass;
    if (__atomic_load_n(&g_environ_meta, __ATOMIC_ACQUIRE) == NULL)
        vorx_class_publish(&g_environ_meta,
                           vorx_alloc_object(vorx_meta_t(), "vorx_environ_meta_t", vorx_meta_t(),
                                             (vorx_size_t)sizeof(struct vorx_class),
                                             (const char *)NULL));
    return vorx_class_publish(
        &g_environ_class,
        vorx_alloc_object(g_environ_meta, "vorx_environ_t", vorx_class_t(),
                          (vorx_size_t)sizeof(vorx_environ_object),
                          "vorx_object_ctor", vorx_object_ctor, environ_ctor,
                          "vorx_object_dtor", vorx_object_dtor, environ_dtor,
                          "vorx_object_dump", vorx_object_dump, environ_dump,
                          (const char *)NULL));
}

vorx_environ_object *vorx_environ(void)
{
    const void *env = __atomic_load_n(&g_environ, __ATOMIC_ACQUIRE);
    if (env == NULL)
        env = vorx_class_publish(&g_environ, vorx_alloc_object(vorx_environ_t()));
    return (vorx_environ_object *)env;
}

static void check_name(const char *name)
{
    VORX_ASSERT(name != NULL);
    VORX_ASSERT(strlen(name) != 0);
    VORX_ASSERT(strchr(name, '=') == NULL);
}

/* Matches over the stored name's length (a stored prefix matches). */
static vorx_environ_variable *find(const vorx_environ_object *env, const char *name)
{
    vorx_environ_variable *v = __atomic_load_n(&env->variables, __ATOMIC_ACQUIRE);
    for (; v != NULL; v = v->next)
        if (strncmp(v->name, name, strlen(v->name)) == 0)
            return v;
    return NULL;
}

int vorx_environ_setenv(vorx_environ_object *env, const char *name, const char *value, int overwrite)
{
    vorx_check_object(env);
    check_name(name);
    char *copy = sal_strdup(value ? value : "");
    VORX_ASSERT(copy != NULL);

    vorx_u32_t idle = 0;
    while (!__atomic_compare_exchange_n(&env->busy, &idle, 1, 0, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
        idle = 0;
        sal_yield();
    }

    vorx_environ_variable *existing = find(env, name);
    if (existing != NULL && !overwrite) {
        free(copy);
    } else if (existing != NULL) {
        /* Readers take no lock and may hold the old value: keep it until the
         * environment itself goes. */
        vorx_environ_variable *old = calloc(1, sizeof(*old));
        VORX_ASSERT(old != NULL);
        old->value = __atomic_exchange_n(&existing->value, copy, __ATOMIC_ACQ_REL);
        old->next = env->retired;
        env->retired = old;
    } else {
        vorx_environ_variable *fresh = calloc(1, sizeof(*fresh));
        VORX_ASSERT(fresh != NULL);
        fresh->name = sal_strdup(name);
        VORX_ASSERT(fresh->name != NULL);
        fresh->value = copy;
        fresh->next = env->variables;
        __atomic_store_n(&env->variables, fresh, __ATOMIC_RELEASE);
    }

    __atomic_store_n(&env->busy, 0, __ATOMIC_RELEASE);
    return 0;
}

const char *vorx_environ_getenv(const vorx_environ_object *env, const char *name)
{
    vorx_check_object(env);
    check_name(name);
    const vorx_environ_variable *v = find(env, name);
    return v ? __atomic_load_n(&v->value, __ATOMIC_ACQUIRE) : NULL;
}

int vorx_env_setenv(const char *name, const char *value, int overwrite)
{
    return vorx_environ_setenv(vorx_environ(), name, value, overwrite);
}

const char *vorx_env_getenv(const char *name)
{
    return vorx_environ_getenv(vorx_environ(), name);
}
