/* The object model: objects with a magic word, classes that are objects of
 * metaclasses, dispatch through method slots, checked casts. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "vorx_log.h"
#include "vorx_object.h"

typedef struct vorx_object object_t;
typedef struct vorx_class class_t;

/* Bytes before the first method slot of a class object, and one slot's size. */
#define CLASS_HEAD_SIZE (sizeof(class_t) - sizeof(((class_t *)0)->methods))
#define SLOT_SIZE sizeof(struct vorx_method)
_Static_assert(sizeof(void *) != 4 || CLASS_HEAD_SIZE == 20, "class head is 20 bytes on i386");
_Static_assert(sizeof(void *) != 4 || sizeof(class_t) == 80, "vorx_meta_t objects are 80 bytes");

static int g_dump_fd = 1;

void vorx_object_printf(int fd, const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (length <= 0 || fd < 0)
        return;
    vorx_size_t size = (vorx_size_t)length < sizeof(text) ? (vorx_size_t)length : sizeof(text) - 1;
    vorx_ssize_t ignored = sal_write(fd, text, size);
    (void)ignored;
}

/* ---- base implementations --------------------------------------------- */

static void *object_alloc(const void *klass, va_list *args)
{
    const class_t *c = klass;
    object_t *object = calloc(1, c->size);
    VORX_ASSERT(object != NULL);
    object->magic = VORX_OBJECT_MAGIC;
    object->klass = c;
    void *constructed = vorx_object_ctor(object, args);
    if (constructed == NULL) {
        object->magic = 0;
        free(object);
    }
    return constructed;
}

static void object_free(void *object)
{
    /* A stale pointer to a freed object fails the magic test while the
     * memory is not yet reused. */
    ((object_t *)object)->magic = 0;
    free(object);
}

static void *object_ctor(void *object, va_list *args)
{
    (void)args;
    return object;
}

static void *object_dtor(void *object)
{
    return object;
}

static void object_dump(const void *object, int fd)
{
    const object_t *o = object;
    vorx_object_printf(fd, " [%s]: addr = %p\n", o->klass->name, object);
}

static vorx_size_t slot_count_of(const class_t *klass)
{
    /* A class object's size is its metaclass's object size. */
    return (klass->head.klass->size - CLASS_HEAD_SIZE) / SLOT_SIZE;
}

static int slot_of_api(const void *api)
{
    static void *const apis[vorx_method_eof] = {
        [vorx_method_alloc] = (void *)vorx_alloc_object,
        [vorx_method_free] = (void *)vorx_free_object,
        [vorx_method_ctor] = (void *)vorx_object_ctor,
        [vorx_method_dtor] = (void *)vorx_object_dtor,
        [vorx_method_dump] = (void *)vorx_object_dump,
    };
    for (int slot = 0; slot < vorx_method_eof; ++slot)
        if (apis[slot] == api)
            return slot;
    return -1;
}

/* Arguments: name, super, object size, then (name, api, impl) triples ended
 * by a null name. Methods are inherited and the triples override them. */
static void *class_ctor(void *object, va_list *args)
{
    class_t *klass = object;
    klass->name = va_arg(*args, const char *);
    klass->super = va_arg(*args, const class_t *);
    klass->size = va_arg(*args, vorx_size_t);
    VORX_ASSERT(klass->super != NULL);

    vorx_size_t own = slot_count_of(klass);
    vorx_size_t inherited = slot_count_of(klass->super);
    memcpy(klass->methods, klass->super->methods,
           (own < inherited ? own : inherited) * SLOT_SIZE);

    for (const char *name; (name = va_arg(*args, const char *)) != NULL;) {
        void *api = va_arg(*args, void *);
        void *impl = va_arg(*args, void *);
        int slot = slot_of_api(api);
        if (slot < 0)
            continue; /* a larger metaclass's constructor handles its own */
        klass->methods[slot] = (struct vorx_method){name, api, impl};
    }
    return klass;
}

static void *class_dtor(void *object)
{
    return object;
}

static void class_dump(const void *object, int fd)
{
    const class_t *klass = object;
    vorx_object_printf(fd, " [class %s]: addr = %p, size = %lu, super = %s\n", klass->name, object,
            klass->size, klass->super ? klass->super->name : "-");
    for (vorx_size_t i = 0; i < slot_count_of(klass); ++i)
        if (klass->methods[i].name)
            vorx_object_printf(fd, "  %s\n", klass->methods[i].name);
}

/* ---- the two static classes --------------------------------------------- */

#define METHOD(name, api, impl) {name, (void *)(api), (void *)(impl)}

static const class_t g_meta_class;

static const class_t g_object_class = {
    {VORX_OBJECT_MAGIC, &g_meta_class},
    "vorx_class_t",
    &g_object_class,
    sizeof(object_t),
    {
        METHOD("vorx_alloc_object", vorx_alloc_object, object_alloc),
        METHOD("vorx_free_object", vorx_free_object, object_free),
        METHOD("vorx_object_ctor", vorx_object_ctor, object_ctor),
        METHOD("vorx_object_dtor", vorx_object_dtor, object_dtor),
        METHOD("vorx_object_dump", vorx_object_dump, object_dump),
    },
};

