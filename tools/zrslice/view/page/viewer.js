// zrslice view: the page. Every picture comes from the server, which runs the
// request document this page builds for a view through the render plug-in;
// the page itself draws only the crosshair, the other views' planes and the
// curve points over the pictures (on a canvas of their own, so the pictures
// stay the module's pixels).
'use strict';

// ---- small vector functions (world coordinates: LPS millimetres) ----
const add = (a, b) => [a[0] + b[0], a[1] + b[1], a[2] + b[2]];
const sub = (a, b) => [a[0] - b[0], a[1] - b[1], a[2] - b[2]];
const scale = (a, s) => [a[0] * s, a[1] * s, a[2] * s];
const dot = (a, b) => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
const cross = (a, b) => [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]];
const norm = (a) => Math.hypot(a[0], a[1], a[2]);
const unit = (a) => { const n = norm(a); return n > 1e-12 ? scale(a, 1 / n) : [0, 0, 0]; };
// Rotates v about the unit axis k by angle (Rodrigues).
function rotate(v, k, angle) {
  const c = Math.cos(angle), s = Math.sin(angle);
  return add(add(scale(v, c), scale(cross(k, v), s)), scale(k, dot(k, v) * (1 - c)));
}

const params = new URLSearchParams(location.search);
const fixedSize = Math.min(2048, Math.max(0, parseInt(params.get('size') || '0', 10) || 0));
const FAST_LENGTH = 128;     // longer side of a fast-quality frame
const REST_MS = 150;         // a pointer resting this long gets the full-quality frame

const state = {
  scene: null,
  cross: [0, 0, 0],
  table: 'window',
  preset: '',
  window: { centre: 40, width: 400 },
  mode: 0,
  thickness: 10,
  labels: 'off',
  iso: { on: false, value: 300 },
  meshes: true,
  fourth: 'oblique',
  curve: { points: [], normal: null, placing: false, line: null },
  lastView: 'axial',
};

// The views: axial, coronal and sagittal look along the axes (radiological:
// the patient's left on the right of the picture); the oblique view starts
// axial and turns with the mouse.
const views = [
  { id: 'axial', title: 'Axial', colour: '#4af', normal: [0, 0, 1], up: [0, -1, 0] },
  { id: 'coronal', title: 'Coronal', colour: '#4f6', normal: [0, 1, 0], up: [0, 0, 1] },
  { id: 'sagittal', title: 'Sagittal', colour: '#f84', normal: [-1, 0, 0], up: [0, 0, 1] },
  { id: 'fourth', title: 'Oblique', colour: '#e5e', normal: unit([0.3, 0.5, 1]), up: unit(cross(cross([0.3, 0.5, 1], [0, -1, 0]), [0.3, 0.5, 1])) },
];

const stats = { frames: 0, last: null, history: [] };

// ---- geometry of a view ----
function isCurved(v) { return v.id === 'fourth' && state.fourth === 'curved' && state.curve.line; }

// The camera of a view: orthographic, its plane through the crosshair (panned
// within the plane), square pixels of `spacing` mm. The curved view's camera
// looks at the unrolled curve laid around the world origin.
function camera(v) {
  const size = [v.canvas.width, v.canvas.height];
  if (isCurved(v)) {
    const n = [0, 0, 1], up = [0, -1, 0];
    return { position: [v.pan[0], v.pan[1], 0], n, up, right: [1, 0, 0], down: [0, 1, 0], spacing: v.spacing, size };
  }
  const right = unit(cross(v.normal, v.up));
  const down = cross(v.normal, right);
  // Centred on the volume (panned) within the plane; the plane through the
  // crosshair, so that moving the crosshair within a view's plane moves
  // nothing in that view.
  const centre = add(add(state.scene.volume.middle, scale(right, v.pan[0])), scale(down, v.pan[1]));
  const position = add(centre, scale(v.normal, dot(sub(state.cross, centre), v.normal)));
  return { position, n: v.normal, up: v.up, right, down, spacing: v.spacing, size };
}

function pixelToWorld(cam, x, y) {
  const dx = (x - 0.5 * (cam.size[0] - 1)) * cam.spacing, dy = (y - 0.5 * (cam.size[1] - 1)) * cam.spacing;
  return add(add(cam.position, scale(cam.right, dx)), scale(cam.down, dy));
}

