"""The viewer's server: its data answers, its refusals, ``orb view``."""
from __future__ import annotations

import http.client
import json
import os
import signal
import socket
import subprocess
import sys

import numpy as np
import pytest

import orbapi
from orbapi import cli
from orbapi.recording import Recording
from orbapi.view import load
from orbapi.view.data import MAX_COLUMNS, MAX_SCANPATH, _MinMax, decode
from orbapi.view.server import ViewServer

EXAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "example.orb")


def request(server, path, method="GET", host=None):
    """(status, decoded JSON or raw bytes) of one request to `server`."""
    conn = http.client.HTTPConnection("127.0.0.1", server.port, timeout=10)
    try:
        conn.request(method, path, headers={"Host": host or f"127.0.0.1:{server.port}"})
        r = conn.getresponse()
        body = r.read()
    finally:
        conn.close()
    if r.getheader("Content-Type", "").startswith("application/json"):
        return r.status, json.loads(body)
    return r.status, body


@pytest.fixture
def serve():
    servers = []

    def start(source):
        server = ViewServer(load(source))
        server.start()
        servers.append(server)
        return server

    yield start
    for s in servers:
        s.stop()


def synthetic(seed=3):
    """Samples at uneven times with runs of missing values, a pause, and a
    block change: what decimation must not smooth over."""
    rng = np.random.default_rng(seed)
    steps = rng.choice([0.5, 1.0, 1.0, 2.0], size=20000)
    steps[7000] = 900.0  # a pause
    time = 1000.0 + np.cumsum(steps)
    tables = {"time": time, "block": (np.arange(time.size) >= 7000).astype(np.int32)}
    for name in ("gaze_x", "gaze_y", "pupil_size"):
        for eye in ("left", "right"):
            v = rng.normal(500, 100, time.size).astype(np.float32)
            v[rng.random(time.size) < 0.05] = np.nan
            v[3000:3400] = np.nan
            v[12345] = 5000.0  # a lone spike
            tables[f"{name}_{eye}"] = v
    return Recording.from_tables({"samples": tables})


def naive_columns(t, v, start, end, columns):
    """Smallest and largest of each column, one column at a time."""
    edges = start + (end - start) * (np.arange(columns + 1) / columns)
    lo, hi = np.full(columns, np.nan), np.full(columns, np.nan)
    for k in range(columns):
        inside = (t >= edges[k]) & ((t < edges[k + 1]) if k < columns - 1 else (t <= end))
        vals = v[inside]
        vals = vals[np.isfinite(vals)]
        if vals.size:
            lo[k], hi[k] = vals.min(), vals.max()
    return lo, hi


