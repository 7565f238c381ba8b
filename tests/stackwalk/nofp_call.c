/* Built without frame pointers and without unwind tables (see CMakeLists.txt). */
unsigned nofp_call(unsigned (*work)(unsigned), unsigned n) {
    volatile unsigned sum = 0;
    for (unsigned i = 0; i < n; ++i) sum += work(i);
    return sum;
}
