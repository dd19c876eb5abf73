// The live display: asks the server for pings (a long poll that returns as
// soon as a ping newer than the last one shown is there) and draws the
// newest ping's wedge and profile and every ping's waterfall line.
"use strict";

// One colour map for every picture: dark purple through red and orange to
// pale yellow, brightness rising steadily (the replay tool's PNGs use it too).
const COLOUR_POINTS = [
  [0, 0, 4], [22, 11, 57], [66, 10, 104], [106, 23, 110], [147, 38, 103], [188, 55, 84],
  [221, 81, 58], [243, 118, 27], [252, 165, 10], [246, 215, 70], [252, 255, 164],
];
const LUT = new Uint32Array(256);  // ABGR words for ImageData on little-endian machines
const LUT_RGB = [];
for (let i = 0; i < 256; i++) {
  const t = (i / 255) * (COLOUR_POINTS.length - 1);
  const k = Math.min(Math.floor(t), COLOUR_POINTS.length - 2);
  const f = t - k;
  const c = [0, 1, 2].map((j) => Math.round(COLOUR_POINTS[k][j] * (1 - f) + COLOUR_POINTS[k + 1][j] * f));
  LUT[i] = (255 << 24) | (c[2] << 16) | (c[1] << 8) | c[0];
  LUT_RGB.push(`rgb(${c[0]},${c[1]},${c[2]})`);
}

const WATERFALL_ROWS = 150;  // two screen pixels a ping
const OWN_COLOUR = "#4fc3f7";
const COPIED_COLOUR = "#ffb74d";
const $ = (id) => document.getElementById(id);

const view = {
  seq: -1,
  version: null,
  state: null,
  current: null,           // the newest ping shown
  waterfall: [],           // newest first: {db: Float32Array, halfRange}
  profileBounds: null,
  shownTimes: [],          // when each ping's pictures were drawn (ms), for the rate
  pingsShown: 0,           // pings whose wedge and profile were drawn
  linesShown: 0,           // waterfall lines received and drawn
  wedgeCanvas: document.createElement("canvas"),
  waterfallCanvas: document.createElement("canvas"),
};
window.kvaneView = view;   // for tests and measurements from the browser's side

function decodeBase64(text) {
  const binary = atob(text);
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; i++) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

// A canvas sized to its box at the screen's pixel density; drawing is in CSS pixels.
function fitCanvas(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth, height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const ctx = canvas.getContext("2d");
  ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
  ctx.clearRect(0, 0, width, height);
  return { ctx, width, height };
}

// 1, 2 or 5 times a power of ten, about span / count.
function niceStep(span, count) {
  const raw = span / Math.max(count, 1);
  const power = Math.pow(10, Math.floor(Math.log10(raw)));
  for (const m of [1, 2, 5, 10]) if (m * power >= raw) return m * power;
  return 10 * power;
}

function label(ctx, text, x, y, align = "left", baseline = "middle") {
  ctx.save();
  ctx.font = "12px system-ui, sans-serif";
  ctx.textAlign = align;
  ctx.textBaseline = baseline;
  ctx.lineWidth = 3;
  ctx.strokeStyle = "rgba(0,0,0,0.8)";
  ctx.strokeText(text, x, y);
  ctx.fillStyle = "#e6edf3";
  ctx.fillText(text, x, y);
  ctx.restore();
}

// ---- the wedge -------------------------------------------------------------

