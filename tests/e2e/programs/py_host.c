/* A 32-bit program that is the `python3` command: the embedded interpreter's own command line, so that
 * `py_host -m unittest -v test.test_signal` runs like `python3 -m unittest -v test.test_signal`. Py_RunMain
 * parses the options, sets sys.argv and sys.executable (children that the tests start run this program
 * again), installs the interpreter's signal handlers and turns SystemExit and an uncaught KeyboardInterrupt
 * into the exit status or the signal death that the real command gives.
 *
 * One difference from the stock command: Python's own test modules are not installed beside the i386 stdlib
 * but unpacked elsewhere (scripts/setup.sh), so the directory PY_HOST_TESTS_DIR, when it exists, goes on
 * sys.path ahead of the stdlib, as if they were installed. It has to be done here rather than through
 * PYTHONPATH: the tests start children in isolated mode (-I), which ignores the environment. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <unistd.h>

static void exit_on_error(PyStatus status, PyConfig* config) {
  if (!PyStatus_Exception(status)) return;
  PyConfig_Clear(config);
  if (PyStatus_IsExit(status)) exit(status.exitcode);
  Py_ExitStatusException(status);
}

int main(int argc, char** argv) {
  PyConfig config;
  PyConfig_InitPythonConfig(&config);
  exit_on_error(PyConfig_SetBytesArgv(&config, argc, argv), &config);
  exit_on_error(Py_InitializeFromConfig(&config), &config);
  PyConfig_Clear(&config);
#ifdef PY_HOST_TESTS_DIR
  if (access(PY_HOST_TESTS_DIR "/test/__init__.py", R_OK) == 0) {
    /* Py_RunMain puts the script's directory (or the current one) at sys.path[0] afterwards, as usual. */
    PyObject* path = PySys_GetObject("path");
    PyObject* dir = PyUnicode_DecodeFSDefault(PY_HOST_TESTS_DIR);
    if (!path || !dir || PyList_Insert(path, 0, dir) < 0) {
      PyErr_Print();
      return 1;
    }
    Py_DECREF(dir);
  }
#endif
  return Py_RunMain();
}