class TestSamples:
    @pytest.mark.parametrize("start,end,columns", [
        (1000.0, 1000.0 + 700 * 32.0, 700),      # column edges fall on sample times
        (987.3, 31234.7, 1013),                  # edges anywhere, span wider than the recording
        (5000.25, 9000.75, 333),                 # across the pause and the block change
        (12000.0, 12400.0, 50),                  # the spike in one column
        # Columns of thousands of samples: read mostly from buckets.
        (1000.0, 1000.0 + 4 * 5120.0, 4),        # edges on samples
        (987.3, 31234.7, 3),                     # edges anywhere
    ])
    def test_minmax_keeps_every_columns_smallest_and_largest(self, serve, start, end, columns):
        rec = synthetic()
        server = serve(rec)
        status, body = request(server, f"/api/samples?start={start}&end={end}&columns={columns}")
        assert status == 200 and body["mode"] == "minmax"
        t = rec.columns("samples")["time"]
        for name, arrays in body["series"].items():
            v = rec.columns("samples")[name]
            lo, hi = naive_columns(t, v, start, end, columns)
            np.testing.assert_array_equal(decode(arrays["min"]), lo.astype(np.float32), err_msg=name)
            np.testing.assert_array_equal(decode(arrays["max"]), hi.astype(np.float32), err_msg=name)
        assert body["count"] == int(((t >= start) & (t <= end)).sum())
        assert len(body["series"]) == 6

    @pytest.mark.parametrize("samples_per_column", [1 << 30, 40])  # the samples alone; buckets
    def test_runs_of_any_length_and_place(self, monkeypatch, samples_per_column):
        monkeypatch.setattr(_MinMax, "SAMPLES", samples_per_column)
        rng = np.random.default_rng(7)
        for _ in range(200):
            n = int(rng.integers(1, 3000))
            v = rng.normal(size=n).astype(np.float32)
            v[rng.random(n) < 0.3] = np.nan
            cuts = np.sort(rng.integers(0, n + 1, int(rng.integers(2, 40))))
            lo, hi = _MinMax({"v": v}).columns(cuts[:-1], cuts[1:])("v", v)
            for k in range(cuts.size - 1):
                run = v[cuts[k]:cuts[k + 1]]
                run = run[np.isfinite(run)]
                want = (run.min(), run.max()) if run.size else (np.nan, np.nan)
                np.testing.assert_array_equal([lo[k], hi[k]], want)

    def test_minmax_of_an_hour_is_bounded_by_the_columns(self, serve):
        time = np.arange(3_600_000, dtype=np.float64)
        gaze = np.sin(time / 5000).astype(np.float32)
        server = serve(Recording.from_tables({"samples": {"time": time, "gaze_x_left": gaze}}))
        status, body = request(server, f"/api/samples?start=0&end=3599999&columns={MAX_COLUMNS}")
        assert status == 200 and body["mode"] == "minmax"
        assert decode(body["series"]["gaze_x_left"]["min"]).size == MAX_COLUMNS
        assert np.nanmax(decode(body["series"]["gaze_x_left"]["max"])) == gaze.max()

    def test_short_span_returns_the_samples_themselves(self, serve, make_recording):
        path = make_recording(trials=2, rate=500)
        rec = orbapi.read(path, consistency=2)
        server = serve(path)
        t = rec.columns("samples")["time"]
        start, end = float(t[100]) + 0.5, float(t[160])
        status, body = request(server, f"/api/samples?start={start}&end={end}&columns=800")
        assert status == 200 and body["mode"] == "samples"
        # The samples of the span, and one on each side so that lines reach the edges.
        np.testing.assert_array_equal(decode(body["time"]), t[100:162])
        for name, arr in body["series"].items():
            np.testing.assert_array_equal(decode(arr), rec.columns("samples")[name][100:162])
        assert body["breaks"] == []

    def test_samples_break_where_a_block_begins(self, serve, make_recording):
        path = make_recording(trials=2, rate=1000)
        rec = orbapi.read(path, consistency=2)
        server = serve(path)
        s = rec.columns("samples")
        first_of_second = int(np.flatnonzero(s["block"] == 1)[0])
        start, end = float(s["time"][first_of_second - 5]), float(s["time"][first_of_second + 5])
        status, body = request(server, f"/api/samples?start={start}&end={end}&columns=100")
        assert body["mode"] == "samples"
        assert body["breaks"] == [first_of_second - (first_of_second - 6)]


def scan_rows(body, kind):
    """The scanpath's columns of `kind` as one dict per row."""
    cols = {k: decode(v) for k, v in body[kind]["columns"].items()}
    return [{k: (("left", "right")[int(v[i])] if k == "eye" else
                 (None if np.isnan(v[i]) else float(v[i]))) for k, v in cols.items()}
            for i in range(len(cols["start"]))]


def union(starts, ends):
    """Spans that overlap or touch, merged."""
    out = []
    for s, e in sorted(zip(starts, ends)):
        if out and s <= out[-1][1]:
            out[-1][1] = max(out[-1][1], e)
        else:
            out.append([s, e])
    return out


def served_trial(serve, make_recording, trial):
    """A recording of three trials served: (recording, server, start and end
    of `trial`)."""
    path = make_recording(trials=3)
    rec = orbapi.read(path)
    row = rec.trials.iloc[trial]
    return rec, serve(path), float(row.start_time), float(row.end_time)


