#!/usr/bin/env python3
"""Starts the real program on a private X server, grabs its window and checks that it
rendered (at least 1300 x 800, the palette's window colour, the dark QML page), then
ends it: once by closing the window as a window manager would, once by SIGTERM. Both
must end with exit status 0.

usage: window_smoke_test.py PATH/TO/varkel
Exit 77 (skipped) when Xvfb or libX11 is not available.
"""

import ctypes
import ctypes.util
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

SKIP = 77
WINDOW_TITLE = b"Varkel"
PALETTE_WINDOW = (0x2B, 0x2C, 0x2E)
MIN_SIZE = (1300, 800)
START_TIMEOUT = 60.0   # a sanitizer build on a loaded machine starts slowly
EXIT_TIMEOUT = 30.0


class Failure(Exception):
    pass


# ---- a little Xlib through ctypes: find, measure and close a top-level window ----------

class XWindowAttributes(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int), ("y", ctypes.c_int), ("width", ctypes.c_int), ("height", ctypes.c_int),
                ("border_width", ctypes.c_int), ("depth", ctypes.c_int), ("visual", ctypes.c_void_p),
                ("root", ctypes.c_ulong), ("c_class", ctypes.c_int), ("bit_gravity", ctypes.c_int),
                ("win_gravity", ctypes.c_int), ("backing_store", ctypes.c_int),
                ("backing_planes", ctypes.c_ulong), ("backing_pixel", ctypes.c_ulong),
                ("save_under", ctypes.c_int), ("colormap", ctypes.c_ulong), ("map_installed", ctypes.c_int),
                ("map_state", ctypes.c_int), ("all_event_masks", ctypes.c_long),
                ("your_event_mask", ctypes.c_long), ("do_not_propagate_mask", ctypes.c_long),
                ("override_redirect", ctypes.c_int), ("screen", ctypes.c_void_p)]


class XClientMessageEvent(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                ("format", ctypes.c_int), ("data", ctypes.c_long * 5)]


class XEvent(ctypes.Union):
    _fields_ = [("xclient", XClientMessageEvent), ("pad", ctypes.c_long * 24)]


IS_VIEWABLE = 2
CLIENT_MESSAGE = 33


class X11:
    def __init__(self, display_name):
        path = ctypes.util.find_library("X11")
        if not path:
            raise FileNotFoundError("libX11")
        x = ctypes.CDLL(path)
        x.XOpenDisplay.restype = ctypes.c_void_p
        x.XOpenDisplay.argtypes = [ctypes.c_char_p]
        x.XDefaultRootWindow.restype = ctypes.c_ulong
        x.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
        x.XQueryTree.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.POINTER(ctypes.c_ulong),
                                 ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.POINTER(ctypes.c_ulong)),
                                 ctypes.POINTER(ctypes.c_uint)]
        x.XFetchName.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.POINTER(ctypes.c_char_p)]
        x.XFree.argtypes = [ctypes.c_void_p]
        x.XGetWindowAttributes.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.POINTER(XWindowAttributes)]
        x.XInternAtom.restype = ctypes.c_ulong
        x.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
        x.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long,
                                 ctypes.POINTER(XEvent)]
        x.XFlush.argtypes = [ctypes.c_void_p]
        x.XCloseDisplay.argtypes = [ctypes.c_void_p]
        self.x = x
        self.dpy = x.XOpenDisplay(display_name.encode())
        if not self.dpy:
            raise Failure("cannot open display %s" % display_name)

    def close(self):
        self.x.XCloseDisplay(self.dpy)

    def top_level_named(self, title):
        """The viewable child of the root window whose name is `title`, or None."""
        root = self.x.XDefaultRootWindow(self.dpy)
        r, p = ctypes.c_ulong(), ctypes.c_ulong()
        children = ctypes.POINTER(ctypes.c_ulong)()
        n = ctypes.c_uint()
        if not self.x.XQueryTree(self.dpy, root, ctypes.byref(r), ctypes.byref(p), ctypes.byref(children),
                                 ctypes.byref(n)):
            return None
        found = None
        for i in range(n.value):
            w = children[i]
            name = ctypes.c_char_p()
            if self.x.XFetchName(self.dpy, w, ctypes.byref(name)) and name.value is not None:
                matches = name.value == title
                self.x.XFree(name)
                if matches and self.attributes(w).map_state == IS_VIEWABLE:
                    found = w
        if children:
            self.x.XFree(children)
        return found

    def attributes(self, window):
        a = XWindowAttributes()
        self.x.XGetWindowAttributes(self.dpy, window, ctypes.byref(a))
        return a

    def request_close(self, window):
        """What a window manager sends when the user closes a window: WM_DELETE_WINDOW."""
        ev = XEvent()
        ev.xclient.type = CLIENT_MESSAGE
        ev.xclient.window = window
        ev.xclient.message_type = self.x.XInternAtom(self.dpy, b"WM_PROTOCOLS", 0)
        ev.xclient.format = 32
        ev.xclient.data[0] = self.x.XInternAtom(self.dpy, b"WM_DELETE_WINDOW", 0)
        ev.xclient.data[1] = 0  # CurrentTime
        self.x.XSendEvent(self.dpy, window, 0, 0, ctypes.byref(ev))
        self.x.XFlush(self.dpy)


