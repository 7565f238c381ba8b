/* A 32-bit program embedding the Python interpreter: runs the Python code given as its argument. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s <python code>\n", argv[0]);
    return 2;
  }
  Py_Initialize();
  int rc = PyRun_SimpleString(argv[1]);
  if (Py_FinalizeEx() < 0) rc = 1;
  return rc == 0 ? 0 : 1;
}