function worldToPixel(cam, p) {
  const d = sub(p, cam.position);
  return [dot(d, cam.right) / cam.spacing + 0.5 * (cam.size[0] - 1), dot(d, cam.down) / cam.spacing + 0.5 * (cam.size[1] - 1)];
}

// A point of the curved view: the column picks the place along the centre
// line, the row the distance along its up vector.
function curvedToWorld(cam, x, y) {
  const line = state.curve.line;
  const plane = pixelToWorld(cam, x, y);
  const u = (plane[0] + 0.5 * line.length) / line.length;
  if (!(u >= 0 && u <= 1) || Math.abs(plane[1]) > 0.5 * line.height) return null;
  const at = u * (line.points.length - 1), k = Math.min(line.points.length - 2, Math.floor(at)), f = at - k;
  const p = add(scale(line.points[k], 1 - f), scale(line.points[k + 1], f));
  const up = unit(add(scale(line.ups[k], 1 - f), scale(line.ups[k + 1], f)));
  return add(p, scale(up, -plane[1]));
}

// Millimetres per voxel along a direction (a wheel step).
function voxelStep(direction) {
  const m = state.scene.volume.toVoxel;
  const d = [0, 1, 2].map((r) => m[0][r] * direction[0] + m[1][r] * direction[1] + m[2][r] * direction[2]);
  return 1 / Math.max(Math.abs(d[0]), Math.abs(d[1]), Math.abs(d[2]));
}

// ---- the request document of a view ----
function tableDescription() {
  const { centre, width } = state.window;
  if (state.table === 'ramp')
    return { type: 'table', controlPoints: [[centre - width / 2, 0, 0, 0, 1], [centre - width / 6, 0.55, 0.1, 0.05, 1],
                                            [centre + width / 6, 1, 0.7, 0.2, 1], [centre + width / 2, 1, 1, 1, 1]] };
  if (state.preset) return { type: 'table', preset: state.preset };
  return { type: 'table', window: { centre, width } };
}

function curveKeys() {
  const line = state.curve.line;
  const list = (vs) => vs.map((p) => [p[0], p[1], p[2]]);
  return {
    _bool_IsNonlinear: true,
    _float_ExPlaneWidth: line.length,
    _float_ExPlaneHeight: line.height,
    _float_CurveThicknessPositionRange: 1.0,
    _float_ThicknessRatio: 0.0,
    _vlist_FLOAT3_CurveInterpolations: list(line.points),
    _vlist_FLOAT3_CurveUpVectors: list(line.ups),
    _vlist_FLOAT3_CurveTangentVectors: list(line.tangents),
  };
}

