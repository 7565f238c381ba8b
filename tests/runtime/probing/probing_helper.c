/* Stands in for a helper library of the collector that the prober remembers by
 * name: loaded and unloaded by the test program. */
int probing_helper_function(int x) { return x + 7; }