static const class_t g_meta_class = {
    {VORX_OBJECT_MAGIC, &g_meta_class},
    "vorx_meta_t",
    &g_object_class,
    sizeof(class_t),
    {
        METHOD("vorx_alloc_class", vorx_alloc_object, object_alloc),
        METHOD("vorx_free_class", vorx_free_object, object_free),
        METHOD("vorx_class_ctor", vorx_object_ctor, class_ctor),
        METHOD("vorx_class_dtor", vorx_object_dtor, class_dtor),
        METHOD("vorx_class_dump", vorx_object_dump, class_dump),
    },
};

const void *vorx_class_t(void)
{
    return &g_object_class;
}

const void *vorx_meta_t(void)
{
    return &g_meta_class;
}

/* ---- checks and dispatch -------------------------------------------------- */

void vorx_check_object(const void *obj)
{
    VORX_ASSERT(obj != NULL);
    VORX_ASSERT(((const struct vorx_object*)obj)->magic == 0xFACEECAF);
}

static void *method_impl(const class_t *klass, enum vorx_method_slot slot)
{
    vorx_check_object(klass);
    const struct vorx_method *method = &klass->methods[slot];
    VORX_ASSERT(method->impl != NULL);
    return method->impl;
}

static const class_t *class_of(const void *object)
{
    vorx_check_object(object);
    return ((const object_t *)object)->klass;
}

void *vorx_alloc_object(const void *klass, ...)
{
    vorx_alloc_impl_t alloc = (vorx_alloc_impl_t)method_impl(klass, vorx_method_alloc);
    va_list args;
    va_start(args, klass);
    void *object = alloc(klass, &args);
    va_end(args);
    return object;
}

void vorx_free_object(void *object)
{
    const class_t *klass = class_of(object);
    vorx_object_dtor(object);
    ((vorx_free_impl_t)method_impl(klass, vorx_method_free))(object);
}

void *vorx_object_ctor(void *object, va_list *args)
{
    return ((vorx_ctor_impl_t)method_impl(class_of(object), vorx_method_ctor))(object, args);
}

void *vorx_object_dtor(void *object)
{
    return ((vorx_dtor_impl_t)method_impl(class_of(object), vorx_method_dtor))(object);
}

void vorx_object_dump_fd(const void *object, int fd)
{
    ((vorx_dump_impl_t)method_impl(class_of(object), vorx_method_dump))(object, fd);
}

void vorx_object_dump(const void *object)
{
    vorx_object_dump_fd(object, g_dump_fd);
}

void vorx_object_set_dump_fd(int fd)
{
    g_dump_fd = fd;
}

static const class_t *super_of(const void *klass)
{
    vorx_check_object(klass);
    const class_t *super = ((const class_t *)klass)->super;
    VORX_ASSERT(super != NULL);
    return super;
}

void *vorx_object_ctor_super(const void *klass, void *object, va_list *args)
{
    return ((vorx_ctor_impl_t)method_impl(super_of(klass), vorx_method_ctor))(object, args);
}

void *vorx_object_dtor_super(const void *klass, void *object)
{
    return ((vorx_dtor_impl_t)method_impl(super_of(klass), vorx_method_dtor))(object);
}

void vorx_object_dump_super(const void *klass, const void *object, int fd)
{
    ((vorx_dump_impl_t)method_impl(super_of(klass), vorx_method_dump))(object, fd);
}

/* ---- classes and casts -------------------------------------------------- */

vorx_bool_t vorx_object_belongs_to_class(const void *object, const void *klass)
{
    const class_t *c = class_of(object);
    vorx_check_object(klass);
    if (klass == &g_object_class || c == klass)
        return VORX_TRUE;
    while (c != &g_object_class) {
        c = c->super;
        if (c == klass)
            return VORX_TRUE;
    }
    return VORX_FALSE;
}

void *vorx_object_cast(const void *klass, const void *object)
{
    vorx_bool_t belongs = vorx_object_belongs_to_class(object, klass);
    VORX_ASSERT_MSG(belongs, "object %p of class %s is not a %s", object,
                    class_of(object)->name, ((const class_t *)klass)->name);
    return (void *)object;
}

const void *vorx_object_get_class(const void *object)
{
    return class_of(object);
}

const void *vorx_class_get_superclass(const void *klass)
{
    vorx_check_object(klass);
    return ((const class_t *)klass)->super;
}

vorx_size_t vorx_class_get_object_size(const void *klass)
{
    vorx_check_object(klass);
    return ((const class_t *)klass)->size;
}

vorx_size_t vorx_object_get_size(const void *object)
{
    return class_of(object)->size;
}

void *vorx_object_get_method(const void *object, const char *name)
{
    const class_t *klass = class_of(object);
    vorx_size_t slots = slot_count_of(klass);
    for (vorx_size_t i = 0; i < slots; ++i) {
        const struct vorx_method *method = &klass->methods[i];
        if (method->name == NULL || strncmp(method->name, name, strlen(method->name)) != 0)
            continue;
        VORX_ASSERT(method->impl != NULL);
        VORX_ASSERT(method->api != NULL);
        return method->api;
    }
    return NULL;
}

const void *vorx_class_publish(const void *volatile *slot, void *candidate)
{
    const void *expected = NULL;
    if (__atomic_compare_exchange_n(slot, &expected, candidate, 0, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE))
        return candidate;
    /* Another thread won the race: use its class. */
    vorx_free_object(candidate);
    return expected;
}
