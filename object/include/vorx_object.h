/*
 * A small class system on plain structures: run-time checked casts, single
 * inheritance, constructors with a variable argument list.
 *
 * Every object starts with the magic word 0xFACEECAF and its class, and every
 * class is itself an object (of a metaclass), so that a stray pointer is
 * caught at the first cast or call. Classes are made on first use by a
 * function with the class's name (vorx_htable_t(), vorx_environ_t(), ...);
 * the creation is a lock-free race that any thread may win.
 *
 * Defining a class (see vorx_htable.c for the full pattern):
 *
 *     klass = vorx_alloc_object(metaclass, "my_class_t", vorx_class_t(),
 *                               sizeof(struct my_object),
 *                               "vorx_object_ctor", vorx_object_ctor, my_ctor,
 *                               "vorx_object_dump", vorx_object_dump, my_dump,
 *                               (const char *)0);
 *
 * A subclass inherits every method of its super class and lists only those it
 * changes. All failures (bad magic, failed cast, missing method) are
 * assertions: the model assumes correct use.
 */
#ifndef VORX_OBJECT_H
#define VORX_OBJECT_H

#include <stdarg.h>

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_OBJECT_MAGIC 0xFACEECAFu

/* Head of every object. */
struct vorx_object {
    vorx_u32_t magic;
    const struct vorx_class *klass;
};

/* One method: its name, the function callers call, the implementation. */
struct vorx_method {
    const char *name;
    void *api;
    void *impl;
};

enum vorx_method_slot {
    vorx_method_alloc = 0,
    vorx_method_free,
    vorx_method_ctor,
    vorx_method_dtor,
    vorx_method_dump,
    vorx_method_eof
};

/* A class object; a metaclass with more methods is larger and its extra slots
 * follow `methods`. */
struct vorx_class {
    struct vorx_object head;
    const char *name;
    const struct vorx_class *super;
    vorx_size_t size;
    struct vorx_method methods[vorx_method_eof];
};

/* Signatures of the five base implementations. `args` points at the caller's
 * argument list (after the class or object). */
typedef void *(*vorx_alloc_impl_t)(const void *klass, va_list *args);
typedef void (*vorx_free_impl_t)(void *object);
typedef void *(*vorx_ctor_impl_t)(void *object, va_list *args);
typedef void *(*vorx_dtor_impl_t)(void *object);
typedef void (*vorx_dump_impl_t)(const void *object, int fd);

/* The root class (size 8, the bare head) and the root metaclass (size 80,
 * its own class). Both have vorx_class_t as super. */
const void *vorx_class_t(void);
const void *vorx_meta_t(void);

void *vorx_alloc_object(const void *klass, ...);
void vorx_free_object(void *object);
void *vorx_object_ctor(void *object, va_list *args);
void *vorx_object_dtor(void *object);
/* Dumps to the process-wide dump descriptor (standard output by default). */
void vorx_object_dump(const void *object);
void vorx_object_dump_fd(const void *object, int fd);
void vorx_object_set_dump_fd(int fd);

/* The same through the super class of `klass` (for use in implementations). */
void *vorx_object_ctor_super(const void *klass, void *object, va_list *args);
void *vorx_object_dtor_super(const void *klass, void *object);
void vorx_object_dump_super(const void *klass, const void *object, int fd);

/* The object when it belongs to klass (or a subclass); else an assertion. */
void *vorx_object_cast(const void *klass, const void *object);
vorx_bool_t vorx_object_belongs_to_class(const void *object, const void *klass);
/* Asserts that obj is non-null and carries the magic word. */
void vorx_check_object(const void *obj);

const void *vorx_object_get_class(const void *object);
const void *vorx_class_get_superclass(const void *klass);
vorx_size_t vorx_class_get_object_size(const void *klass);
vorx_size_t vorx_object_get_size(const void *object);
/* The api of the object's method of that name, or null. */
void *vorx_object_get_method(const void *object, const char *name);

/* printf to a descriptor for dump implementations: formatted on the stack
 * (at most 1023 bytes) and written at once, without stdio's buffers. */
__attribute__((format(printf, 2, 3))) void vorx_object_printf(int fd, const char *format, ...);

/* Publishes *slot = candidate unless another thread got there first; returns
 * the value that won (freeing the candidate when it lost). For class functions. */
const void *vorx_class_publish(const void *volatile *slot, void *candidate);

#ifdef __cplusplus
}
#endif

#endif /* VORX_OBJECT_H */