function frameDocument(v, fast) {
  const scene = state.scene;
  const cam = camera(v);
  const objects = { volume: scene.objects.volume, window: tableDescription() };
  const volumeEntry = { object: 'volume', tables: { WINDOWING: 'window' } };
  const sceneList = [volumeEntry];
  const request = { _string_RenderingSourceType: 'SECTIONAL_VOLUME', _bool_IsFirstRenderer: true };
  const requests = [request];
  let mode = state.mode;
  // Labels on flat views (the mask-selected family draws planes only).
  if (state.labels !== 'off' && scene.labels && !isCurved(v)) {
    objects.labels = scene.objects.labels;
    volumeEntry.tables.MASKVOLUME = 'labels';
    volumeEntry.params = { _bool_MultiOTF: true, _int_NumOTFs: 5 };
    if (state.labels === 'mask') {
      // One table per label: the soft-tissue window, then each label's colour.
      objects.window = { type: 'table', preset: 'maskLabels' };
      mode = 0;
    } else {
      // The grey slice through mask-selected rows that all hold the same
      // window (one plane whatever the thickness), tinted by the labels'
      // colours (mode 101 over a plane thicker than a voxel).
      const row = tableDescription();
      delete row.type;
      objects.window = { type: 'table', rows: [row, row, row, row, row, row] };
      objects.labelColours = { type: 'table', preset: 'labels' };
      sceneList.push({ object: 'labels', tables: { WINDOWING: 'labelColours' } });
      mode = 101;
      request._float_PlaneThickness = Math.max(2.0, 1.5 * scene.volume.finestPitch);
    }
  }
  if (mode !== 0) request._int_VolumeRayCastType = mode;
  if (mode !== 0 && mode !== 101) request._float_PlaneThickness = state.thickness;
  if (mode === 1) {
    const { centre, width } = state.window;
    objects.otf = { type: 'table', controlPoints: [[centre - width / 2, 0, 0, 0, 0], [centre, 0.85, 0.55, 0.4, 0.35],
                                                   [centre + width / 2, 1, 0.97, 0.88, 1]] };
    volumeEntry.tables.OTF = 'otf';
    volumeEntry.objectParams = { _float2_GraidentMagMinMax: [0, Math.max(1, width)] };
  }
  if (state.iso.on) {
    request.targetVolume = 'volume';
    request._bool_DrawIsoBoundary = true;
    request._int_Density0 = Math.round(state.iso.value) + scene.volume.values.offset;
    request._double4_ColorOuter = [0.2, 1, 1, 1];  // cyan: apart from the meshes' colours
  }
  if (fast) Object.assign(request, { _bool_IsFastQualityMode: true, _int_LengthFastModeMax: FAST_LENGTH });
  if (isCurved(v)) Object.assign(request, curveKeys());
  if (state.meshes && scene.meshes.length) {
    for (const m of scene.meshes) {
      objects[m.name] = scene.objects[m.name];
      sceneList.push({ object: m.name, colour: m.colour });
    }
    request._bool_IsFinalRenderer = false;
    const meshRequest = { _string_RenderingSourceType: 'SECTIONAL_MESH', _bool_IsFirstRenderer: false,
                          _bool_IsFinalRenderer: true, _bool_IsRGBA: true, _int_LineThickness: 2 };
    if (isCurved(v)) Object.assign(meshRequest, curveKeys());
    requests.push(meshRequest);
  }
  return {
    description: `zrslice view: ${v.title} view of ${scene.source}`,
    image: { size: cam.size, camera: { position: cam.position, viewDirection: cam.n, up: cam.up,
                                       viewExtent: [cam.size[0] * cam.spacing, cam.size[1] * cam.spacing] } },
    objects,
    scene: sceneList,
    requests,
  };
}

// ---- frames ----
// Each view has at most one frame on the way; a change while one is on the
// way is sent when it returns (the server also drops a frame of a view that a
// newer one replaced before it was drawn).
function invalidate(v, fast) {
  if (!v.canvas.width) return;
  // A view whose picture would not change (the crosshair moved within its
  // plane) only needs its overlay drawn again.
  if (!fast && !v.dirty && !v.busy && !v.restTimer && v.shown &&
      JSON.stringify(frameDocument(v, false)) === JSON.stringify(v.shown)) {
    drawOverlay(v);
    drawn(v);
    return;
  }
  if (v.actionAt === null) v.actionAt = performance.now();
  v.wantFast = fast;
  v.dirty = true;
  pump(v);
  clearTimeout(v.restTimer);
  v.restTimer = fast ? setTimeout(() => { v.restTimer = null; invalidate(v, false); }, REST_MS) : null;
}

function invalidateAll(fast) { for (const v of views) invalidate(v, fast); }