class TestEvents:
    def test_fine_spans_are_the_events_of_both_eyes(self, serve, make_recording):
        rec, server, start, end = served_trial(serve, make_recording, 1)
        status, body = request(server, f"/api/events?start={start}&end={end}&columns=2000")
        assert status == 200
        for kind in ("fixations", "saccades", "blinks"):
            table = getattr(rec, kind)
            inside = table[(table.end_time >= start) & (table.start_time <= end)]
            spans = body["spans"][kind]
            assert [[s["start"], s["end"]] for s in spans] == union(inside.start_time, inside.end_time), kind
            assert sum(s["n"] for s in spans) == len(inside)
            for s in spans:
                assert {e["eye"] for e in s["events"]} <= {"left", "right"}
                assert all(s["start"] <= e["start"] and e["end"] <= s["end"] for e in s["events"])
        # The trial's messages at its first millisecond share one tick.
        msgs = rec.messages[(rec.messages.time >= start) & (rec.messages.time <= end)]
        assert body["messages"][0]["text"] == "TRIALID 2"
        assert body["messages"][0]["n"] == int((msgs.time == msgs.time.iloc[0]).sum()) > 1
        assert sum(m["n"] for m in body["messages"]) == len(msgs)

    def test_wide_spans_merge_into_at_most_one_shade_per_column(self, serve, make_recording):
        path = make_recording(trials=6)
        rec = orbapi.read(path)
        server = serve(path)
        first, last = float(rec.samples.time.iloc[0]), float(rec.samples.time.iloc[-1])
        status, body = request(server, f"/api/events?start={first}&end={last}&columns=10")
        fix = body["spans"]["fixations"]
        assert sum(s["n"] for s in fix) == len(rec.fixations)
        assert len(fix) <= 11
        assert all(s["events"] == [] for s in fix if s["n"] > 4)
        # Messages in one column make one tick that counts them.
        assert sum(m["n"] for m in body["messages"]) == len(rec.messages)
        assert len(body["messages"]) <= 10

    def test_scanpath_holds_the_fixations_and_saccades_of_the_span(self, serve, make_recording):
        rec, server, start, end = served_trial(serve, make_recording, 2)
        status, body = request(server, f"/api/scanpath?start={start}&end={end}")
        fix = rec.fixations[(rec.fixations.end_time >= start) & (rec.fixations.start_time <= end)]
        fixations, saccades = scan_rows(body, "fixations"), scan_rows(body, "saccades")
        assert body["fixations"]["total"] == len(fix) == len(fixations)
        got = sorted((f["start"], f["eye"], f["duration"], f["x"], f["y"]) for f in fixations)
        want = sorted((float(r.start_time), ("left", "right")[r.eye], float(r.duration),
                       float(r.avg_gaze_x), float(r.avg_gaze_y)) for r in fix.itertuples())
        assert got == want
        sac = rec.saccades[(rec.saccades.end_time >= start) & (rec.saccades.start_time <= end)]
        assert len(saccades) == len(sac) == body["saccades"]["total"]
        assert all(s["start_x"] is not None and s["end_y"] is not None for s in saccades)

    def test_positions_missing_from_events_come_from_the_samples(self, serve):
        # The example's fixations store their average gaze, its saccades no
        # positions: a line is drawn from the gaze where each one starts.
        rec = orbapi.read(EXAMPLE)
        server = serve(EXAMPLE)
        status, body = request(server, "/api/scanpath?start=1000&end=2500")
        s = rec.columns("samples")
        for sac in scan_rows(body, "saccades"):
            i = int(np.searchsorted(s["time"], sac["start"]))
            assert sac["start_x"] == float(s[f"gaze_x_{sac['eye']}"][i])
        fixations = scan_rows(body, "fixations")
        assert {(f["x"], f["y"]) for f in fixations} == {(400.0, 300.0), (800.0, 300.0)}
        assert all(f["pupil"] is None for f in fixations)  # not stored: not zero


    def test_many_fixations_are_thinned_and_unstored_positions_are_means(self, serve):
        # 2500 fixations of 10 ms without stored positions, on gaze that
        # climbs 1 px a ms: each one's position is the mean of its samples.
        time = np.arange(30000, dtype=np.float64)
        gaze = time.astype(np.float32)
        n = 2500
        starts = np.arange(n, dtype=np.uint32) * 12
        fix = {"start_time": starts, "end_time": starts + 9, "eye": np.zeros(n, np.int16),
               "contents": np.zeros(n, np.uint16), "avg_gaze_x": np.zeros(n, np.float32),
               "avg_gaze_y": np.zeros(n, np.float32), "avg_pupil": np.zeros(n, np.float32)}
        rec = Recording.from_tables({"samples": {"time": time, "gaze_x_left": gaze, "gaze_y_left": gaze},
                                     "fixations": fix})
        server = serve(rec)
        status, body = request(server, "/api/scanpath?start=0&end=30000")
        rows = scan_rows(body, "fixations")
        assert body["fixations"]["total"] == n and len(rows) == MAX_SCANPATH
        assert rows[0]["start"] == 0 and rows[-1]["start"] == float(starts[-1])
        assert all(r["x"] == r["start"] + 4.5 and r["y"] == r["x"] and r["pupil"] is None for r in rows)


