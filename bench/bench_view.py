#!/usr/bin/env python3
"""Times the viewer's data requests on the synthetic 60-minute binocular
1000 Hz recording (the one bench/bench_python.py reads, from the same
generator), for the whole hour, a one-minute span and a one-second span,
beside reading the same window from a handle opened once.

    python bench/bench_view.py [--seconds 3600] [--repeat 7] [--columns 1200]

Each span is asked of a running server, over HTTP, as the page asks when
the view changes: its samples and its events for `columns` pixel columns,
and its scanpath.  The figure is the wall time of the three requests one
after the other, best of `repeat` and median, beside:

  - reading the window from an open handle: ``orbapi.read`` of the handle
    with start and end where the package offers it; otherwise the cursor
    of ``orbapi.open`` jumped to the trial holding `start` and stepped
    through the window, and for
    the whole hour the whole read (the cursor seeks only to trials);
  - the answer alone, without HTTP and JSON (the data computed in process).

With --browser (needs selenium, Debian's chromium and chromedriver) the
page itself is driven in headless Chromium through a round of interactions
(zoom, pan, a trial, the whole), each timed in the page from the action to
the view redrawn at once (with what the page holds) and to the view drawn
from the new answer (which waits 30 ms for the view to stop moving).

Needs the package installed and g++ with zlib for the generator.  Target:
every interaction answered within 100 ms after the first load.
"""
from __future__ import annotations

import argparse
import http.client
import inspect
import os
import statistics
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_python import generate  # noqa: E402

TARGET_MS = 100.0


def timed(repeat, fn):
    times = []
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return min(times) * 1e3, statistics.median(times) * 1e3


def handle_window(path, handle, start, end, whole):
    """Reads start..end ms from the open `handle` the quickest way the
    package offers; returns a function that does it and what it does."""
    import orbapi

    if "start" in inspect.signature(orbapi.read).parameters:
        return (lambda: orbapi.read(handle, start=start, end=end)), "orbapi.read(handle, start=, end=)"
    if whole:
        return (lambda: orbapi.read(path)), "orbapi.read(path), the whole recording"

    # The cursor seeks only to trials: jump to the last trial that starts
    # at or before `start`, step to `start`, then read on to `end`.
    trials = orbapi.read(path, samples=False).trials
    k = max(0, int((trials.start_time <= start).sum()) - 1)

    def walk():
        handle.jump_to_trial(k)
        item, n = handle.next(), 0
        while item is not None and item.time < start:
            item = handle.next()
        while item is not None and item.time <= end:
            n += 1
            item = handle.next()
        return n
    return walk, "cursor: jump_to_trial, then step through the window"


# Times one action in the page: until it returns (the view redrawn with
# what the page holds) and until the page is idle again (the new answer drawn).
_ACTION = """
const done = arguments[arguments.length - 1];
const t0 = performance.now();
eval(arguments[0]);
const now = performance.now() - t0;
const wait = () => orbView.idle() ? done([now, performance.now() - t0]) : setTimeout(wait, 1);
setTimeout(wait, 0);
"""


