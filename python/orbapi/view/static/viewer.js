// The viewer's page: charts of the span shown, drawn by uPlot from what the
// server sends for that span (see server.py), the trials and the scanpath.
"use strict";
(function () {
  const EYE_COLOURS = { left: "#0072B2", right: "#D55E00" };
  const SHADES = { fixations: "rgba(0,158,115,0.13)", saccades: "rgba(230,159,0,0.32)", blinks: "rgba(77,77,77,0.35)" };
  const TICK_COLOUR = "#7b3294";
  const CHARTS = [
    { key: "gaze_x", title: "gaze x (px)" },
    { key: "gaze_y", title: "gaze y (px)" },
    { key: "pupil_size", title: "pupil size" },
  ];
  const MIN_SPAN = 4;          // ms: a few samples at any rate
  const CACHE = 48;            // answers kept, the oldest dropped first
  const MAX_NUMBERED = 60;     // beyond this the scanpath's circles go unnumbered

  const $ = (id) => document.getElementById(id);
  const state = {
    first: 0, last: 1, lo: 0, hi: 1, trials: [], screen: [1, 1], maxColumns: 4000,
    samples: null, events: null, scan: null, trial: -1, pending: 0, timer: null,
  };
  // What the page drew last, in the recording's terms (read by the tests).
  const drawn = { spans: [], ticks: [], circles: [], lines: [], view: [0, 0] };
  const charts = [];
  let scanChart = null;

  // -- data from the server ------------------------------------------------
  const cache = new Map();
  async function get(path, params) {
    const url = path + "?" + new URLSearchParams(params).toString();
    if (cache.has(url)) {
      const hit = cache.get(url);
      cache.delete(url);
      cache.set(url, hit);
      return hit;
    }
    state.pending++;
    try {
      const r = await fetch(url);
      const body = await r.json();
      if (!r.ok) throw new Error(body.error || r.statusText);
      cache.set(url, body);
      if (cache.size > CACHE) cache.delete(cache.keys().next().value);
      return body;
    } finally {
      state.pending--;
    }
  }

  function decode(o) {
    if (o.array) return o.array;
    const bin = atob(o.b64);
    const bytes = new Uint8Array(bin.length);
    for (let i = 0; i < bin.length; i++) bytes[i] = bin.charCodeAt(i);
    const Kind = { f4: Float32Array, f8: Float64Array, i4: Int32Array, i1: Int8Array }[o.dtype];
    o.array = new Kind(bytes.buffer);  // kept: an answer is decoded once
    return o.array;
  }

  const num = (v) => (v == null || Number.isNaN(v) ? null : v);
  const ms = (v, d = 1) => v.toLocaleString("en-US", { minimumFractionDigits: d, maximumFractionDigits: d });
  const fmt = (v, d = 1) => (v == null || Number.isNaN(v) ? "missing" : ms(v, d));

  // The chart data of an answer: [x, left, right] per chart.  Columns become
  // two points each (their smallest and largest value) at the column's
  // middle; a pause between samples becomes a gap.
  function chartData(s) {
    const out = {};
    if (s.mode === "samples") {
      const t = decode(s.time);
      const brk = new Set(s.breaks);
      const x = [];
      const idx = [];
      for (let i = 0; i < t.length; i++) {
        if (brk.has(i)) { x.push((t[i - 1] + t[i]) / 2); idx.push(-1); }
        x.push(t[i]); idx.push(i);
      }
      for (const c of CHARTS) {
        const cols = [x];
        for (const eye of ["left", "right"]) {
          const k = `${c.key}_${eye}`;
          if (!s.series[k]) continue;
          const v = decode(s.series[k]);
          cols.push(idx.map((i) => (i < 0 ? null : num(v[i]))));
        }
        out[c.key] = { data: cols, eyes: eyesOf(s, c.key) };
      }
      return out;
    }
    const w = (s.end - s.start) / s.columns;
    const x = new Array(2 * s.columns);
    for (let k = 0; k < s.columns; k++) x[2 * k] = x[2 * k + 1] = s.start + (k + 0.5) * w;
    for (const c of CHARTS) {
      const cols = [x];
      for (const eye of ["left", "right"]) {
        const k = `${c.key}_${eye}`;
        if (!s.series[k]) continue;
        const lo = decode(s.series[k].min), hi = decode(s.series[k].max);
        const y = new Array(2 * s.columns);
        for (let j = 0; j < s.columns; j++) { y[2 * j] = num(lo[j]); y[2 * j + 1] = num(hi[j]); }
        cols.push(y);
      }
      out[c.key] = { data: cols, eyes: eyesOf(s, c.key) };
    }
    return out;
  }
  const eyesOf = (s, key) => ["left", "right"].filter((e) => s.series[`${key}_${e}`]);

  // The scanpath's columns as one object per fixation and saccade.
  function scanRows(r) {
    const rows = (table, kind) => {
      const cols = Object.fromEntries(Object.entries(table.columns).map(([k, v]) => [k, decode(v)]));
      return Array.from(cols.start, (_, i) => {
        const o = { kind, eye: cols.eye[i] === 0 ? "left" : cols.eye[i] === 1 ? "right" : String(cols.eye[i]) };
        for (const k of Object.keys(cols)) if (k !== "eye") o[k] = num(cols[k][i]);
        return o;
      });
    };
    return { start: r.start, end: r.end, fixations: rows(r.fixations, "fixation"), saccades: rows(r.saccades, "saccade"),
      fixations_total: r.fixations.total, saccades_total: r.saccades.total };
  }

  // -- the view -------------------------------------------------------------
  function plotWidth() {
    const u = charts[0];
    return u ? Math.max(50, Math.round(u.bbox.width / devicePixelRatio)) : 800;
  }

  function setView(lo, hi, moving = false) {
    const whole = state.last - state.first;
    let span = Math.max(MIN_SPAN, Math.min(hi - lo, whole * 1.02 + MIN_SPAN));
    const mid = (lo + hi) / 2;
    lo = mid - span / 2;
    const min = state.first - whole * 0.01 - MIN_SPAN / 2, max = state.last + whole * 0.01 + MIN_SPAN / 2;
    if (lo < min) lo = min;
    if (lo + span > max) lo = max - span;
    if (lo < min) { lo = min; span = max - min; }
    state.lo = lo;
    state.hi = lo + span;
    for (const u of charts) u.setScale("x", { min: state.lo, max: state.hi });
    showSpan();
    schedule(moving ? 30 : 0);
  }

  function showSpan() {
    const span = state.hi - state.lo;
    $("span-text").textContent = `${ms(state.lo)} – ${ms(state.hi)} ms (${span >= 1000 ? ms(span / 1000, 3) + " s" : ms(span) + " ms"})`;
    if (document.activeElement !== $("span-start")) $("span-start").value = state.lo.toFixed(1);
    if (document.activeElement !== $("span-end")) $("span-end").value = state.hi.toFixed(1);
    const mid = (state.lo + state.hi) / 2;
    let t = state.trials.findIndex((tr) => tr.start_time <= mid && mid <= tr.end_time);
    if (t >= 0) markTrial(t);
  }

  function zoom(factor, at, moving) {
    at = at == null ? (state.lo + state.hi) / 2 : at;
    setView(at - (at - state.lo) * factor, at + (state.hi - at) * factor, moving);
  }
  function pan(fraction, moving) {
    const d = (state.hi - state.lo) * fraction;
    setView(state.lo + d, state.hi + d, moving);
  }
  const whole = () => setView(state.first, state.last);

  function jumpTo(t) {
    if (t < 0 || t >= state.trials.length) return;
    const tr = state.trials[t];
    markTrial(t);
    setView(tr.start_time, Math.max(tr.end_time, tr.start_time + MIN_SPAN));
  }
  function markTrial(t) {
    if (t === state.trial) return;
    const rows = $("trials").tBodies[0].rows;
    if (state.trial >= 0 && rows[state.trial]) rows[state.trial].classList.remove("current");
    state.trial = t;
    if (rows[t]) {
      rows[t].classList.add("current");
      const box = $("trials-box"), b = box.getBoundingClientRect(), r = rows[t].getBoundingClientRect();
      if (r.top < b.top + 24 || r.bottom > b.bottom) box.scrollTop += r.top - b.top - box.clientHeight / 3;
    }
  }

  // Asks for what the span shown lacks: at once, or once the view has
  // stopped moving for `wait` ms; answers that arrive after the view moved
  // on are dropped.
  function schedule(wait) {
    state.moved = performance.now();
    clearTimeout(state.timer);
    state.timer = null;
    if (!wait) { refresh(); return; }
    state.timer = setTimeout(() => { state.timer = null; refresh(); }, wait);
  }

  let generation = 0;
  async function refresh() {
    const gen = ++generation;
    const lo = state.lo, hi = state.hi, span = hi - lo;
    const width = plotWidth();
    const want = span / width;
    const covers = (a) => a && a.start <= Math.max(lo, state.first) && a.end >= Math.min(hi, state.last);
    const fine = (a) => a.mode === "samples" || (a.end - a.start) / a.columns <= want * 1.05;
    const coarse = (a) => (a.end - a.start) / a.columns < want / 3;
    const jobs = [];
    const s = state.samples;
    if (!(covers(s) && fine(s) && !coarse(s))) {
      // Half a span more on each side, so that panning finds it here.
      const a = Math.max(state.first, lo - span / 2), b = Math.min(state.last, hi + span / 2);
      const columns = Math.max(1, Math.min(state.maxColumns, Math.round(width * (b - a) / span)));
      const p = { start: a.toFixed(3), end: Math.max(b, a + 0.001).toFixed(3), columns: String(columns) };
      jobs.push(get("/api/samples", p).then((r) => { if (gen === generation) state.samples = r; }));
      jobs.push(get("/api/events", p).then((r) => { if (gen === generation) state.events = r; }));
    }
    const sa = Math.max(state.first, lo), sb = Math.min(state.last, hi);
    const sc = state.scan;
    if (!sc || sc.start !== +sa.toFixed(3) || sc.end !== +Math.max(sb, sa + 0.001).toFixed(3)) {
      const p = { start: sa.toFixed(3), end: Math.max(sb, sa + 0.001).toFixed(3) };
      jobs.push(get("/api/scanpath", p).then((r) => { if (gen === generation) state.scan = scanRows(r); }));
    }
    if (!jobs.length) return;
    const t0 = performance.now();
    try {
      await Promise.all(jobs);
      status("");
    } catch (e) {
      status(String(e.message || e), true);
      return;
    }
    if (gen !== generation) return;
    const t1 = performance.now();
    draw();
    // How long the last answer took to come, to draw and to reach the
    // screen (the next frame), in ms.
    const timing = { answer: t1 - t0, draw: performance.now() - t1, waited: t0 - state.moved };
    state.timing = timing;
    requestAnimationFrame(() => { timing.frame = performance.now() - t1; });
  }

  function status(text, error) {
    $("status").textContent = text;
    $("status").className = error ? "error" : "";
  }

  function draw() {
    const s = state.samples;
    if (!s) return;
    const data = chartData(s);
    for (const u of charts) {
      const d = data[u.orbKey];
      if (u.series.length - 1 !== d.eyes.length) continue;
      u.setData(d.data, false);
      u.setScale("x", { min: state.lo, max: state.hi });
    }
    $("mode").textContent = s.mode === "samples"
      ? `${s.count.toLocaleString()} samples shown as they are`
      : `${s.count.toLocaleString()} samples, smallest and largest of each pixel column`;
    scanChart && scanChart.redraw(false, false);
    drawn.view = [state.lo, state.hi];
  }

  // -- drawing on the charts ------------------------------------------------
  function shadeSpans(u) {
    const ev = state.events;
    const ctx = u.ctx, top = u.bbox.top, h = u.bbox.height, left = u.bbox.left, right = left + u.bbox.width;
    const record = u === charts[0];
    if (record) drawn.spans = [];
    if (!ev) return;
    ctx.save();
    for (const kind of ["fixations", "saccades", "blinks"]) {
      ctx.fillStyle = SHADES[kind];
      for (const sp of ev.spans[kind]) {
        if (sp.end < state.lo || sp.start > state.hi) continue;
        let x0 = u.valToPos(sp.start, "x", true), x1 = u.valToPos(sp.end, "x", true);
        x0 = Math.max(left, x0); x1 = Math.min(right, Math.max(x1, x0 + devicePixelRatio));
        ctx.fillRect(x0, top, x1 - x0, h);
        if (record) drawn.spans.push({ kind, start: sp.start, end: sp.end, n: sp.n, x0: x0 / devicePixelRatio, x1: x1 / devicePixelRatio });
      }
    }
    ctx.restore();
  }

  function messageTicks(u) {
    const ev = state.events;
    const record = u === charts[0];
    if (record) drawn.ticks = [];
    if (!ev) return;
    const ctx = u.ctx, top = u.bbox.top, h = u.bbox.height, left = u.bbox.left, right = left + u.bbox.width;
    const dpr = devicePixelRatio;
    ctx.save();
    ctx.strokeStyle = TICK_COLOUR;
    ctx.fillStyle = TICK_COLOUR;
    ctx.lineWidth = dpr;
    ctx.font = `${11 * dpr}px system-ui, sans-serif`;
    ctx.textAlign = "left";  // the axes leave it as they drew their values
    ctx.textBaseline = "alphabetic";
    let free = -Infinity;
    ctx.beginPath();
    ctx.rect(left, top, right - left, h);
    ctx.clip();
    const lines = new Path2D();
    const labels = [];
    for (const m of ev.messages) {
      if (m.time < state.lo || m.time > state.hi) continue;
      const x = Math.round(u.valToPos(m.time, "x", true)) + 0.5;
      lines.moveTo(x, top);
      lines.lineTo(x, top + (record ? 8 * dpr : h));
      let label = false;
      if (record && x > free) {
        let text = m.text.length > 28 ? m.text.slice(0, 27) + "…" : m.text;
        if (m.n > 1) text += ` (+${m.n - 1})`;
        const w = ctx.measureText(text).width;
        if (x + 3 * dpr + w < right) {
          labels.push([text, x + 3 * dpr]);
          free = x + w + 10 * dpr;
          label = true;
        }
      }
      if (record) drawn.ticks.push({ time: m.time, text: m.text, n: m.n, label });
    }
    ctx.setLineDash(record ? [] : [3 * dpr, 3 * dpr]);
    ctx.stroke(lines);
    for (const [text, x] of labels) ctx.fillText(text, x, top + 18 * dpr);
    ctx.restore();
  }

  // -- hovering -------------------------------------------------------------
  function showTip(text, ev) {
    const tip = $("tip");
    if (!text) { tip.hidden = true; return; }
    tip.textContent = text;
    tip.hidden = false;
    const x = ev.clientX + 14, y = ev.clientY + 14;
    tip.style.left = Math.min(x, innerWidth - tip.offsetWidth - 8) + "px";
    tip.style.top = Math.min(y, innerHeight - tip.offsetHeight - 8) + "px";
  }

  function describeEvent(e) {
    let text = `${e.kind}, ${e.eye} eye: ${ms(e.start, 0)}–${ms(e.end, 0)} ms (${ms(e.duration, 0)} ms)`;
    if (e.x !== undefined) text += `\n  at (${fmt(e.x)}, ${fmt(e.y)})` + (e.pupil != null ? `, pupil ${fmt(e.pupil)}` : "");
    if (e.start_x !== undefined) text += `\n  from (${fmt(e.start_x)}, ${fmt(e.start_y)}) to (${fmt(e.end_x)}, ${fmt(e.end_y)})`;
    return text;
  }

  function chartTip(u, ev) {
    const s = state.samples;
    if (!s || u.cursor.left == null || u.cursor.left < 0) return showTip(null);
    const t = u.posToVal(u.cursor.left, "x");
    const lines = [];
    if (s.mode === "samples") {
      const times = decode(s.time);
      let i = 0, best = Infinity;
      for (let k = 0; k < times.length; k++) { const d = Math.abs(times[k] - t); if (d < best) { best = d; i = k; } }
      lines.push(`sample at ${ms(times[i])} ms`);
      for (const [k, v] of Object.entries(s.series)) lines.push(`  ${k.replace(/_/g, " ")}: ${fmt(decode(v)[i], 2)}`);
    } else {
      const w = (s.end - s.start) / s.columns;
      const k = Math.floor((t - s.start) / w);
      if (k >= 0 && k < s.columns) {
        lines.push(`${ms(s.start + k * w)}–${ms(s.start + (k + 1) * w)} ms (smallest–largest)`);
        for (const [name, v] of Object.entries(s.series)) {
          const lo = decode(v.min)[k], hi = decode(v.max)[k];
          lines.push(`  ${name.replace(/_/g, " ")}: ` + (Number.isNaN(lo) ? "missing" : `${fmt(lo, 2)} – ${fmt(hi, 2)}`));
        }
      }
    }
    const ev2 = state.events;
    const px = (state.hi - state.lo) / plotWidth();
    if (ev2) {
      for (const kind of ["fixations", "saccades", "blinks"]) {
        for (const sp of ev2.spans[kind]) {
          if (sp.start - px > t || sp.end + px < t) continue;
          if (sp.events.length) for (const e of sp.events) lines.push(describeEvent(e));
          else lines.push(`${sp.n.toLocaleString()} ${kind} in ${ms(sp.start, 0)}–${ms(sp.end, 0)} ms`);
        }
      }
      for (const m of ev2.messages) {
        if (Math.abs(m.time - t) <= 3 * px) lines.push(`message at ${ms(m.time, 0)} ms: ${m.text}` + (m.n > 1 ? ` (and ${m.n - 1} more)` : ""));
      }
    }
    showTip(lines.join("\n"), ev);
  }

  // -- the charts -------------------------------------------------------------
  function makeCharts(series) {
    const box = $("charts");
    const width = box.clientWidth;
    CHARTS.forEach((c, n) => {
      const eyes = ["left", "right"].filter((e) => series.includes(`${c.key}_${e}`));
      const title = document.createElement("div");
      title.className = "chart-title";
      title.textContent = c.title;
      box.appendChild(title);
      const el = document.createElement("div");
      el.id = "chart-" + c.key;
      box.appendChild(el);
      const opts = {
        width, height: n === 2 ? 150 : 190,
        legend: { show: false },
        scales: { x: { time: false, auto: false } },
        series: [{}].concat(eyes.map((e) => ({ label: e, stroke: EYE_COLOURS[e], width: 1, spanGaps: false,
          points: { size: 4 } }))),
        axes: [
          { values: (u, vals) => vals.map((v) => v.toLocaleString("en-US")), size: n === 2 ? 40 : 24,
            label: n === 2 ? "ms (the recording's clock)" : undefined, labelSize: 16 },
          { size: 56 },
        ],
        cursor: {
          sync: { key: "orb-x", setSeries: false },
          drag: { x: true, y: false, setScale: false },
          points: { show: false },
          bind: {
            mousedown: (u, targ, handler) => (e) => {
              if (e.button !== 0) return null;
              if (e.shiftKey) return handler(e);
              startPan(u, e);
              return null;
            },
            dblclick: () => () => { whole(); return null; },
          },
        },
        hooks: {
          drawClear: [shadeSpans],
          draw: [messageTicks],
          setSelect: [(u) => {
            if (u.select.width > 2) {
              const a = u.posToVal(u.select.left, "x"), b = u.posToVal(u.select.left + u.select.width, "x");
              u.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
              setView(a, b);
            }
          }],
        },
      };
      const u = new uPlot(opts, [[]].concat(eyes.map(() => [])), el);
      u.orbKey = c.key;
      u.over.addEventListener("wheel", (e) => onWheel(u, e), { passive: false });
      u.over.addEventListener("mousemove", (e) => chartTip(u, e));
      u.over.addEventListener("mouseleave", () => showTip(null));
      charts.push(u);
    });
  }

  function onWheel(u, e) {
    e.preventDefault();
    const rect = u.over.getBoundingClientRect();
    if (e.shiftKey || Math.abs(e.deltaX) > Math.abs(e.deltaY)) {
      pan(Math.sign(e.deltaX || e.deltaY) * 0.1, true);
      return;
    }
    const at = u.posToVal(e.clientX - rect.left, "x");
    zoom(e.deltaY > 0 ? 1.25 : 0.8, at, true);
  }

  function startPan(u, e) {
    const x0 = e.clientX, lo = state.lo, hi = state.hi;
    const per = (hi - lo) / u.over.clientWidth;
    const move = (m) => { const d = (m.clientX - x0) * per; setView(lo - d, hi - d, true); };
    const up = () => { removeEventListener("mousemove", move); removeEventListener("mouseup", up); };
    addEventListener("mousemove", move);
    addEventListener("mouseup", up);
  }

  // -- the scanpath -----------------------------------------------------------
  const radius = (duration) => 2 + Math.sqrt(Math.max(0, duration)) * 0.5;

  function makeScanpath() {
    const el = $("scanpath");
    const [w, h] = state.screen;
    const width = el.clientWidth || 420;
    const height = Math.max(200, Math.min(420, Math.round((width - 60) * h / w) + 40));
    scanChart = new uPlot({
      width, height, legend: { show: false }, cursor: { show: false },
      scales: { x: { time: false, auto: false, range: [0, w] }, y: { auto: false, range: [0, h], dir: -1 } },
      series: [{}, { show: false }],
      axes: [{ size: 26 }, { size: 54 }],
      hooks: { draw: [drawScanpath] },
    }, [[0, w], [null, null]], el);
    scanChart.over.addEventListener("mousemove", (e) => {
      const r = scanChart.over.getBoundingClientRect();
      const x = (e.clientX - r.left) * devicePixelRatio + scanChart.bbox.left, y = (e.clientY - r.top) * devicePixelRatio + scanChart.bbox.top;
      let hit = null;
      for (const c of drawn.circles) {
        const d = Math.hypot(c.px - x, c.py - y);
        if (d <= c.r * devicePixelRatio + 2 && (!hit || d < hit.d)) hit = { d, c };
      }
      showTip(hit ? `fixation ${hit.c.number}\n` + describeEvent(hit.c.event) : null, e);
    });
    scanChart.over.addEventListener("mouseleave", () => showTip(null));
  }

  function drawScanpath(u) {
    drawn.circles = [];
    drawn.lines = [];
    const sc = state.scan;
    if (!sc) return;
    const ctx = u.ctx, dpr = devicePixelRatio;
    const X = (v) => u.valToPos(v, "x", true), Y = (v) => u.valToPos(v, "y", true);
    const over = u.over.getBoundingClientRect();
    ctx.save();
    ctx.beginPath();
    ctx.rect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
    ctx.clip();
    ctx.lineWidth = dpr;
    // One path per eye for its saccades and one for its circles: a long
    // span's thousands draw as quickly as a few.
    const paths = {};
    const pathOf = (eye) => (paths[eye] = paths[eye] || { lines: new Path2D(), circles: new Path2D() });
    for (const s of sc.saccades) {
      if ([s.start_x, s.start_y, s.end_x, s.end_y].some((v) => v == null)) continue;
      const p = pathOf(s.eye).lines;
      p.moveTo(X(s.start_x), Y(s.start_y));
      p.lineTo(X(s.end_x), Y(s.end_y));
      drawn.lines.push({ eye: s.eye, start: s.start, end: s.end, from: [s.start_x, s.start_y], to: [s.end_x, s.end_y] });
    }
    const count = {};
    for (const f of sc.fixations) count[f.eye] = (count[f.eye] || 0) + 1;
    const seen = {};
    const numbers = [];
    for (const f of sc.fixations) {
      const number = (seen[f.eye] = (seen[f.eye] || 0) + 1);
      if (f.x == null || f.y == null) continue;
      const px = X(f.x), py = Y(f.y), r = radius(f.duration);
      const p = pathOf(f.eye).circles;
      p.moveTo(px + r * dpr, py);
      p.arc(px, py, r * dpr, 0, 2 * Math.PI);
      if (count[f.eye] <= MAX_NUMBERED) numbers.push([String(number), px, py]);
      drawn.circles.push({ eye: f.eye, number, x: f.x, y: f.y, r, px, py, start: f.start, end: f.end, duration: f.duration, event: f,
        client: [over.left + (px - u.bbox.left) / dpr, over.top + (py - u.bbox.top) / dpr] });
    }
    for (const [eye, p] of Object.entries(paths)) {
      const colour = EYE_COLOURS[eye] || "#555";
      ctx.strokeStyle = colour;
      ctx.stroke(p.lines);
      ctx.fillStyle = colour + "40";
      ctx.fill(p.circles);
      ctx.stroke(p.circles);
    }
    ctx.font = `${10 * dpr}px system-ui, sans-serif`;
    ctx.textAlign = "center";
    ctx.textBaseline = "middle";
    ctx.fillStyle = "#111";
    for (const [text, px, py] of numbers) ctx.fillText(text, px, py);
    ctx.restore();
    const total = sc.fixations_total, shown = sc.fixations.length;
    $("scan-note").textContent = `(${total.toLocaleString()} fixation${total === 1 ? "" : "s"}` +
      (shown < total ? `, every ${Math.round(total / shown)}th drawn)` : ")");
  }

  // -- header and trials --------------------------------------------------------
  function showHeader(info) {
    document.title = `${info.file} – orb view`;
    $("file").textContent = info.file;
    if (info.path) $("file").title = info.path;
    const rates = [...new Set(info.blocks.map((b) => `${b.sample_rate} Hz`))].join(", ") || "no blocks";
    const eyes = [...new Set(info.blocks.map((b) => b.eyes))].join(", ");
    const n = (v) => v.toLocaleString("en-US");
    const facts = [
      `tracker revision ${info.revision}, model ${info.model}${info.model_name ? " (" + info.model_name + ")" : ""}`,
      rates, eyes ? `${eyes} eye${eyes === "both" ? "s" : ""}` : "",
      `${n(info.blocks.length)} block${info.blocks.length === 1 ? "" : "s"}`,
      `${n(info.samples)} samples` + (info.placeholder_samples ? ` (${n(info.placeholder_samples)} placeholders filled)` : ""),
      `${n(info.fixations)} fixations`, `${n(info.saccades)} saccades`, `${n(info.blinks)} blinks`,
      `${n(info.messages)} messages`, `${n(info.trials)} trials`,
      `${ms(info.first_ms, 0)}–${ms(info.last_ms, 0)} ms (${ms((info.last_ms - info.first_ms) / 1000, 1)} s)`,
    ].filter(Boolean);
    $("facts").textContent = facts.join(" · ");
    const dmg = info.damage;
    $("damage-summary").textContent = dmg == null ? "damage: not known (the recording was read before)"
      : dmg.length ? `damage: ${dmg.length} line${dmg.length === 1 ? "" : "s"} reported while reading` : "damage: none reported";
    $("damage").classList.toggle("bad", !!(dmg && dmg.length));
    for (const line of (dmg || []).slice(0, 200)) {
      const li = document.createElement("li");
      li.textContent = line;
      $("damage-lines").appendChild(li);
    }
  }

  function showTrials(trials) {
    const table = $("trials");
    if (!trials.length) {
      table.tHead.innerHTML = "<tr><th>no trials</th></tr>";
      return;
    }
    const hidden = new Set(["start_index", "end_index"]);
    const keys = Object.keys(trials[0]).filter((k) => !hidden.has(k));
    const head = document.createElement("tr");
    for (const k of keys) { const th = document.createElement("th"); th.textContent = k.replace(/_/g, " "); head.appendChild(th); }
    table.tHead.appendChild(head);
    const body = table.tBodies[0];
    trials.forEach((tr, i) => {
      const row = document.createElement("tr");
      row.dataset.trial = String(tr.trial);
      for (const k of keys) {
        const td = document.createElement("td");
        const v = tr[k];
        td.textContent = v == null ? "" : typeof v === "number" ? v.toLocaleString("en-US") : v;
        row.appendChild(td);
      }
      row.addEventListener("click", () => jumpTo(i));
      body.appendChild(row);
    });
  }

  // -- keys and buttons ---------------------------------------------------------
  function onKey(e) {
    if (e.target instanceof HTMLInputElement || e.ctrlKey || e.metaKey || e.altKey) return;
    const step = e.shiftKey ? 1 : 0.25;
    const keys = {
      ArrowLeft: () => pan(-step), ArrowRight: () => pan(step),
      ArrowUp: () => zoom(0.5), "+": () => zoom(0.5), "=": () => zoom(0.5),
      ArrowDown: () => zoom(2), "-": () => zoom(2),
      Home: whole, "0": whole,
      n: () => jumpTo(state.trial + 1), PageDown: () => jumpTo(state.trial + 1),
      p: () => jumpTo(Math.max(0, state.trial - 1)), PageUp: () => jumpTo(Math.max(0, state.trial - 1)),
    };
    const act = keys[e.key];
    if (act) { e.preventDefault(); act(); }
  }

  function wire() {
    $("whole").onclick = whole;
    $("zoom-in").onclick = () => zoom(0.5);
    $("zoom-out").onclick = () => zoom(2);
    $("pan-left").onclick = () => pan(-0.25);
    $("pan-right").onclick = () => pan(0.25);
    $("next-trial").onclick = () => jumpTo(state.trial + 1);
    $("prev-trial").onclick = () => jumpTo(Math.max(0, state.trial - 1));
    $("span-form").onsubmit = (e) => {
      e.preventDefault();
      const a = parseFloat($("span-start").value), b = parseFloat($("span-end").value);
      if (Number.isFinite(a) && Number.isFinite(b) && b > a) setView(a, b);
      else status("the span needs a start before its end, in ms", true);
    };
    addEventListener("keydown", onKey);
    addEventListener("resize", () => {
      const w = $("charts").clientWidth;
      for (const u of charts) u.setSize({ width: w, height: u.height });
      schedule(30);
    });
  }

  async function start() {
    try {
      const page = await get("/api/page", {});
      state.first = page.first;
      state.last = Math.max(page.last, page.first + MIN_SPAN);
      state.trials = page.trials;
      state.screen = page.screen;
      state.maxColumns = page.max_columns;
      showHeader(page.info);
      showTrials(page.trials);
      makeCharts(page.info.series);
      makeScanpath();
      wire();
      whole();
    } catch (e) {
      status(String(e.message || e), true);
    }
  }

  window.orbView = {
    state, drawn, setView, jumpTo, zoom, pan, whole,
    // True when nothing is asked or about to be asked of the server.
    idle: () => state.pending === 0 && state.timer === null && charts.length > 0 && state.samples !== null,
  };
  start();
})();