class TestPageAndRefusals:
    def test_page_tells_what_orb_info_tells(self, serve, make_recording):
        path = make_recording(trials=3, variables={"condition": ["a", "b", None]})
        server = serve(path)
        status, body = request(server, "/api/page")
        summary = cli.summarize(path)
        info = body["info"]
        for key in ("samples", "fixations", "saccades", "blinks", "messages", "trials", "placeholder_samples"):
            assert info[key] == summary[key], key
        assert info["model"] == summary["model"] and info["revision"] == summary["revision"]
        assert [(b["start_ms"], b["end_ms"]) for b in info["blocks"]] == \
            [(b["start_ms"], b["end_ms"]) for b in summary["blocks"]]
        assert info["damage"] == []
        assert [t["condition"] for t in body["trials"]] == ["a", "b", None]

    def test_the_page_and_its_files_are_served(self, serve):
        server = serve(EXAMPLE)
        status, page = request(server, "/")
        assert status == 200 and b"/static/viewer.js" in page
        for name in ("viewer.js", "viewer.css", "uPlot.iife.min.js", "uPlot.min.css"):
            status, body = request(server, "/static/" + name)
            assert status == 200 and len(body) > 500, name

    @pytest.mark.parametrize("query,status,says", [
        ("start=1000&end=2000", 400, "missing parameter columns"),
        ("start=1000&end=2000&columns=10&eye=left", 400, "unknown parameter eye"),
        ("start=abc&end=2000&columns=10", 400, "start must be a number"),
        ("start=1000&end=2000&columns=1.5", 400, "columns must be a whole number"),
        ("start=nan&end=2000&columns=10", 400, "start < end"),
        ("start=1000&end=inf&columns=10", 400, "start < end"),
        ("start=2000&end=1000&columns=10", 400, "start < end"),
        ("start=1000&end=1000&columns=10", 400, "start < end"),
        ("start=1000&end=2000&columns=0", 400, "columns must be 1 to"),
        (f"start=1000&end=2000&columns={MAX_COLUMNS + 1}", 400, "columns must be 1 to"),
        ("start=1000&start=1100&end=2000&columns=10", 400, "more than once"),
        ("start=1000&end=2000&&columns=10", 400, "malformed"),
        ("start=90000&end=99000&columns=10", 416, "outside the recording"),
        ("start=-5000&end=-10&columns=10", 416, "outside the recording"),
    ])
    def test_bad_parameters_get_a_4xx_that_says_why(self, serve, query, status, says):
        server = serve(EXAMPLE)
        for path in ("/api/samples", "/api/events"):
            got, body = request(server, f"{path}?{query}")
            assert got == status and says in body["error"], (path, body)
        if "columns" not in query or "columns=10&" in query:
            return
        got, body = request(server, f"/api/scanpath?{query.replace('&columns=10', '')}")
        assert got in (400, 416)

    @pytest.mark.parametrize("path", [
        "/static/../data.py", "/static/%2e%2e/data.py", "/static/..%2fdata.py", "/../../../etc/passwd",
        "/%2e%2e/%2e%2e/etc/passwd", "//etc/passwd", "/static/viewer.js/../../__init__.py",
        "/static/", "/static/uPlot.LICENSE", "/api", "/api/samples/../page", "/index.html",
        "/static/viewer.js?x=1", "/" + "a" * 5000,
    ])
    def test_paths_to_anything_else_get_404_and_no_file(self, serve, path):
        server = serve(EXAMPLE)
        status, body = request(server, path)
        assert status == 404 and set(body) == {"error"}

    def test_requests_open_no_file(self, serve, monkeypatch):
        server = serve(EXAMPLE)
        opened = []
        real_open = os.open
        monkeypatch.setattr(os, "open", lambda *a, **k: opened.append(a[0]) or real_open(*a, **k))
        for name in ("builtins.open", "io.open"):
            monkeypatch.setattr(name, lambda *a, **k: opened.append(a[0]) or pytest.fail("open"))
        for path in ("/", "/static/viewer.js", "/static/uPlot.iife.min.js", "/api/page",
                     "/api/samples?start=1000&end=2000&columns=100", "/api/events?start=1000&end=2000&columns=100",
                     "/api/scanpath?start=1000&end=2000", "/static/../data.py", "/etc/passwd"):
            assert request(server, path)[0] in (200, 404)
        assert opened == []

    def test_other_methods_and_hosts_are_refused(self, serve):
        server = serve(EXAMPLE)
        assert request(server, "/api/page", method="POST")[0] == 405
        assert request(server, "/api/page", method="DELETE")[0] == 405
        status, body = request(server, "/api/page", host="attacker.example:80")
        assert status == 403 and "answers only" in body["error"]
        assert request(server, "/api/page", host=f"localhost:{server.port}")[0] == 200

    def test_serves_on_loopback_only(self, serve):
        server = serve(EXAMPLE)
        assert server._httpd.server_address[0] == "127.0.0.1"
        assert server.url == f"http://127.0.0.1:{server.port}/"