// The kernel paints the starboard beams on the left of its raster; the page
// mirrors it so that port is on the left, as in the waterfall and the profile.
function drawWedge(ping) {
  const w = ping.wedge;
  const off = view.wedgeCanvas;
  if (off.width !== w.width || off.height !== w.height) {
    off.width = w.width;
    off.height = w.height;
  }
  const octx = off.getContext("2d");
  const image = octx.createImageData(w.width, w.height);
  const pixels = new Uint32Array(image.data.buffer);
  const levels = decodeBase64(w.data);
  for (let i = 0; i < levels.length; i++) pixels[i] = LUT[levels[i]];
  octx.putImageData(image, 0, 0);

  const { ctx, width, height } = fitCanvas($("wedge"));
  const scale = Math.min(width / w.width, (height - 4) / w.height);
  const left = (width - w.width * scale) / 2, top = 2;
  ctx.save();
  ctx.translate(left + w.width * scale, top);
  ctx.scale(-scale, scale);
  ctx.imageSmoothingEnabled = true;
  ctx.drawImage(off, 0, 0);
  ctx.restore();

  // Range rings: a ring at R metres lies at R / (metres per sample) minus
  // the dropped samples on the raster's range axis.
  const apex = left + (w.width - w.apex_x) * scale;
  const sx = w.pixels_per_sample_x * scale, sy = w.pixels_per_sample_y * scale;
  const maxRange = (ping.samples + w.dropped_samples) * w.metres_per_sample;
  const step = niceStep(maxRange, 6);
  const toPort = -w.sector_port * Math.PI / 180, toStarboard = w.sector_starboard * Math.PI / 180;
  ctx.strokeStyle = "rgba(200, 220, 255, 0.45)";
  ctx.lineWidth = 1;
  for (let r = step; r <= maxRange + 1e-9; r += step) {
    const v = r / w.metres_per_sample - w.dropped_samples;
    if (v <= 0) continue;
    ctx.beginPath();
    for (let k = 0; k <= 48; k++) {
      const a = toPort + (toStarboard - toPort) * k / 48;
      const x = apex + v * sx * Math.sin(a), y = top + v * sy * Math.cos(a);
      if (k === 0) ctx.moveTo(x, y); else ctx.lineTo(x, y);
    }
    ctx.stroke();
    label(ctx, `${+r.toFixed(3)} m`, apex + v * sx * Math.sin(toPort) - 4, top + v * sy * Math.cos(toPort), "right");
  }
  ctx.beginPath();
  for (const a of [toPort, toStarboard]) {
    const v = ping.samples;
    ctx.moveTo(apex, top);
    ctx.lineTo(apex + v * sx * Math.sin(a), top + v * sy * Math.cos(a));
  }
  ctx.stroke();
  label(ctx, "port", 6, 12);
  label(ctx, "starboard", width - 6, 12, "right");
}

// ---- the profile -------------------------------------------------------------

function profileBounds(ping) {
  const p = ping.profile;
  let maxAcross = 0, minDepth = Infinity, maxDepth = -Infinity;
  for (let b = 0; b < p.across.length; b++) {
    if (p.across[b] === null || p.depth[b] === null) continue;
    maxAcross = Math.max(maxAcross, Math.abs(p.across[b]));
    minDepth = Math.min(minDepth, p.depth[b]);
    maxDepth = Math.max(maxDepth, p.depth[b]);
  }
  if (!isFinite(minDepth)) return null;
  const pad = Math.max((maxDepth - minDepth) * 0.15, 0.5);
  return { x: maxAcross * 1.05 + 0.5, top: Math.max(0, minDepth - pad), bottom: maxDepth + pad };
}

// The axes stay put from ping to ping unless the soundings leave them or
// shrink to less than half of them.
function steadyBounds(previous, next) {
  if (!previous) return next;
  const depthSpan = previous.bottom - previous.top;
  const inside = next.x <= previous.x && next.top >= previous.top && next.bottom <= previous.bottom;
  const filled = next.x > previous.x * 0.5 && (next.bottom - next.top) > depthSpan * 0.5;
  return inside && filled ? previous : next;
}

// The per-beam array the profile is coloured by: the user's pick from the
// select, else the one the server names; null for colours by origin.
function colourChoice(p) {
  const select = $("colour-by");
  const names = Object.keys(p.beams);
  select.hidden = names.length === 0;
  const values = ["origin", ...names];
  if ([...select.options].map((o) => o.value).join() !== values.join()) {
    select.innerHTML = "";
    select.add(new Option("colour: origin", "origin"));
    for (const name of names) select.add(new Option(`colour: ${p.beams[name].label}`, name));
  }
  const choice = view.colourBy || p.colour_by || "origin";
  select.value = choice;
  return p.beams[choice] || null;
}