async function pump(v) {
  if (v.busy || !v.dirty) return;
  v.busy = true;
  v.dirty = false;
  const fast = v.wantFast, startedAt = v.actionAt;
  v.actionAt = null;
  const doc = frameDocument(v, fast);
  try {
    const sentAt = performance.now();
    const res = await fetch(`/api/frame?view=${v.id}`, { method: 'POST', body: JSON.stringify(doc) });
    if (res.status === 409) return;
    if (!res.ok) { showMessage(await res.text()); return; }
    const answeredAt = performance.now();
    const width = +res.headers.get('X-Frame-Width'), height = +res.headers.get('X-Frame-Height');
    const pixels = new Uint8ClampedArray(await res.arrayBuffer());
    const receivedAt = performance.now();
    // Drawn opaque: the canvas keeps premultiplied colours, so a pixel the
    // module left transparent would lose its colour; opaque pixels keep the
    // module's R, G, B exactly.
    for (let k = 3; k < pixels.length; k += 4) pixels[k] = 255;
    if (width === v.canvas.width && height === v.canvas.height)
      v.context.putImageData(new ImageData(pixels, width, height), 0, 0);
    v.shown = doc;
    const renderMs = parseFloat(res.headers.get('X-Render-Ms'));
    const totalMs = performance.now() - startedAt;
    stats.frames++;
    // Where the time went: until the request left, the server's answer (its
    // render included), the body's transfer, and drawing.
    stats.last = { view: v.id, fast, renderMs, totalMs, width, height, beforeSendMs: sentAt - startedAt,
                   answerMs: answeredAt - sentAt, transferMs: receivedAt - answeredAt,
                   drawMs: performance.now() - receivedAt };
    stats.history.push(stats.last);
    if (stats.history.length > 200) stats.history.shift();
    document.getElementById('timing').textContent =
      `last frame (${v.title}${fast ? ', fast' : ''}): render ${renderMs.toFixed(1)} ms, action to pixels ${totalMs.toFixed(1)} ms`;
    const warnings = JSON.parse(res.headers.get('X-Frame-Warnings') || '[]');
    if (warnings.length) showMessage(warnings[0]);
  } catch (e) {
    showMessage(`frame: ${e}`);
  } finally {
    v.busy = false;
    drawOverlay(v);
    if (v.dirty) pump(v);
    else drawn(v);
  }
}

function showMessage(text) { document.getElementById('message').textContent = text.trim(); }

// ---- overlays ----
function drawOverlay(v) {
  const g = v.overlay.getContext('2d');
  g.clearRect(0, 0, v.overlay.width, v.overlay.height);
  const cam = camera(v);
  if (!isCurved(v)) {
    // The other views' planes through the crosshair, in their colours.
    const c = worldToPixel(cam, state.cross);
    for (const other of views) {
      if (other === v || isCurved(other)) continue;
      const d = cross(v.normal, other.normal);
      if (norm(d) < 1e-6) continue;
      const dir = unit([dot(d, cam.right), dot(d, cam.down), 0]);
      const far = v.overlay.width + v.overlay.height;
      g.strokeStyle = other.colour;
      g.lineWidth = 1;
      g.beginPath();
      g.moveTo(c[0] - dir[0] * far, c[1] - dir[1] * far);
      g.lineTo(c[0] + dir[0] * far, c[1] + dir[1] * far);
      g.stroke();
    }
    // Curve points: filled near this plane, hollow further away.
    const pts = state.curve.points.map((p) => worldToPixel(cam, p));
    g.strokeStyle = '#ff0';
    if (pts.length > 1) {
      g.beginPath();
      pts.forEach((p, k) => (k ? g.lineTo(p[0], p[1]) : g.moveTo(p[0], p[1])));
      g.setLineDash([4, 4]);
      g.stroke();
      g.setLineDash([]);
    }
    state.curve.points.forEach((p, k) => {
      const near = Math.abs(dot(sub(p, cam.position), cam.n)) < 2 * voxelStep(cam.n);
      g.beginPath();
      g.arc(pts[k][0], pts[k][1], 4, 0, 2 * Math.PI);
      g.fillStyle = '#ff0';
      if (near) g.fill(); else g.stroke();
    });
  }
  g.strokeStyle = v.colour;
  g.lineWidth = 2;
  g.strokeRect(1, 1, v.overlay.width - 2, v.overlay.height - 2);
}

