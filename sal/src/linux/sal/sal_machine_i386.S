/* Register-level helpers of the system layer (32-bit x86).
 *
 * Offsets into ucontext_t: uc_mcontext.gregs starts at byte 20; slot indices
 * follow <sys/ucontext.h> (REG_FS 1, REG_EDI 4, REG_ESI 5, REG_EBP 6,
 * REG_ESP 7, REG_EBX 8, REG_EDX 9, REG_ECX 10, REG_EIP 14). sal_context_check.c
 * verifies them at compile time. */

#define GREG(n) (20 + 4 * (n))

        .text

/* void *sal_get_sp(void): the caller's stack pointer once this returns. */
        .globl  sal_get_sp
        .type   sal_get_sp, @function
sal_get_sp:
        leal    4(%esp), %eax
        ret
        .size   sal_get_sp, .-sal_get_sp

/* void sal_get_context(void *ucontext): the caller's registers as they are
 * at the call, its return address as EIP, the stack pointer at return as
 * ESP. EAX is used to hold the pointer and is not stored. */
        .globl  sal_get_context
        .type   sal_get_context, @function
sal_get_context:
        movl    4(%esp), %eax
        movl    %ebx, GREG(8)(%eax)
        movl    %ecx, GREG(10)(%eax)
        movl    %edx, GREG(9)(%eax)
        movl    %ebp, GREG(6)(%eax)
        movl    %edi, GREG(4)(%eax)
        movl    %esi, GREG(5)(%eax)
        movl    $0, GREG(1)(%eax)
        movw    %fs, GREG(1)(%eax)
        movl    (%esp), %ecx
        movl    %ecx, GREG(14)(%eax)
        leal    4(%esp), %ecx
        movl    %ecx, GREG(7)(%eax)
        movl    GREG(10)(%eax), %ecx
        ret
        .size   sal_get_context, .-sal_get_context

        .section .note.GNU-stack, "", @progbits