def browser_round(url, data):
    """Drives the page through a round of interactions; prints each one's
    times and returns the worst time to the new answer drawn (ms)."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    opts = webdriver.ChromeOptions()
    opts.binary_location = "/usr/bin/chromium"
    for a in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
              "--disable-background-networking", "--disable-component-update", "--disable-sync",
              "--window-size=1500,1000", f"--user-data-dir={tempfile.mkdtemp(prefix='orbbench-chromium-')}"):
        opts.add_argument(a)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=opts)
    try:
        driver.set_script_timeout(60)
        driver.get(url)
        t0 = time.perf_counter()
        while not driver.execute_script("return !!(window.orbView && orbView.idle())"):
            time.sleep(0.01)
        print(f"  page: first load drawn in {time.perf_counter() - t0:.2f} s")
        mid = (data.first + data.last) / 2
        middle_trial = len(data.trials) // 2
        actions = [("zoom in 2x", "orbView.zoom(0.5)"), ("zoom in 2x", "orbView.zoom(0.5)"),
                   ("pan 1/4", "orbView.pan(0.25)"), ("one minute", f"orbView.setView({mid}, {mid + 60000})"),
                   ("pan 1/4", "orbView.pan(0.25)"), ("one second", f"orbView.setView({mid}, {mid + 1000})"),
                   ("10 samples", f"orbView.setView({mid}, {mid + 10})"),
                   ("a trial", f"orbView.jumpTo({middle_trial})"), ("next trial", f"orbView.jumpTo({middle_trial + 1})"),
                   ("the whole", "orbView.whole()"), ("zoom out 2x", "orbView.zoom(2)")]
        worst = 0.0
        for name, js in actions:
            now, drawn = driver.execute_async_script(_ACTION, js)
            timing = driver.execute_script("return orbView.state.timing") or {}
            worst = max(worst, drawn)
            print(f"  page: {name:<11} redrawn {now:5.1f} ms, new answer drawn {drawn:6.1f} ms "
                  f"(answer {timing.get('answer', 0):5.1f} ms, drawing {timing.get('draw', 0):4.1f} ms, "
                  f"on screen {timing.get('frame', 0):5.1f} ms after)")
        return worst
    finally:
        driver.quit()


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=7)
    ap.add_argument("--columns", type=int, default=1200, help="pixel columns of the chart (default 1200)")
    ap.add_argument("--keep", action="store_true", help="keep the recording")
    ap.add_argument("--browser", action="store_true", help="also time the page in headless Chromium")
    args = ap.parse_args()

    import orbapi
    from orbapi.view import load
    from orbapi.view.server import ViewServer

    tmp = tempfile.mkdtemp(prefix="orbbench-")
    path = os.path.join(tmp, "synthetic.orb")
    print(f"recording: {args.seconds / 60:.0f} min, binocular, 1000 Hz: {generate(path, args.seconds)}")
    try:
        t0 = time.perf_counter()
        data = load(path)
        print(f"  first load (read + prepare)    {time.perf_counter() - t0:.3f} s (once, before serving)")
        server = ViewServer(data)
        server.start()
        conn = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)

        def ask(url):
            conn.request("GET", url)
            r = conn.getresponse()
            body = r.read()
            assert r.status == 200, body[:200]
            return len(body)

        first, last = data.first, data.last
        mid = (first + last) / 2
        spans = [("whole hour", first, last), ("one minute", mid, mid + 60000.0), ("one second", mid, mid + 1000.0)]
        worst = 0.0
        handle = orbapi.open(path)
        print(f"  {'span':<11} {'requests':>19} {'bytes':>8} {'in process':>12}   read from an open handle")
        for name, a, b in spans:
            q = f"start={a:.3f}&end={b:.3f}"
            urls = [f"/api/samples?{q}&columns={args.columns}", f"/api/events?{q}&columns={args.columns}",
                    f"/api/scanpath?{q}"]
            size = sum(ask(u) for u in urls)
            best, median = timed(args.repeat, lambda: [ask(u) for u in urls])
            inproc, _ = timed(args.repeat, lambda: (data.samples(a, b, args.columns),
                                                    data.events_in(a, b, args.columns), data.scanpath(a, b)))
            fn, how = handle_window(path, handle, a, b, name == "whole hour")
            floor, _ = timed(1 if name == "whole hour" else min(args.repeat, 3), fn)
            worst = max(worst, median)
            print(f"  {name:<11} {best:7.1f} ms (med {median:5.1f}) {size / 1024:6.0f} kB {inproc:9.1f} ms"
                  f"   {floor:9.1f} ms ({how})")
        handle.close()
        conn.close()
        if args.browser:
            worst = max(worst, browser_round(server.url, data))
        server.stop()
        print(f"target: every interaction within {TARGET_MS:.0f} ms: worst {worst:.1f} ms "
              f"(requests: median; page: until the new answer is drawn) {'met' if worst <= TARGET_MS else 'MISSED'}")
        return 0
    finally:
        if not args.keep:
            for f in os.listdir(tmp):
                os.remove(os.path.join(tmp, f))
            os.rmdir(tmp)


if __name__ == "__main__":
    sys.exit(main())