function drawProfile(ping) {
  const { ctx, width, height } = fitCanvas($("profile"));
  const p = ping.profile;
  const bounds = profileBounds(ping);
  if (!bounds) {
    view.profileBounds = null;
    label(ctx, "no soundings in this ping", width / 2, height / 2, "center");
    return;
  }
  const b = view.profileBounds = steadyBounds(view.profileBounds, bounds);
  const m = { left: 52, right: 12, top: 30, bottom: 30 };  // the key above the plot
  const plotW = width - m.left - m.right, plotH = height - m.top - m.bottom;
  const X = (x) => m.left + (x + b.x) / (2 * b.x) * plotW;
  const Y = (d) => m.top + (d - b.top) / (b.bottom - b.top) * plotH;

  ctx.fillStyle = "#05080c";
  ctx.fillRect(m.left, m.top, plotW, plotH);
  ctx.strokeStyle = "rgba(139,148,158,0.3)";
  ctx.lineWidth = 1;
  const xs = niceStep(2 * b.x, 6), ys = niceStep(b.bottom - b.top, 5);
  for (let x = Math.ceil(-b.x / xs) * xs; x <= b.x; x += xs) {
    ctx.beginPath(); ctx.moveTo(X(x), m.top); ctx.lineTo(X(x), m.top + plotH); ctx.stroke();
    label(ctx, `${+x.toFixed(3)}`, X(x), m.top + plotH + 10, "center");
  }
  for (let d = Math.ceil(b.top / ys) * ys; d <= b.bottom; d += ys) {
    ctx.beginPath(); ctx.moveTo(m.left, Y(d)); ctx.lineTo(m.left + plotW, Y(d)); ctx.stroke();
    label(ctx, `${+d.toFixed(3)}`, m.left - 6, Y(d), "right");
  }
  label(ctx, "across track, m (starboard +)", m.left + plotW / 2, height - 6, "center");
  ctx.save();
  ctx.translate(12, m.top + plotH / 2);
  ctx.rotate(-Math.PI / 2);
  label(ctx, "depth, m", 0, 0, "center");
  ctx.restore();

  // Points coloured by a per-beam quantity the ping carries (the depth
  // uncertainty), or by origin, as picked; copied beams are always rings.
  const extra = colourChoice(p);
  // The colours span the lowest value to the 95th percentile, so that a few
  // outliers do not darken the rest; higher values take the brightest colour.
  let low = 0, high = 1;
  if (extra) {
    const known = Float64Array.from(extra.values.filter((v) => v !== null)).sort();
    if (known.length) {
      low = known[0];
      high = percentile(known, 0.95);
    }
    if (!(high > low)) high = low + 1;
  }
  const colourOf = (beam, flag) => {
    if (extra) {
      const v = extra.values[beam];
      if (v === null) return "#888";
      return LUT_RGB[Math.round(40 + 215 * Math.min(1, (v - low) / (high - low)))];
    }
    return flag === 2 ? COPIED_COLOUR : OWN_COLOUR;
  };
  ctx.save();
  ctx.beginPath();
  ctx.rect(m.left, m.top, plotW, plotH);
  ctx.clip();
  ctx.strokeStyle = "rgba(79,195,247,0.35)";
  ctx.beginPath();
  let open = false;
  for (let i = 0; i < p.across.length; i++) {
    if (p.across[i] === null) { open = false; continue; }
    if (open) ctx.lineTo(X(p.across[i]), Y(p.depth[i])); else ctx.moveTo(X(p.across[i]), Y(p.depth[i]));
    open = true;
  }
  ctx.stroke();
  for (let i = 0; i < p.across.length; i++) {
    if (p.across[i] === null) continue;
    const colour = colourOf(i, p.flag[i]);
    ctx.beginPath();
    ctx.arc(X(p.across[i]), Y(p.depth[i]), 2.6, 0, 2 * Math.PI);
    if (p.flag[i] === 2) {
      ctx.strokeStyle = colour; ctx.lineWidth = 1.4; ctx.stroke();
    } else {
      ctx.fillStyle = colour; ctx.fill();
    }
  }
  ctx.restore();

  drawProfileLegend(ctx, m.left, 4, extra, low, high);
}

// The key, above the plot: dots and rings by origin, or a colour bar
// from the lowest to the highest value of the quantity the points show.
function drawProfileLegend(ctx, x, y, extra, low, high) {
  ctx.save();
  const mid = y + 11;
  const dot = (cx, colour, ring) => {
    ctx.beginPath();
    ctx.arc(cx, mid, 3, 0, 2 * Math.PI);
    if (ring) { ctx.strokeStyle = colour; ctx.lineWidth = 1.4; ctx.stroke(); } else { ctx.fillStyle = colour; ctx.fill(); }
  };
  if (extra) {
    label(ctx, `${+low.toPrecision(2)}`, x + 6, mid);
    const bar = x + 40;
    for (let i = 0; i < 60; i++) {
      ctx.fillStyle = LUT_RGB[Math.round(40 + 215 * i / 59)];
      ctx.fillRect(bar + i, mid - 5, 1, 10);
    }
    const top = `${+high.toPrecision(2)} ${extra.units} and above`;
    label(ctx, top, bar + 64, mid);
    ctx.font = "12px system-ui, sans-serif";
    const ring = bar + 64 + ctx.measureText(top).width + 16;
    dot(ring, "#ccc", true);
    label(ctx, "copied", ring + 8, mid);
  } else {
    dot(x + 10, OWN_COLOUR, false);
    label(ctx, "own detection", x + 18, mid);
    dot(x + 122, COPIED_COLOUR, true);
    label(ctx, "copied from a neighbour", x + 130, mid);
  }
  ctx.restore();
}