// ---- the curve ----
// Centripetal Catmull-Rom through the points, resampled at even arc length
// (one sample per finest voxel pitch), with the tangents and the up vectors:
// the normal of the view the points were placed in, made perpendicular to
// the tangent.
function buildCurve() {
  const pts = state.curve.points;
  if (pts.length < 2) { state.curve.line = null; return; }
  const dense = [];
  const ext = [sub(scale(pts[0], 2), pts[1]), ...pts, sub(scale(pts[pts.length - 1], 2), pts[pts.length - 2])];
  for (let s = 1; s < ext.length - 2; ++s) {
    const [p0, p1, p2, p3] = [ext[s - 1], ext[s], ext[s + 1], ext[s + 2]];
    const t0 = 0, t1 = t0 + Math.sqrt(norm(sub(p1, p0)) || 1e-6), t2 = t1 + Math.sqrt(norm(sub(p2, p1)) || 1e-6),
          t3 = t2 + Math.sqrt(norm(sub(p3, p2)) || 1e-6);
    const lerp = (a, b, ta, tb, t) => add(scale(a, (tb - t) / (tb - ta)), scale(b, (t - ta) / (tb - ta)));
    for (let i = 0; i < 32; ++i) {
      const t = t1 + (t2 - t1) * (i / 32);
      const a1 = lerp(p0, p1, t0, t1, t), a2 = lerp(p1, p2, t1, t2, t), a3 = lerp(p2, p3, t2, t3, t);
      const b1 = lerp(a1, a2, t0, t2, t), b2 = lerp(a2, a3, t1, t3, t);
      dense.push(lerp(b1, b2, t1, t2, t));
    }
  }
  dense.push(pts[pts.length - 1]);
  const along = [0];
  for (let k = 1; k < dense.length; ++k) along.push(along[k - 1] + norm(sub(dense[k], dense[k - 1])));
  const length = along[along.length - 1];
  if (!(length > 0)) { state.curve.line = null; return; }
  const count = Math.min(4096, Math.max(2, Math.round(length / state.scene.volume.finestPitch) + 1));
  const points = [];
  for (let i = 0, k = 0; i < count; ++i) {
    const s = (length * i) / (count - 1);
    while (k < dense.length - 2 && along[k + 1] < s) ++k;
    const f = along[k + 1] > along[k] ? (s - along[k]) / (along[k + 1] - along[k]) : 0;
    points.push(add(scale(dense[k], 1 - f), scale(dense[k + 1], f)));
  }
  const tangents = points.map((p, i) => unit(sub(points[Math.min(i + 1, count - 1)], points[Math.max(i - 1, 0)])));
  const normal = state.curve.normal;
  const ups = tangents.map((t) => {
    let u = sub(normal, scale(t, dot(normal, t)));
    if (norm(u) < 1e-3) u = cross(t, Math.abs(t[0]) < 0.9 ? [1, 0, 0] : [0, 1, 0]);
    return unit(u);
  });
  // As tall as the volume is along the up direction.
  const box = state.scene.volume.box;
  const height = Math.max(10, Math.abs(dot(box.size[0], normal)) + Math.abs(dot(box.size[1], normal)) + Math.abs(dot(box.size[2], normal)));
  state.curve.line = { points, tangents, ups, length, height };
}

function curveChanged() {
  buildCurve();
  const fourth = views[3];
  fourth.title = isCurved(fourth) ? 'Curved' : 'Oblique';
  fourth.label.textContent = fourth.title;
  if (isCurved(fourth)) { fourth.pan = [0, 0]; fit(fourth); }
}

// ---- input ----
// The view the user acts on gets its frame first; the others follow once it
// is drawn, so that the render thread is not busy with them meanwhile.
function setCross(p, from) {
  state.cross = p;
  from.onDrawn = () => invalidateAll(false);
  invalidate(from, false);
}

function drawn(v) {
  const then = v.onDrawn;
  v.onDrawn = null;
  if (then) then();
}

// True when the view shows a maximum or minimum slab: its pixels then come
// from one winning sample somewhere in the slab, which the server can find.
function showsSlabExtreme(v) {
  const r = v.shown && v.shown.requests[0];
  return !isCurved(v) && r && (r._int_VolumeRayCastType === 10 || r._int_VolumeRayCastType === 11);
}

// The winning sample under pixel (x, y) of a maximum or minimum slab view.
async function pick(v, x, y) {
  const res = await fetch(`/api/pick?x=${x}&y=${y}`, { method: 'POST', body: JSON.stringify(v.shown) });
  if (!res.ok) return null;
  const answer = await res.json();
  return answer.found ? answer : null;
}

