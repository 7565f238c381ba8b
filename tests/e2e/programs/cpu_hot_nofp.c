/* Built without frame pointers and without unwind tables: the walker has to find its way out of here by
 * looking at the stack itself. */
unsigned nofp_spin(unsigned (*work)(unsigned), unsigned n) {
    unsigned sum = 0;
    for (unsigned i = 0; i < n; ++i) sum += work(i);
    return sum;
}
