#!/usr/bin/env python3
"""Starts the real program on a private X server and checks in a grab of its window that it
rendered (at least 1300 x 800, the palette's window colour, a darker top bar); then ends it,
without arguments by closing the window as a window manager would, with -moduleVM= by SIGTERM.
Both must exit with status 0. Exit 77 (skipped) without Xvfb, xwd or libX11.
usage: window_smoke_test.py PATH/TO/varkel"""

import ctypes as c
import ctypes.util
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

PALETTE_WINDOW = (0x2B, 0x2C, 0x2E)


class Failure(Exception):
    pass


class XClientMessageEvent(c.Structure):
    _fields_ = [("type", c.c_int), ("serial", c.c_ulong), ("send_event", c.c_int), ("display", c.c_void_p),
                ("window", c.c_ulong), ("message_type", c.c_ulong), ("format", c.c_int), ("data", c.c_long * 5),
                ("pad", c.c_long * 12)]  # an XEvent is 24 longs


class X11:
    """Just enough Xlib to find the program's top-level windows and close one."""
    P = c.POINTER
    SIGNATURES = {
        "XOpenDisplay": (c.c_void_p, [c.c_char_p]),
        "XDefaultRootWindow": (c.c_ulong, [c.c_void_p]),
        "XQueryTree": (c.c_int, [c.c_void_p, c.c_ulong, P(c.c_ulong), P(c.c_ulong), P(P(c.c_ulong)), P(c.c_uint)]),
        "XFetchName": (c.c_int, [c.c_void_p, c.c_ulong, P(c.c_char_p)]),
        "XFree": (c.c_int, [c.c_void_p]),
        "XInternAtom": (c.c_ulong, [c.c_void_p, c.c_char_p, c.c_int]),
        "XSendEvent": (c.c_int, [c.c_void_p, c.c_ulong, c.c_int, c.c_long, P(XClientMessageEvent)]),
        "XFlush": (c.c_int, [c.c_void_p]),
        "XSync": (c.c_int, [c.c_void_p, c.c_int]),
        "XSetErrorHandler": (c.c_void_p, [c.c_void_p]),
    }
    # int handler(Display*, XErrorEvent*)
    ERROR_HANDLER = c.CFUNCTYPE(c.c_int, c.c_void_p, c.c_void_p)

    def __init__(self, display):
        self.x = c.CDLL(ctypes.util.find_library("X11"))
        for name, (restype, argtypes) in self.SIGNATURES.items():
            getattr(self.x, name).restype, getattr(self.x, name).argtypes = restype, argtypes
        # A window can vanish between XQueryTree and XFetchName; Xlib's default handler would
        # end this process on the BadWindow that follows. Such errors only mean "gone".
        self.errors = 0

        def ignore(_display, _event):
            self.errors += 1
            return 0

        self._handler = self.ERROR_HANDLER(ignore)  # kept alive as long as Xlib may call it
        self.x.XSetErrorHandler(c.cast(self._handler, c.c_void_p))
        self.dpy = self.x.XOpenDisplay(display.encode())
        if not self.dpy:
            raise Failure("cannot open display " + display)

    def name_of(self, window):
        """The window's title, or None when it has none or no longer exists."""
        name = c.c_char_p()
        if not self.x.XFetchName(self.dpy, window, name) or name.value is None:
            return None
        title = name.value
        self.x.XFree(name)
        return title

    def windows_named(self, title):
        root, parent, children, n = c.c_ulong(), c.c_ulong(), self.P(c.c_ulong)(), c.c_uint()
        self.x.XQueryTree(self.dpy, self.x.XDefaultRootWindow(self.dpy), root, parent, children, n)
        found = []
        for w in children[:n.value]:
            if self.name_of(w) == title:
                found.append(w)
        if children:
            self.x.XFree(children)
        return found

    def request_close(self, window):
        """What a window manager sends when the user closes a window: WM_DELETE_WINDOW."""
        ev = XClientMessageEvent(type=33, window=window, format=32)  # ClientMessage
        ev.message_type = self.x.XInternAtom(self.dpy, b"WM_PROTOCOLS", 0)
        ev.data[0] = self.x.XInternAtom(self.dpy, b"WM_DELETE_WINDOW", 0)
        self.x.XSendEvent(self.dpy, window, 0, 0, ev)
        self.x.XFlush(self.dpy)


