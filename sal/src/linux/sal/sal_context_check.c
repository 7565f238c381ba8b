/* Compile-time checks of the ucontext_t layout that sal_machine_i386.S uses,
 * and the portable forms of its helpers for other hosts. */
#include <stddef.h>
#include <ucontext.h>

#include "sal.h"

#if defined(__i386__)
_Static_assert(offsetof(ucontext_t, uc_mcontext.gregs) == 20, "gregs offset");
_Static_assert(REG_FS == 1 && REG_EDI == 4 && REG_ESI == 5 && REG_EBP == 6 && REG_ESP == 7 &&
                   REG_EBX == 8 && REG_EDX == 9 && REG_ECX == 10 && REG_EIP == 14,
               "gregs slots");
#else
__attribute__((noinline)) void *sal_get_sp(void)
{
    return (char *)__builtin_frame_address(0) + 2 * sizeof(void *);
}

__attribute__((noinline)) void sal_get_context(void *ucontext)
{
    ucontext_t *context = ucontext;
    getcontext(context);
}
#endif
