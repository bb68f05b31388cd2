"""Look through a recording in the browser: ``orb view FILE`` and
:func:`orbapi.view`.

The recording is read once into memory; a small web server on 127.0.0.1
answers the page's requests for the span it shows (see :mod:`.server`), so
that the page stays quick from the whole recording down to single samples.
The page draws with a charting library shipped inside the package: nothing
is fetched from the network.
"""
from __future__ import annotations

import argparse
import sys
import threading
import webbrowser

__all__ = ["view", "Viewer", "load", "add_command"]

EPILOG = """\
examples:
  orb view run1.orb                      opens the viewer in the browser
  orb view run1.orb --port 8050 --no-browser

The page: the recording's header; gaze x, gaze y and pupil size of each eye
with fixations, saccades and blinks shaded and messages as ticks; the trials
with their variables; the scanpath of the span shown.
Mouse: wheel zooms, drag pans, shift-drag zooms to a range, hover shows values.
Keys: left/right pan, up/down (or + and -) zoom, Home the whole recording,
n/p (or PageDown/PageUp) the next/previous trial.

Served on 127.0.0.1 only, until Ctrl-C.
"""


def load(source, *, consistency: int = 2):
    """The viewer's data of `source`: a path, the recording's bytes, or an
    :class:`orbapi.Recording` already read.  A file is read with every trial
    variable; what the library reports while reading it is kept as the
    header's damage lines.  Raises what :func:`orbapi.read` raises for a
    file it cannot read."""
    from .. import many, read
    from ..recording import Recording
    from .data import ViewData

    if isinstance(source, Recording):
        return ViewData(source)
    with many.LogCapture() as capture:
        recording = read(source, consistency=consistency, variables="all")
        damage = capture.take()
    return ViewData(recording, damage=damage)


class Viewer:
    """A running viewer (see :func:`view`): ``url``, ``stop()``, ``wait()``.
    In a notebook it shows itself inline."""

    def __init__(self, server, name: str):
        self.server = server
        self.url = server.url
        self.name = name

    def stop(self):
        """Stops the server."""
        self.server.stop()

    def wait(self):
        """Blocks until Ctrl-C, then stops the server."""
        try:
            threading.Event().wait()
        except KeyboardInterrupt:
            pass
        finally:
            self.stop()

    def _repr_html_(self):
        return (f'<iframe src="{self.url}" title="{self.name}" width="100%" height="900" '
                'style="border:1px solid #ccc"></iframe>')

    def __repr__(self):
        return f"<Viewer of {self.name} at {self.url}>"

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()


def _in_notebook() -> bool:
    shell = sys.modules.get("IPython")
    ip = shell.get_ipython() if shell is not None and hasattr(shell, "get_ipython") else None
    return ip is not None and type(ip).__name__ == "ZMQInteractiveShell"


def _interactive() -> bool:
    return hasattr(sys, "ps1") or bool(sys.flags.interactive) or _in_notebook()


def view(source, *, port: int = 0, browser: bool | None = None, block: bool | None = None,
         consistency: int = 2) -> Viewer:
    """Serves the viewer of `source` (a path, the recording's bytes or an
    :class:`orbapi.Recording`) on 127.0.0.1 and prints its address.

    `port` 0 takes a free one.  `browser` opens the page in the web browser
    (default: yes, except in a notebook, where the returned :class:`Viewer`
    shows the page inline).  `block` serves until Ctrl-C before returning
    (default: in a script yes; in an interactive session or a notebook the
    server runs in the background until ``viewer.stop()``).  `consistency`
    is that of :func:`orbapi.read` for a file.

    Raises what :func:`orbapi.read` raises for a file it cannot read, and
    OSError when the port cannot be had.

    Example::

        v = orbapi.view("run1.orb")          # in a notebook: shown inline
        v.stop()
    """
    from .server import ViewServer

    data = load(source, consistency=consistency)
    server = ViewServer(data, port)
    viewer = Viewer(server, data.info["file"])
    notebook = _in_notebook()
    print(f"Viewing {data.info['file']} at {server.url}", flush=True)
    server.start()
    if browser if browser is not None else not notebook:
        _open(server.url)
    if block if block is not None else not _interactive():
        print("Ctrl-C stops the viewer.", flush=True)
        viewer.wait()
    return viewer


def _open(url):
    """Opens `url` in the web browser, without waiting for it."""
    threading.Thread(target=webbrowser.open, args=(url,), daemon=True).start()


def add_command(sub, add_consistency):
    """Adds ``orb view`` to the subcommands `sub` of the ``orb`` parser;
    `add_consistency(parser, default)` adds the ``--consistency`` option
    that the other commands take."""
    p = sub.add_parser("view", help="look through a recording in the web browser",
                       description="Serve a page that shows a recording, from the whole of it down "
                                   "to single samples, on 127.0.0.1.",
                       epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("file", metavar="FILE", help="the recording")
    p.add_argument("--port", type=int, default=0, metavar="N",
                   help="the port to serve on (default: a free one)")
    p.add_argument("--no-browser", action="store_true", help="do not open the page in the web browser")
    add_consistency(p, 2)
    p.set_defaults(run=run_command)
    return p


def run_command(args) -> int:
    """Runs ``orb view`` with the parsed `args`: 0 once stopped by Ctrl-C,
    1 when the recording cannot be read or the port cannot be had, 2 for a
    port that is no port."""
    from .. import many
    from .server import ViewServer

    def fail(text):
        print(f"orb view: {text}", file=sys.stderr, flush=True)
        return 1

    if not 0 <= args.port <= 65535:
        print(f"orb view: --port must be 0 to 65535, not {args.port}", file=sys.stderr)
        return 2
    try:
        data = load(args.file, consistency=args.consistency)
    except Exception as e:  # noqa: BLE001 - any failure is the file's, told as the library says it
        return fail(f"{args.file}: {many.reason(e)}")
    try:
        server = ViewServer(data, args.port)
    except OSError as e:
        return fail(f"cannot serve on port {args.port}: {e.strerror or e}")
    print(f"Viewing {data.info['file']} at {server.url} (Ctrl-C stops)", flush=True)
    if not args.no_browser:
        _open(server.url)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        print("\nStopped.", flush=True)
    return 0
