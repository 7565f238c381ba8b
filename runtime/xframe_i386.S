/* Protected frames: a context saved on entry to a region that reads memory it does not own, and
 * resumed from a fault's handler. Only the callee-saved registers, the stack pointer and the return
 * address are kept: the region is left as if its save had returned a second time. */
	.text
	.globl	vorx_xframe_save_context
	.type	vorx_xframe_save_context, @function
vorx_xframe_save_context:
	movl	4(%esp), %eax
	movl	%ebx, 0(%eax)
	movl	%esi, 4(%eax)
	movl	%edi, 8(%eax)
	movl	%ebp, 12(%eax)
	leal	4(%esp), %ecx		/* the stack pointer after the return */
	movl	%ecx, 16(%eax)
	movl	(%esp), %ecx		/* the return address */
	movl	%ecx, 20(%eax)
	xorl	%eax, %eax
	ret
	.size	vorx_xframe_save_context, .-vorx_xframe_save_context

	.globl	vorx_xframe_restore_context
	.type	vorx_xframe_restore_context, @function
vorx_xframe_restore_context:
	movl	4(%esp), %edx
	movl	8(%esp), %eax
	testl	%eax, %eax
	jnz	1f
	movl	$1, %eax		/* a save never returns 0 the second time */
1:	movl	0(%edx), %ebx
	movl	4(%edx), %esi
	movl	8(%edx), %edi
	movl	12(%edx), %ebp
	movl	16(%edx), %esp
	jmp	*20(%edx)
	.size	vorx_xframe_restore_context, .-vorx_xframe_restore_context
	.section .note.GNU-stack,"",@progbits
