"""The viewer's web server: the page's own files and the data answers,
on 127.0.0.1 only.

The page's files are read into memory when the server is made; a request
never opens a file, so no path can reach one.  Every answer is computed from
the recording held by a :class:`~orbapi.view.data.ViewData`.

    GET /                                       the page
    GET /static/NAME                            its scripts and styles
    GET /api/page                               header, trials, extent
    GET /api/samples?start=MS&end=MS&columns=N  time series for N pixel columns
    GET /api/events?start=MS&end=MS&columns=N   shaded events and message ticks
    GET /api/scanpath?start=MS&end=MS           fixations and saccades

A request it cannot answer gets a 4xx status and a JSON ``{"error": ...}``
that says why: an unknown path (404), a method other than GET (405), a
malformed or missing parameter (400), a span outside the recording (416),
a Host other than this server's own address (403).
"""
from __future__ import annotations

import json
import threading
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from importlib import resources
from urllib.parse import parse_qs, urlsplit

from .data import RequestError, ViewData

HOST = "127.0.0.1"

_TYPES = {".html": "text/html; charset=utf-8", ".js": "text/javascript; charset=utf-8",
          ".css": "text/css; charset=utf-8"}
_ASSETS = ("index.html", "viewer.js", "viewer.css", "uPlot.iife.min.js", "uPlot.min.css")


def _assets() -> dict[str, tuple[bytes, str]]:
    """URL path -> (body, content type) of each of the page's files."""
    root = resources.files(__package__) / "static"
    out = {}
    for name in _ASSETS:
        body = (root / name).read_bytes()
        kind = _TYPES[name[name.rindex("."):]]
        out["/static/" + name] = (body, kind)
    out["/"] = out.pop("/static/index.html")
    return out


def _number(query, name, kind):
    text = query[name]
    try:
        value = kind(text)
    except ValueError:
        raise RequestError(400, f"{name} must be a {'whole ' if kind is int else ''}number, not {text!r}")
    return value


_ROUTES = {
    "/api/page": ((), lambda d, q: d.page()),
    "/api/samples": (("start", "end", "columns"),
                     lambda d, q: d.samples(_number(q, "start", float), _number(q, "end", float),
                                            _number(q, "columns", int))),
    "/api/events": (("start", "end", "columns"),
                    lambda d, q: d.events_in(_number(q, "start", float), _number(q, "end", float),
                                             _number(q, "columns", int))),
    "/api/scanpath": (("start", "end"),
                      lambda d, q: d.scanpath(_number(q, "start", float), _number(q, "end", float))),
}


def _query(text: str, names) -> dict[str, str]:
    """The parameters of a query, each given once, none unknown, none missing."""
    try:
        pairs = parse_qs(text, keep_blank_values=True, strict_parsing=bool(text))
    except ValueError:
        raise RequestError(400, f"malformed query {text!r}")
    unknown = sorted(set(pairs) - set(names))
    if unknown:
        known = ", ".join(names) or "none"
        raise RequestError(400, f"unknown parameter {', '.join(unknown)} (the parameters are: {known})")
    missing = [n for n in names if n not in pairs]
    if missing:
        raise RequestError(400, f"missing parameter {', '.join(missing)}")
    repeated = [n for n, v in pairs.items() if len(v) > 1]
    if repeated:
        raise RequestError(400, f"parameter {', '.join(repeated)} given more than once")
    return {n: v[0] for n, v in pairs.items()}


class _Handler(BaseHTTPRequestHandler):
    server: "_Server"
    server_version = "orb-view"
    sys_version = ""

    def log_message(self, format, *args):  # noqa: A002 - the base class's name
        pass  # requests are not logged: the terminal shows only the address

    def _send(self, status, body: bytes, kind: str, cache: bool = False):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.send_header("Cache-Control", "max-age=3600" if cache else "no-store")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def _json(self, status, obj):
        self._send(status, json.dumps(obj, separators=(",", ":"), allow_nan=False).encode(),
                   "application/json")

    def _error(self, status, text):
        self._json(status, {"error": text})

    def do_GET(self):  # noqa: N802 - the base class's name
        try:
            self._answer()
        except RequestError as e:
            self._error(e.status, str(e))
        except Exception as e:  # noqa: BLE001 - told to the page, the server goes on
            self._error(500, f"the viewer failed to answer {self.path[:200]!r}: {type(e).__name__}: {e}")

    do_HEAD = do_GET  # noqa: N815

    def _refuse(self):
        self._error(HTTPStatus.METHOD_NOT_ALLOWED, f"{self.command} is not served here: only GET")

    do_POST = do_PUT = do_DELETE = do_PATCH = do_OPTIONS = _refuse  # noqa: N815

    def _answer(self):
        host = self.headers.get("Host", "")
        if host not in self.server.hosts:
            raise RequestError(403, f"this server answers only requests for {self.server.hosts[0]}")
        url = urlsplit(self.path)
        if url.path == "/favicon.ico":  # browsers ask; the page has none
            self.send_response(204)
            self.end_headers()
            return
        asset = self.server.assets.get(url.path)
        if asset is not None and not url.query:
            self._send(200, asset[0], asset[1], cache=url.path != "/")
            return
        route = _ROUTES.get(url.path)
        if route is None:
            raise RequestError(404, f"nothing at {url.path[:200]!r}")
        names, answer = route
        self._json(200, answer(self.server.data, _query(url.query, names)))


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    data: ViewData
    assets: dict
    hosts: list

    def handle_error(self, request, client_address):
        pass  # a client that went away mid-answer is no concern of the server's


class ViewServer:
    """Serves the viewer of `data` on 127.0.0.1, on `port` (0: a free one).

    Example::

        server = ViewServer(ViewData(orbapi.read("run1.orb")))
        server.start()            # in a thread; or serve_forever() here
        print(server.url)
        server.stop()
    """

    def __init__(self, data: ViewData, port: int = 0):
        self._httpd = _Server((HOST, port), _Handler)
        self._httpd.data = data
        self._httpd.assets = _assets()
        self.port = self._httpd.server_address[1]
        self._httpd.hosts = [f"{HOST}:{self.port}", f"localhost:{self.port}"]
        self.url = f"http://{HOST}:{self.port}/"
        self._thread = None

    def serve_forever(self):
        """Answers requests until :meth:`stop` (from another thread) or
        KeyboardInterrupt, which it lets through."""
        try:
            self._httpd.serve_forever(poll_interval=0.2)
        finally:
            self._httpd.server_close()

    def start(self):
        """Answers requests in a thread of its own."""
        self._thread = threading.Thread(target=self.serve_forever, name="orb-view", daemon=True)
        self._thread.start()

    def stop(self):
        """Stops answering and closes the socket."""
        if self._thread is not None:
            self._httpd.shutdown()
            self._thread.join()
            self._thread = None
        else:
            self._httpd.server_close()