// ---- the waterfall -----------------------------------------------------------

function addWaterfallLine(ping) {
  const bytes = decodeBase64(ping.waterfall.db);
  view.waterfall.unshift({ db: new Float32Array(bytes.buffer), halfRange: ping.waterfall.half_range_m });
  if (view.waterfall.length > WATERFALL_ROWS) view.waterfall.length = WATERFALL_ROWS;
  view.linesShown++;
}

function percentile(sorted, fraction) {
  return sorted[Math.min(sorted.length - 1, Math.floor(fraction * (sorted.length - 1)))];
}

// Decibels to colours over the 5th to 99.5th percentile of the newest lines,
// so that the noise floor is dark and the seabed bright at any gain.
function drawWaterfall() {
  const lines = view.waterfall;
  const { ctx, width, height } = fitCanvas($("waterfall"));
  if (!lines.length) return;
  const columns = lines[0].db.length;
  const recent = [];
  for (let r = 0; r < Math.min(lines.length, 30); r++) {
    for (const v of lines[r].db) if (isFinite(v)) recent.push(v);
  }
  const sorted = Float32Array.from(recent).sort();
  const low = sorted.length ? percentile(sorted, 0.05) : 0;
  const high = sorted.length ? Math.max(percentile(sorted, 0.995), low + 1) : 1;

  const off = view.waterfallCanvas;
  if (off.width !== columns || off.height !== WATERFALL_ROWS) {
    off.width = columns;
    off.height = WATERFALL_ROWS;
  }
  const octx = off.getContext("2d");
  const image = octx.createImageData(columns, WATERFALL_ROWS);
  const pixels = new Uint32Array(image.data.buffer);
  pixels.fill(LUT[0]);
  const scale = 255 / (high - low);
  for (let r = 0; r < lines.length; r++) {
    const db = lines[r].db, n = db.length;
    const base = r * columns;
    for (let c = 0; c < columns; c++) {
      const v = n === columns ? db[c] : db[Math.floor(c * n / columns)];
      if (v === v) pixels[base + c] = LUT[Math.max(0, Math.min(255, Math.round((v - low) * scale)))];
    }
  }
  octx.putImageData(image, 0, 0);
  const top = 16;
  ctx.imageSmoothingEnabled = true;
  ctx.drawImage(off, 0, 0, columns, WATERFALL_ROWS, 0, top, width, height - top);

  // Range from the seam: each half spans the ping's samples past its first echo.
  const half = lines[0].halfRange;
  const step = niceStep(half, 3);
  ctx.strokeStyle = "rgba(200,220,255,0.5)";
  for (let r = 0; r <= half + 1e-9; r += step) {
    for (const side of r === 0 ? [1] : [-1, 1]) {
      const x = width / 2 + side * (r / half) * (width / 2);
      ctx.beginPath(); ctx.moveTo(x, top - 4); ctx.lineTo(x, top); ctx.stroke();
      if (x > 30 && x < width - 30) label(ctx, `${+r.toFixed(3)} m`, x, 7, "center");
    }
  }
  label(ctx, "port", 4, 7);
  label(ctx, "starboard", width - 4, 7, "right");
  label(ctx, `${lines.length} pings · ${low.toFixed(0)} to ${high.toFixed(0)} dB`, 6, height - 9);
}

// ---- the numbers and the state -----------------------------------------------

function showPing(ping) {
  $("ping-number").textContent = ping.number;
  $("pass").textContent = ping.pass > 1 ? `pass ${ping.pass}` : "";
  $("samples").textContent = ping.samples;
  $("kernel-ms").textContent = ping.kernel_ms.toFixed(1);
  $("rtf").textContent = ping.real_time_factor === null ? "–" : ping.real_time_factor.toFixed(1);
  $("summary").textContent = ping.summary.map((s) =>
    `${s.label} ${s.value === null ? "–" : +Number(s.value).toPrecision(4)}${s.units ? " " + s.units : ""}`).join(" · ");
  const now = performance.now();
  view.shownTimes.push(now);
  while (view.shownTimes.length && view.shownTimes[0] < now - 3000) view.shownTimes.shift();
}

// Pings drawn per second over the last three seconds.
view.rate = function () {
  const t = view.shownTimes;
  if (t.length < 2) return 0;
  const span = (performance.now() - t[0]) / 1000;
  return span > 0 ? (t.length - 1) / Math.max(span, (t[t.length - 1] - t[0]) / 1000) : 0;
};