async function probe(v, x, y) {
  const cam = camera(v);
  const p = isCurved(v) ? curvedToWorld(cam, x, y) : pixelToWorld(cam, x, y);
  const readout = document.getElementById('readout');
  if (!p) { readout.textContent = `${v.title}: outside the curve`; return; }
  if (v.probing) { v.probeNext = [x, y]; return; }
  v.probing = true;
  try {
    const units = state.scene.volume.values.units;
    const valueText = (value) => `${+value.toFixed(3)}${units ? ' ' + units : ''}`;
    const res = await fetch(`/api/probe?x=${p[0]}&y=${p[1]}&z=${p[2]}`);
    const answer = await res.json();
    let text = `LPS (${p.map((c) => c.toFixed(1)).join(', ')}) mm`;
    text += answer.inside ? `, voxel (${answer.voxel.join(', ')}), value ${valueText(answer.value)}` : ', outside the volume';
    if (showsSlabExtreme(v)) {
      const won = await pick(v, x, y);
      if (won)
        text += `; slab's winning sample at LPS (${won.world.map((c) => c.toFixed(1)).join(', ')}) mm, voxel (${won.voxel.map((c) => c.toFixed(1)).join(', ')}), ` +
                `layer ${won.layer + 1} of ${won.layerCount}, value ${valueText(won.value)} (click: crosshair there)`;
    }
    readout.textContent = text;
  } finally {
    v.probing = false;
    if (v.probeNext) { const [nx, ny] = v.probeNext; v.probeNext = null; probe(v, nx, ny); }
  }
}

function nearestCurvePoint(v, x, y) {
  const cam = camera(v);
  let best = -1, bestDistance = 7;
  state.curve.points.forEach((p, k) => {
    const q = worldToPixel(cam, p);
    const d = Math.hypot(q[0] - x, q[1] - y);
    if (d < bestDistance) { best = k; bestDistance = d; }
  });
  return best;
}

function windowText() {
  const { centre, width } = state.window;
  const units = state.scene.volume.values.units;
  document.getElementById('window-text').textContent = `level ${+centre.toFixed(2)} width ${+width.toFixed(2)}${units ? ' ' + units : ''}`;
}

function attachInput(v) {
  const el = v.overlay;
  el.addEventListener('contextmenu', (e) => e.preventDefault());
  el.addEventListener('wheel', (e) => {
    e.preventDefault();
    state.lastView = v.id;
    if (e.ctrlKey) {
      v.spacing *= Math.exp(Math.sign(e.deltaY) * 0.1);
      invalidate(v, false);
      return;
    }
    if (isCurved(v)) return;
    const step = voxelStep(v.normal) * (e.shiftKey ? 10 : 1) * Math.sign(e.deltaY);
    setCross(add(state.cross, scale(v.normal, step)), v);
  }, { passive: false });
  el.addEventListener('pointerdown', (e) => {
    state.lastView = v.id;
    el.setPointerCapture(e.pointerId);
    let kind = 'window';
    if (e.button === 1 || (e.button === 0 && e.ctrlKey)) kind = 'pan';
    else if (e.button === 2) kind = 'zoom';
    else if (v.id === 'fourth' && !isCurved(v) && !e.shiftKey) kind = 'rotate';
    const grabbed = e.button === 0 && !isCurved(v) ? nearestCurvePoint(v, e.offsetX, e.offsetY) : -1;
    if (grabbed >= 0) kind = 'point';
    v.drag = { kind, x: e.offsetX, y: e.offsetY, moved: false, grabbed };
  });
  el.addEventListener('pointermove', (e) => {
    probe(v, e.offsetX, e.offsetY);
    const d = v.drag;
    if (!d) return;
    const dx = e.offsetX - d.x, dy = e.offsetY - d.y;
    if (!d.moved && Math.hypot(dx, dy) < 3) return;
    d.moved = true;
    d.x = e.offsetX;
    d.y = e.offsetY;
    if (d.kind === 'window') {
      state.preset = '';
      document.getElementById('preset').value = '';
      const w = state.window;
      w.width = Math.max(1e-3, w.width * Math.exp(dx * 0.005));
      w.centre -= dy * w.width * 0.004;
      windowText();
      invalidateAll(true);
    } else if (d.kind === 'pan') {
      v.pan = [v.pan[0] - dx * v.spacing, v.pan[1] - dy * v.spacing];
      invalidate(v, true);
    } else if (d.kind === 'zoom') {
      v.spacing *= Math.exp(dy * 0.01);
      invalidate(v, true);
    } else if (d.kind === 'rotate') {
      const right = unit(cross(v.normal, v.up)), down = cross(v.normal, right);
      // Horizontal motion turns the plane about its up axis, vertical about its right axis.
      const turns = [[down, dx * 0.01], [right, -dy * 0.01]];
      for (const [axis, angle] of turns) { v.normal = unit(rotate(v.normal, axis, angle)); v.up = unit(rotate(v.up, axis, angle)); }
      v.up = unit(sub(v.up, scale(v.normal, dot(v.up, v.normal))));
      for (const w of views) if (w !== v) drawOverlay(w);
      invalidate(v, true);
    } else if (d.kind === 'point') {
      const cam = camera(v);
      const p = state.curve.points[d.grabbed];
      const onPlane = pixelToWorld(cam, e.offsetX, e.offsetY);
      state.curve.points[d.grabbed] = add(onPlane, scale(cam.n, dot(sub(p, cam.position), cam.n)));
      curveChanged();
      for (const w of views) drawOverlay(w);
      invalidate(views[3], true);
    }
  });
  el.addEventListener('pointerup', (e) => {
    const d = v.drag;
    v.drag = null;
    if (!d) return;
    if (d.moved) {
      if (d.kind === 'rotate' || d.kind === 'window') invalidateAll(false);
      else invalidate(d.kind === 'point' ? views[3] : v, false);
      return;
    }
    if (e.button !== 0 || isCurved(v)) return;
    const p = pixelToWorld(camera(v), e.offsetX, e.offsetY);
    if (state.curve.placing) {
      if (!state.curve.points.length) state.curve.normal = v.normal;
      state.curve.points.push(p);
      curveChanged();
      for (const w of views) drawOverlay(w);
      if (isCurved(views[3])) invalidate(views[3], false);
      return;
    }
    if (showsSlabExtreme(v)) {
      // On a maximum or minimum slab the crosshair goes to the sample shown.
      pick(v, e.offsetX, e.offsetY).then((won) => setCross(won ? won.world : p, v));
      return;
    }
    setCross(p, v);
  });
  el.addEventListener('pointerleave', () => { document.getElementById('readout').textContent = ''; });
}

