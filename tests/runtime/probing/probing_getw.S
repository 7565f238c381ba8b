/* getw of the test program: three bytes, too short for a probe. The prober must
 * report it (message 67) and leave the row callable, and, as the executable
 * exports it, keep it as the default over libc's. */
        .text
        .globl getw
        .type getw, @function
getw:
        xorl %eax, %eax
        ret
        .size getw, .-getw
        .section .note.GNU-stack,"",@progbits