function showMessage(text) {
  const box = $("message");
  box.hidden = !text;
  box.textContent = text || "";
}

function showState(state) {
  view.state = state;
  $("recording").textContent = state.recording + (state.follow ? " (following)" : "");
  $("play").textContent = state.playing ? "Pause" : "Play";
  const speed = String(state.speed);
  if ($("speed").value !== speed && document.activeElement !== $("speed")) {
    if (![...$("speed").options].some((o) => o.value === speed)) {
      $("speed").add(new Option(`${speed} × real time`, speed));
    }
    $("speed").value = speed;
  }
  $("loop").checked = state.loop;
  const restart = "; play starts again from the first ping";
  $("status").textContent = state.status === "ended" ? "end of the recording" + restart
    : state.status === "stopped" ? "stopped" + restart : state.status;
  showMessage(state.message);
  for (const input of $("params").elements) {
    if (input.name && document.activeElement !== input && !input.dataset.edited) {
      const pending = state.pending[input.name];
      input.value = pending !== undefined ? pending : state.params[input.name];
    }
  }
}

async function control(request) {
  const reply = await fetch("/api/control", {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(request),
  });
  const answer = await reply.json();
  if (answer.state) showState(answer.state);
  return { ok: reply.ok, text: answer.error || answer.message };
}

function handle(reply) {
  const pings = reply.pings;
  if (pings.length && pings[0].seq <= view.seq) {  // the server started again
    view.waterfall = [];
    view.profileBounds = null;
  }
  for (const ping of pings) addWaterfallLine(ping);
  if (pings.length) {
    const started = performance.now();
    const newest = pings[pings.length - 1];
    view.seq = newest.seq;
    view.current = newest;
    if (newest.wedge) drawWedge(newest);
    drawProfile(newest);
    drawWaterfall();
    showPing(newest);
    view.pingsShown++;
    // Time to decode and draw, averaged over the last pings: the display's own cost.
    view.drawMs = 0.9 * (view.drawMs || 0) + 0.1 * (performance.now() - started);
  }
  showState(reply.state);
  view.version = reply.state.version;
  $("display-rate").textContent = view.rate().toFixed(1);
}

async function poll() {
  for (;;) {
    let reply;
    try {
      const version = view.version === null ? "" : `&version=${view.version}`;
      const answer = await fetch(`/api/pings?after=${view.seq}${version}&timeout=20&limit=${WATERFALL_ROWS}`,
        { cache: "no-store" });
      reply = await answer.json();
    } catch (error) {
      $("status").textContent = "no connection to kvane-view; trying again";
      await new Promise((resolve) => setTimeout(resolve, 1000));
      continue;
    }
    handle(reply);
  }
}

// ---- controls ----------------------------------------------------------------

$("play").addEventListener("click", () => control({ action: view.state && view.state.playing ? "pause" : "play" }));
$("step").addEventListener("click", () => control({ action: "step" }));
$("speed").addEventListener("change", (e) => control({ speed: e.target.value }));
$("loop").addEventListener("change", (e) => control({ loop: e.target.checked }));
$("colour-by").addEventListener("change", (e) => {
  view.colourBy = e.target.value;
  if (view.current) drawProfile(view.current);
});
for (const input of $("params").elements) {
  if (input.name) input.addEventListener("input", () => { input.dataset.edited = "1"; });
}
$("params").addEventListener("submit", async (event) => {
  event.preventDefault();
  const values = {};
  for (const input of $("params").elements) {
    if (input.name && input.dataset.edited) values[input.name] = input.value;
  }
  const note = $("params-note");
  if (!Object.keys(values).length) {
    note.textContent = "nothing changed";
    note.className = "";
    return;
  }
  const answer = await control({ params: values });
  note.textContent = answer.ok ? answer.text : `refused: ${answer.text}`;
  note.className = answer.ok ? "" : "bad";
  if (answer.ok) {
    for (const input of $("params").elements) delete input.dataset.edited;
    if (view.state) showState(view.state);
  }
});
document.addEventListener("keydown", (event) => {
  if (event.target.tagName === "INPUT" || event.target.tagName === "SELECT") return;
  if (event.key === " ") { event.preventDefault(); $("play").click(); }
  if (event.key === "ArrowRight") { event.preventDefault(); $("step").click(); }
});
window.addEventListener("resize", () => {
  if (!view.current) return;
  if (view.current.wedge) drawWedge(view.current);
  drawProfile(view.current);
  drawWaterfall();
});

poll();