class TestCommand:
    def test_unreadable_file_is_told_before_anything_is_served(self, tmp_path, capsys):
        junk = tmp_path / "junk.orb"
        junk.write_bytes(b"not a recording at all\n" * 10)
        assert cli.main(["view", str(junk), "--no-browser"]) == 1
        err = capsys.readouterr().err
        with pytest.raises(orbapi.OrbError) as e:
            orbapi.read(str(junk))
        assert f"orb view: {junk}: {e.value}" in err
        assert cli.main(["view", str(tmp_path / "missing.orb"), "--no-browser"]) == 1
        assert "no such file" in capsys.readouterr().err
        assert cli.main(["view", EXAMPLE, "--port", "70000", "--no-browser"]) == 2
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            assert cli.main(["view", EXAMPLE, "--port", str(port), "--no-browser"]) == 1
        assert f"cannot serve on port {port}" in capsys.readouterr().err

    def test_serves_until_ctrl_c(self, tmp_path):
        proc = subprocess.Popen([sys.executable, "-m", "orbapi.cli", "view", EXAMPLE, "--no-browser"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            line = proc.stdout.readline()
            assert line.startswith("Viewing example.orb at http://127.0.0.1:"), line
            port = int(line.split("127.0.0.1:")[1].split("/")[0])
            conn = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
            conn.request("GET", "/api/page")
            assert json.loads(conn.getresponse().read())["info"]["file"] == "example.orb"
            conn.close()
            proc.send_signal(signal.SIGINT)
            out, err = proc.communicate(timeout=20)
        finally:
            proc.kill() if proc.poll() is None else None
        assert proc.returncode == 0, err
        assert "Stopped." in out and "Traceback" not in err

    def test_view_from_python_serves_a_recording_in_memory(self):
        rec = orbapi.read(EXAMPLE)
        with orbapi.view(rec, browser=False, block=False) as viewer:
            assert viewer.url.startswith("http://127.0.0.1:")
            conn = http.client.HTTPConnection("127.0.0.1", viewer.server.port, timeout=10)
            conn.request("GET", "/api/page")
            info = json.loads(conn.getresponse().read())["info"]
            conn.close()
            assert info["samples"] == 3000 and info["damage"] is None
            assert viewer.url in viewer._repr_html_()