# ---- the window's picture ---------------------------------------------------------------

def grab(display, window):
    """(width, height, pixel(x, y) -> (r, g, b)) of the window's contents, through xwd."""
    data = subprocess.run(["xwd", "-silent", "-id", str(window)], env=dict(os.environ, DISPLAY=display),
                          check=True, stdout=subprocess.PIPE, timeout=60).stdout
    fields = struct.unpack(">25I", data[:100])
    header_size, _, pixmap_format, _, width, height = fields[:6]
    byte_order, bits_per_pixel, bytes_per_line = fields[7], fields[11], fields[12]
    red_mask, green_mask, blue_mask, ncolors = fields[14], fields[15], fields[16], fields[19]
    if pixmap_format != 2 or bits_per_pixel not in (24, 32):
        raise Failure("unexpected xwd format %d / %d bpp" % (pixmap_format, bits_per_pixel))
    pixels = data[header_size + 12 * ncolors:]
    order = "little" if byte_order == 0 else "big"
    step = bits_per_pixel // 8

    def channel(value, mask):
        shift = (mask & -mask).bit_length() - 1
        return (value & mask) >> shift

    def pixel(x, y):
        at = y * bytes_per_line + step * x
        v = int.from_bytes(pixels[at:at + step], order)
        return channel(v, red_mask), channel(v, green_mask), channel(v, blue_mask)

    return width, height, pixel


def near(c, want, tolerance=2):
    return all(abs(a - b) <= tolerance for a, b in zip(c, want))


# ---- one run of the program -------------------------------------------------------------

def start_xvfb():
    read_fd, write_fd = os.pipe()
    xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_fd), "-screen", "0", "1920x1080x24", "-nolisten", "tcp"],
                            pass_fds=(write_fd,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_fd)
    number = b""
    deadline = time.monotonic() + 30
    while not number.endswith(b"\n") and time.monotonic() < deadline:
        chunk = os.read(read_fd, 16)
        if not chunk:
            break
        number += chunk
    os.close(read_fd)
    if not number.strip():
        xvfb.kill()
        raise Failure("Xvfb did not report its display")
    return xvfb, ":" + number.decode().strip()


