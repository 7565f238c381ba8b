/*
 * The collector's private environment: variables that the collector's parts
 * hand each other without touching the application's environment.
 *
 * One process-wide object of class vorx_environ_t, made on first use. Setting
 * takes a spin flag; reading takes no lock. Names are compared over the
 * stored name's length, so a stored "FOO" also answers a search for "FOOBAR":
 * callers rely on that prefix match, and it is kept on purpose.
 */
#ifndef VORX_ENVIRON_H
#define VORX_ENVIRON_H

#include "vorx_object.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vorx_environ_variable vorx_environ_variable;
struct vorx_environ_variable {
    vorx_environ_variable *next;
    char *name;
    char *value;
};

typedef struct vorx_environ_object {
    struct vorx_object head;
    vorx_environ_variable *variables; /* newest first */
    vorx_environ_variable *retired;   /* replaced values, freed with the object */
    vorx_u32_t busy;                  /* spin flag of setenv */
} vorx_environ_object;

const void *vorx_environ_t(void);
/* The process-wide environment. */
vorx_environ_object *vorx_environ(void);

/* Names must be non-null, non-empty and free of '='. Always 0. */
int vorx_environ_setenv(vorx_environ_object *env, const char *name, const char *value, int overwrite);
/* The value, or null. */
const char *vorx_environ_getenv(const vorx_environ_object *env, const char *name);

int vorx_env_setenv(const char *name, const char *value, int overwrite);
const char *vorx_env_getenv(const char *name);

#ifdef __cplusplus
}
#endif

#endif /* VORX_ENVIRON_H */
