"""Prints the program's view of its signal state through the C library, the way a program asks for it:
the disposition of every signal (default, ignored or a handler, with flags), the blocked and pending sets and
the alternate stack, on the main thread and on a new thread, before and after a child process is started
(the interpreter starts it with vfork, and the child resets its handlers before exec). Run natively and
under the collector, the two outputs must be equal."""
import ctypes
import signal
import subprocess
import sys
import threading

libc = ctypes.CDLL(None, use_errno=True)
SIG_DFL, SIG_IGN = 0, 1
# glibc keeps these for itself and refuses sigaction on them
INTERNAL = {32, 33}


class SigAction(ctypes.Structure):
    # i386 glibc's struct sigaction: handler, mask (1024 bits), flags, restorer
    _fields_ = [("handler", ctypes.c_void_p), ("mask", ctypes.c_uint32 * 32), ("flags", ctypes.c_int),
                ("restorer", ctypes.c_void_p)]


class StackT(ctypes.Structure):
    _fields_ = [("sp", ctypes.c_void_p), ("flags", ctypes.c_int), ("size", ctypes.c_size_t)]


def dispositions():
    out = []
    for signo in range(1, signal.NSIG):
        if signo in INTERNAL or signo in (signal.SIGKILL, signal.SIGSTOP):
            continue
        action = SigAction()
        if libc.sigaction(signo, None, ctypes.byref(action)) != 0:
            out.append("%d:error%d" % (signo, ctypes.get_errno()))
            continue
        handler = action.handler or 0
        kind = {SIG_DFL: "dfl", SIG_IGN: "ign"}.get(handler, "handler")
        if kind != "dfl":
            out.append("%d:%s/%#x" % (signo, kind, action.flags & ~0x04000000))  # SA_RESTORER is glibc's
    return " ".join(out)


def alternate_stack():
    old = StackT()
    libc.sigaltstack(None, ctypes.byref(old))
    return "disabled" if old.flags & 2 else "size %#x flags %d" % (old.size, old.flags)


def show(where):
    blocked = sorted(int(s) for s in signal.pthread_sigmask(signal.SIG_BLOCK, []))
    print("%s: blocked %s pending %s altstack %s" % (where, blocked, sorted(int(s) for s in signal.sigpending()),
                                                   alternate_stack()))
    print("%s: handled %s" % (where, dispositions()), flush=True)


def on_thread(where):
    t = threading.Thread(target=show, args=(where,))
    t.start()
    t.join()


signal.signal(signal.SIGUSR1, lambda *a: None)
signal.signal(signal.SIGHUP, signal.SIG_IGN)
signal.siginterrupt(signal.SIGUSR1, False)
show("main at start")
on_thread("thread at start")
subprocess.run([sys.executable, "-c", "pass"], check=True)
show("main after a child")
on_thread("thread after a child")