def run_once(program, display, home, args, end_by):
    env = dict(os.environ, DISPLAY=display, HOME=home, XDG_CONFIG_HOME=os.path.join(home, ".config"),
               XDG_RUNTIME_DIR=os.path.join(home, "run"))
    env.pop("QT_QPA_PLATFORM", None)  # drawn on the X server, not offscreen
    # Under AddressSanitizer: Qt's X11 plugin hands strndup() buffers that are not
    # NUL-terminated (legal for strndup), which strict string checks would stop at; and
    # the X11/OpenGL/D-Bus stack leaves blocks at exit whose stacks point into unloaded
    # plugins, so they cannot be told apart by library. Leaks of the window and the
    # controller are checked by the offscreen tests (app_mainwindow_tests); here the
    # sanitizer still stops at any invalid access.
    if env.get("ASAN_OPTIONS"):
        env["ASAN_OPTIONS"] += ":strict_string_checks=0:detect_leaks=0"
    # Under ThreadSanitizer: the uninstrumented Qt and X11 libraries' own locking.
    supp = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tsan.supp")
    env["TSAN_OPTIONS"] = (env.get("TSAN_OPTIONS", "") + ":suppressions=" + supp).lstrip(":")
    env.pop("QT_SCALE_FACTOR", None)
    log_path = os.path.join(home, "varkel-%s.log" % end_by)
    with open(log_path, "w") as log:
        proc = subprocess.Popen([program] + args, env=env, stdout=log, stderr=subprocess.STDOUT)
    x = X11(display)
    try:
        window = None
        deadline = time.monotonic() + START_TIMEOUT
        while window is None and time.monotonic() < deadline and proc.poll() is None:
            window = x.top_level_named(WINDOW_TITLE)
            if window is None:
                time.sleep(0.2)
        if window is None:
            raise Failure("no window titled Varkel appeared (exit status %s)" % proc.poll())

        # The first frames may still be on their way; wait for the QML page's colour.
        width = height = 0
        pixel = None
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            try:
                width, height, pixel = grab(display, window)
            except subprocess.CalledProcessError:
                time.sleep(0.5)  # the window may still be on its way to the screen
                continue
            if (width >= MIN_SIZE[0] and height >= MIN_SIZE[1] and near(pixel(4, height // 2), PALETTE_WINDOW)
                    and near(pixel(width - 40, height // 2), PALETTE_WINDOW)):
                break
            time.sleep(0.5)
        if width < MIN_SIZE[0] or height < MIN_SIZE[1]:
            raise Failure("window is %dx%d, below %dx%d" % (width, height, MIN_SIZE[0], MIN_SIZE[1]))
        # The frame around the view is the widget window painted with the palette.
        frame = pixel(4, height // 2)
        if not near(frame, PALETTE_WINDOW):
            raise Failure("frame colour %s is not the palette's window colour #2B2C2E" % (frame,))
        # The right of a page is left free (its rows take 60 % of the width).
        page = pixel(width - 40, height // 2)
        if not near(page, PALETTE_WINDOW):
            raise Failure("page colour %s: the QML page did not render" % (page,))
        # The top bar is darker than the page: something was drawn, not just cleared.
        bar = pixel(width // 2, 30)
        if near(bar, PALETTE_WINDOW, 6):
            raise Failure("top bar colour %s equals the page colour: nothing drawn" % (bar,))

        if end_by == "close":
            x.request_close(window)
        else:
            proc.send_signal(signal.SIGTERM)
        try:
            status = proc.wait(timeout=EXIT_TIMEOUT)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
            raise Failure("did not exit within %.0f s of being %s" % (EXIT_TIMEOUT, end_by + "d"))
        if status != 0:
            raise Failure("exit status %d after %s" % (status, end_by))
    except Exception as f:  # any failure, also of xwd or of the X connection
        with open(log_path) as log:
            sys.stderr.write(log.read()[-4000:])
        raise Failure("%s %s: %s" % (os.path.basename(program), " ".join(args), f))
    finally:
        # Never leave the program behind, whatever went wrong.
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        x.close()

    with open(log_path) as log:
        text = log.read()
    if "[Varkel] applicationDirPath:" not in text:
        sys.stderr.write(text[-4000:])
        raise Failure("start-up log line missing")
    print("ok: %s %s: %dx%d, frame %s, page %s, ended by %s" %
          (os.path.basename(program), " ".join(args), width, height, frame, page, end_by))


def main():
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    program = os.path.abspath(sys.argv[1])
    if shutil.which("Xvfb") is None or shutil.which("xwd") is None or ctypes.util.find_library("X11") is None:
        print("skipped: Xvfb, xwd or libX11 missing")
        return SKIP
    xvfb, display = start_xvfb()
    home = tempfile.mkdtemp(prefix="varkel-smoke-")
    os.makedirs(os.path.join(home, "run"), mode=0o700)
    try:
        run_once(program, display, home, [], "close")
        run_once(program, display, home, ["-moduleVM=Quenta"], "terminate")
    except Failure as f:
        print("FAILED: %s" % f)
        return 1
    finally:
        xvfb.terminate()
        try:
            xvfb.wait(timeout=10)
        except subprocess.TimeoutExpired:
            xvfb.kill()
            xvfb.wait()
        shutil.rmtree(home, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
