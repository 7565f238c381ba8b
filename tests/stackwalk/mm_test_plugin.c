/* A library that the module-map tests load and unload while other threads look up addresses. */
int vorx_mm_plugin_value(int x) { return x * 3 + 1; }
int vorx_mm_plugin_other(int x) { return x ^ 0x5a5a; }