def grab(display, window):
    """(width, height, pixel(x, y) -> (r, g, b)) of the window's contents, through xwd."""
    data = subprocess.run(["xwd", "-silent", "-id", str(window)], env=dict(os.environ, DISPLAY=display),
                          check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60).stdout
    f = struct.unpack(">25I", data[:100])
    (header_size, _, pixmap_format, _, width, height), byte_order, bpp, line = f[:6], f[7], f[11], f[12]
    if pixmap_format != 2 or bpp not in (24, 32):
        raise Failure("unexpected xwd format %d / %d bpp" % (pixmap_format, bpp))
    pixels = data[header_size + 12 * f[19]:]

    def pixel(x, y):
        at = y * line + bpp // 8 * x
        v = int.from_bytes(pixels[at:at + bpp // 8], "little" if byte_order == 0 else "big")
        return tuple((v & m) >> ((m & -m).bit_length() - 1) for m in f[14:17])

    return width, height, pixel


def rendering_fault(width, height, pixel):
    """None when the grab shows the finished window, else what is wrong with it."""
    near = lambda colour, tolerance=2: all(abs(a - b) <= tolerance for a, b in zip(colour, PALETTE_WINDOW))  # noqa
    if width < 1300 or height < 800:
        return "window is %dx%d, below 1300x800" % (width, height)
    frame, page, bar = pixel(4, height // 2), pixel(width - 40, height // 2), pixel(width // 2, 30)
    if not near(frame):  # the widget window around the view, painted with the palette
        return "frame colour %s is not the palette's window colour #2B2C2E" % (frame,)
    if not near(page):  # the right of a page is left free (its rows take 60 %)
        return "page colour %s: the QML page did not render" % (page,)
    if near(bar, 6):  # the top bar is darker: something was drawn, not just cleared
        return "top bar colour %s equals the page colour: nothing drawn" % (bar,)
    return None


def run_once(x, program, display, home, args, end_by):
    env = {k: v for k, v in os.environ.items() if k not in ("QT_QPA_PLATFORM", "QT_SCALE_FACTOR")}  # X, own scale
    env.update(DISPLAY=display, HOME=home, XDG_CONFIG_HOME=home + "/.config", XDG_RUNTIME_DIR=home + "/run")
    # Under AddressSanitizer: Qt's X11 plugin hands on strndup() buffers without a NUL (legal), and the
    # X11/OpenGL stack leaves blocks at exit whose stacks point into unloaded plugins (offscreen tests check leaks).
    env["ASAN_OPTIONS"] = (env.get("ASAN_OPTIONS", "") + ":strict_string_checks=0:detect_leaks=0").lstrip(":")
    supp = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tsan.supp")
    env["TSAN_OPTIONS"] = (env.get("TSAN_OPTIONS", "") + ":suppressions=" + supp).lstrip(":")
    log_path = os.path.join(home, "varkel-%s.log" % end_by)
    with open(log_path, "w") as log:
        proc = subprocess.Popen([program] + args, env=env, stdout=log, stderr=subprocess.STDOUT)
    try:
        # Grab until right: the window may be unmapped or still drawing (sanitizer builds start slowly).
        fault, window, deadline = "no window titled Varkel appeared", None, time.monotonic() + 60
        while window is None and time.monotonic() < deadline and proc.poll() is None:
            for w in x.windows_named(b"Varkel"):
                try:
                    fault = rendering_fault(*grab(display, w))
                except subprocess.CalledProcessError:
                    continue  # not viewable (yet)
                if fault is None:
                    window = w
                    break
            else:
                time.sleep(0.5)
        if window is None:
            raise Failure("%s (exit status %s)" % (fault, proc.poll()))
        if end_by == "close":
            x.request_close(window)
        else:
            proc.send_signal(signal.SIGTERM)
        if proc.wait(timeout=30) != 0:
            raise Failure("exit status %d after %s" % (proc.returncode, end_by))
        with open(log_path) as log:
            text = log.read()
            if "[Varkel] applicationDirPath:" not in text:
                raise Failure("start-up log line missing")
            if "must be a top level window" in text:  # a warning at every start teaches users to ignore warnings
                raise Failure("start-up printed the transient-parent warning")
    except Exception as f:  # any failure, also of xwd or of the X connection
        with open(log_path) as log:
            sys.stderr.write(log.read()[-4000:])
        raise Failure("%s %s: %s" % (os.path.basename(program), " ".join(args), f))
    finally:
        if proc.poll() is None:  # never leave the program behind
            proc.kill()
            proc.wait()
    print("ok: %s %s, ended by %s" % (os.path.basename(program), " ".join(args), end_by))


def main():
    if shutil.which("Xvfb") is None or shutil.which("xwd") is None or ctypes.util.find_library("X11") is None:
        print("skipped: Xvfb, xwd or libX11 missing")
        return 77
    read_fd, write_fd = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_fd), "-screen", "0", "1920x1080x24", "-nolisten", "tcp"],
                            pass_fds=(write_fd,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_fd)
    home = tempfile.mkdtemp(prefix="varkel-smoke-")
    os.makedirs(os.path.join(home, "run"), mode=0o700)
    try:
        with os.fdopen(read_fd) as displayfd:  # Xvfb writes its display number when ready
            display = ":" + displayfd.readline().strip()
        x, program = X11(display), os.path.abspath(sys.argv[1])
        # A window that is gone by the time its name is asked for: no title, no exit.
        if x.name_of(0x7FFFFFF) is not None or x.errors == 0:
            raise Failure("asking for a vanished window's name did not end in an ignored X error")
        run_once(x, program, display, home, [], "close")
        run_once(x, program, display, home, ["-moduleVM=Quenta"], "terminate")
    except Failure as f:
        print("FAILED: %s" % f)
        return 1
    finally:
        xvfb.terminate()
        xvfb.wait(timeout=10)
        shutil.rmtree(home, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