// ---- layout ----
function fit(v) {
  const box = state.scene.volume.box;
  if (isCurved(v)) {
    const line = state.curve.line;
    v.spacing = Math.max(line.length / v.canvas.width, line.height / v.canvas.height) * 1.05;
    return;
  }
  const cam = camera(v);
  const across = (axis) => box.size.reduce((s, e) => s + Math.abs(dot(e, axis)), 0);
  v.spacing = Math.max(across(cam.right) / v.canvas.width, across(cam.down) / v.canvas.height) * 1.05;
}

function layout() {
  for (const v of views) {
    const w = fixedSize || Math.min(2048, Math.max(16, Math.floor(v.element.clientWidth)));
    const h = fixedSize || Math.min(2048, Math.max(16, Math.floor(v.element.clientHeight)));
    if (v.canvas.width === w && v.canvas.height === h) continue;
    for (const c of [v.canvas, v.overlay]) { c.width = w; c.height = h; }
    if (!v.spacing) fit(v);
    invalidate(v, false);
  }
}

function setUpControls() {
  const scene = state.scene;
  const byId = (id) => document.getElementById(id);
  document.title = `zrslice view: ${scene.source}`;
  byId('source').textContent = scene.source;
  const presets = byId('preset');
  presets.add(new Option('(own window)', ''));
  for (const p of scene.presets) presets.add(new Option(p.name, p.name));
  const values = scene.volume.values;
  // The start: soft tissue for CT, else the file's own window, else the 1st to 99th percentile.
  const soft = scene.presets.find((p) => p.name === 'softTissue');
  if (soft) { state.preset = 'softTissue'; state.window = { centre: soft.centre, width: soft.width }; }
  else if (values.window) state.window = { centre: values.window[0], width: values.window[1] };
  else state.window = { centre: (values.low + values.high) / 2, width: Math.max(1e-3, values.high - values.low) };
  presets.value = state.preset;
  state.iso.value = Math.round(values.low + 0.75 * (values.high - values.low));
  byId('iso-value').value = state.iso.value;
  byId('thickness').max = Math.floor(scene.limits.thickness);
  byId('labels-control').hidden = !scene.labels;
  byId('mesh-control').hidden = !scene.meshes.length;
  windowText();
  const on = (id, event, f) => byId(id).addEventListener(event, (e) => { f(e.target); invalidateAll(false); });
  on('table', 'change', (t) => { state.table = t.value; });
  on('preset', 'change', (t) => {
    state.preset = t.value;
    const p = scene.presets.find((q) => q.name === t.value);
    if (p) state.window = { centre: p.centre, width: p.width };
    windowText();
  });
  on('mode', 'change', (t) => { state.mode = +t.value; });
  on('thickness', 'change', (t) => { state.thickness = Math.min(scene.limits.thickness, Math.max(0.5, +t.value || 1)); });
  on('labels', 'change', (t) => { state.labels = t.value; });
  on('iso-on', 'change', (t) => { state.iso.on = t.checked; });
  on('iso-value', 'change', (t) => { state.iso.value = +t.value; });
  on('meshes', 'change', (t) => { state.meshes = t.checked; });
  on('fourth', 'change', (t) => { state.fourth = t.value; curveChanged(); });
  on('curve-clear', 'click', () => { state.curve.points = []; curveChanged(); });
  byId('curve-place').addEventListener('click', (e) => {
    state.curve.placing = !state.curve.placing;
    e.target.setAttribute('aria-pressed', String(state.curve.placing));
  });
  byId('save').addEventListener('click', () => save(views.find((v) => v.id === state.lastView)));
}

async function save(v) {
  if (!v.shown) return null;
  const res = await fetch('/api/save', { method: 'POST', body: JSON.stringify(v.shown) });
  const text = await res.text();
  if (!res.ok) { showMessage(text); return null; }
  const answer = JSON.parse(text);
  showMessage(`saved ${answer.request} and ${answer.picture}`);
  window.zrViewer.lastSave = { view: v.id, ...answer };
  return answer;
}

async function start() {
  const scene = await (await fetch('/api/scene')).json();
  // Voxel-to-world (column-major) and its inverse's linear part, the box's
  // edges in world, and the finest voxel pitch.
  const m = scene.volume.voxelToWorld;
  const col = (c) => [m[4 * c], m[4 * c + 1], m[4 * c + 2]];
  const dims = scene.volume.dims;
  const edges = [0, 1, 2].map((a) => scale(col(a), dims[a]));
  const [a, b, c] = [col(0), col(1), col(2)];
  const det = dot(a, cross(b, c));
  // Rows of the inverse are the cross products over the determinant; stored so that toVoxel[k][r] is row r, column k.
  const rows = [cross(b, c), cross(c, a), cross(a, b)].map((r) => scale(r, 1 / det));
  scene.volume.toVoxel = [0, 1, 2].map((k) => [rows[0][k], rows[1][k], rows[2][k]]);
  scene.volume.box = { size: edges };
  scene.volume.finestPitch = Math.min(norm(a), norm(b), norm(c));
  const middle = [0, 1, 2].reduce((p, k) => add(p, scale(col(k), (dims[k] - 1) / 2)), col(3));
  scene.volume.middle = middle;
  state.scene = scene;
  state.cross = middle;
  setUpControls();

  const holder = document.getElementById('views');
  for (const v of views) {
    v.element = document.createElement('div');
    v.element.className = 'view';
    v.element.id = `view-${v.id}`;
    v.canvas = document.createElement('canvas');
    v.canvas.className = 'image';
    v.overlay = document.createElement('canvas');
    v.overlay.className = 'overlay';
    v.label = document.createElement('span');
    v.label.className = 'name';
    v.label.textContent = v.title;
    v.element.append(v.canvas, v.overlay, v.label);
    holder.append(v.element);
    v.context = v.canvas.getContext('2d', { willReadFrequently: true });
    v.pan = [0, 0];
    v.spacing = 0;
    v.actionAt = null;
    v.canvas.width = v.canvas.height = 0;
    attachInput(v);
  }
  layout();
  window.addEventListener('resize', layout);
}

// For the browser test and whoever scripts the page.
window.zrViewer = {
  state, views, stats, lastSave: null,
  idle: () => views.every((v) => !v.busy && !v.dirty && !v.restTimer && v.shown),
  save: (id) => save(views.find((v) => v.id === id)),
  pick: (id, x, y) => pick(views.find((v) => v.id === id), x, y),
  worldToPixel: (id, p) => worldToPixel(camera(views.find((v) => v.id === id)), p),
  ready: start().catch((e) => showMessage(`start: ${e}`)),
};
