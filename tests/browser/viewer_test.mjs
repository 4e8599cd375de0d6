// zrslice view in a real browser: headless Chromium (the system's) driven by
// puppeteer-core. Starts the viewer, uses the page with the mouse as a person
// would, and checks what the canvases show; the last check is that a view's
// canvas holds exactly the pixels `zrslice render` makes from the request the
// viewer saved for it. Screenshots go to the output folder.
//
//   node viewer_test.mjs --zrslice BIN [--plugin LIB] --out DIR [--source FILE|phantom|nifti] [--labels FILE]
//                        [--mesh FILE] [--size N]
//   node viewer_test.mjs --bench --zrslice BIN [--plugin LIB] --out DIR --source V1.nii [--filter TEXT]
//
// The second form measures the time from a wheel step in the page to the new
// pixels on its canvas (a thin slice and a maximum slab of 512 x 512) and
// prints medians. Exit codes: 0 passed, 1 failed, 77 skipped (no browser).
import { spawn, execFileSync } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, rmSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';
import { readPng } from './png.mjs';

const SKIP = 77;
const args = { source: 'phantom', size: '256', filter: '' };
for (let k = 2; k < process.argv.length; ++k) {
  const name = process.argv[k].replace(/^--/, '');
  if (name === 'bench') args.bench = true;
  else args[name] = process.argv[++k];
}
for (const needed of ['zrslice', 'out'])
  if (!args[needed]) { console.error(`viewer_test: --${needed} is required`); process.exit(2); }

const browser = [process.env.CHROMIUM, '/usr/bin/chromium', '/usr/bin/chromium-browser'].find((p) => p && existsSync(p));
if (!browser) {
  console.log('SKIPPED: no Chromium on this machine (bash scripts/setup.sh installs Debian\'s chromium); ' +
              'the viewer was not tested in a browser');
  process.exit(SKIP);
}
let puppeteer;
try {
  puppeteer = (await import('puppeteer-core')).default;
} catch {
  console.error('viewer_test: puppeteer-core is missing: run bash scripts/setup.sh (npm ci in tests/browser)');
  process.exit(1);
}

const out = resolve(args.out);
mkdirSync(out, { recursive: true });
// "--source nifti": a CT-like head, its labels and a mesh, written by nibabel
// and VTK as a user's files would be (write_ct_files.py).
if (args.source === 'nifti') {
  const files = join(out, 'files');
  execFileSync(process.env.ZR_PYTHON || '/usr/bin/python3', [fileURLToPath(new URL('write_ct_files.py', import.meta.url)), files], { stdio: 'inherit' });
  Object.assign(args, { source: join(files, 'ct.nii.gz'), labels: join(files, 'labels.nii.gz'), mesh: join(files, 'ball.stl') });
}
// The plug-in: as given, else the one beside the program.
const pluginArgs = args.plugin ? ['--plugin', args.plugin] : [];
const saves = join(out, 'saves');
rmSync(saves, { recursive: true, force: true });  // this run's saves only
mkdirSync(saves, { recursive: true });

// ---- the viewer process ----
function startViewer() {
  const extra = [...(args.labels ? ['--labels', args.labels] : []), ...(args.mesh ? ['--mesh', args.mesh] : [])];
  const child = spawn(args.zrslice, [...pluginArgs, '-q', 'view', args.source, ...extra, '--port', '0', '--save-dir', saves],
                      { stdio: ['ignore', 'pipe', 'inherit'] });
  return new Promise((resolveUrl, reject) => {
    const lines = createInterface({ input: child.stdout });
    lines.once('line', (line) => resolveUrl({ child, url: line.trim() }));
    child.once('exit', (code) => reject(new Error(`zrslice view ended early (exit ${code})`)));
  });
}

const failures = [];
function check(ok, what) {
  console.log(`${ok ? 'ok  ' : 'FAIL'} ${what}`);
  if (!ok) failures.push(what);
}

const { child, url } = await startViewer();
const chromium = await puppeteer.launch({
  executablePath: browser,
  headless: true,
  args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage'],
});
const page = await chromium.newPage();
page.on('pageerror', (e) => failures.push(`page error: ${e.message}`));
page.on('console', (m) => { if (m.type() === 'error') console.log(`page console: ${m.text()}`); });

const idle = () => page.waitForFunction(() => window.zrViewer && window.zrViewer.idle(), { timeout: 120000, polling: 10 });
async function shot(name) { await page.screenshot({ path: join(out, name) }); }
async function box(id) {
  return page.$eval(`#view-${id} canvas.overlay`, (el) => { const r = el.getBoundingClientRect(); return { x: r.x, y: r.y, w: r.width, h: r.height }; });
}
// A view's canvas as RGBA bytes.
async function pixels(id) {
  const text = await page.evaluate((id) => {
    const v = window.zrViewer.views.find((w) => w.id === id);
    const data = v.context.getImageData(0, 0, v.canvas.width, v.canvas.height).data;
    let s = '';
    for (let k = 0; k < data.length; k += 0x8000) s += String.fromCharCode.apply(null, data.subarray(k, k + 0x8000));
    return btoa(s);
  }, id);
  return new Uint8Array(Buffer.from(text, 'base64'));
}
function distinctColours(px) {
  const seen = new Set();
  for (let k = 0; k < px.length && seen.size < 1000; k += 4) seen.add((px[k] << 16) | (px[k + 1] << 8) | px[k + 2]);
  return seen.size;
}
function meanGrey(px) {
  let sum = 0;
  for (let k = 0; k < px.length; k += 4) sum += px[k] + px[k + 1] + px[k + 2];
  return sum / (3 * px.length / 4);
}
const differ = (a, b) => a.length !== b.length || a.some((x, k) => x !== b[k]);
const state = (path) => page.evaluate((p) => JSON.parse(JSON.stringify(p.split('.').reduce((o, k) => o[k], window.zrViewer.state))), path);
const median = (xs) => { const s = [...xs].sort((a, b) => a - b); return s[Math.floor(s.length / 2)]; };

try {
  await page.setViewport({ width: 1400, height: 1300 });
  await page.goto(`${url}?size=${args.size}`);
  await idle();
  if (args.bench) await bench();
  else await explore();
} catch (e) {
  failures.push(`${e.stack || e}`);
} finally {
  await chromium.close();
  child.kill('SIGTERM');
}
if (failures.length) {
  console.log(`${failures.length} check(s) failed; screenshots in ${out}`);
  process.exit(1);
}
console.log(`passed; screenshots in ${out}`);

// ---- the checks ----
async function explore() {
  await shot('01-start.png');
  for (const id of ['axial', 'coronal', 'sagittal', 'fourth'])
    check(distinctColours(await pixels(id)) >= 8, `the ${id} view shows a picture, not one colour`);

  // Wheel: one voxel along the view's normal; shift: ten.
  const a = await box('axial');
  const centre = [a.x + a.w / 2, a.y + a.h / 2];
  const zStep = await page.evaluate(() => 1 / Math.abs(window.zrViewer.state.scene.volume.toVoxel[2][2]));
  let before = await pixels('axial');
  const coronalBefore = await pixels('coronal');
  const z0 = (await state('cross'))[2];
  await page.mouse.move(...centre);
  await page.mouse.wheel({ deltaY: 100 });
  await idle();
  const z1 = (await state('cross'))[2];
  check(Math.abs(z1 - z0 - zStep) < 1e-9, `a wheel step moves the axial plane by one voxel (${zStep} mm): ${z0} -> ${z1}`);
  check(differ(before, await pixels('axial')), 'the axial picture changes with the plane');
  check(!differ(coronalBefore, await pixels('coronal')), 'the coronal picture stays (only its crosshair line moves)');
  await page.keyboard.down('Shift');
  await page.mouse.wheel({ deltaY: -100 });
  await page.keyboard.up('Shift');
  await idle();
  const z2 = (await state('cross'))[2];
  check(Math.abs(z1 - z2 - 10 * zStep) < 1e-9, `shift and wheel move it by ten voxels: ${z1} -> ${z2}`);

  // Window and level by dragging in the coronal view: fast frames while the
  // pointer moves, the full-quality frame when it rests.
  const c = await box('coronal');
  const w0 = await state('window');
  const framesBefore = await page.evaluate(() => window.zrViewer.stats.history.length);
  await page.mouse.move(c.x + c.w / 2, c.y + c.h / 2);
  await page.mouse.down();
  for (let k = 1; k <= 12; ++k) {
    await page.mouse.move(c.x + c.w / 2 + 6 * k, c.y + c.h / 2 + 3 * k);
    await new Promise((r) => setTimeout(r, 30));
  }
  await page.mouse.up();
  await idle();
  const w1 = await state('window');
  check(w1.width > w0.width && w1.centre < w0.centre, `dragging right widens the window, down lowers the level: ${JSON.stringify(w0)} -> ${JSON.stringify(w1)}`);
  const frames = await page.evaluate((n) => window.zrViewer.stats.history.slice(n), framesBefore);
  check(frames.some((f) => f.fast), `frames drawn during the drag are fast-quality (${frames.filter((f) => f.fast).length} of ${frames.length})`);
  const lastOf = (id) => [...frames].reverse().find((f) => f.view === id);
  check(['axial', 'coronal', 'sagittal', 'fourth'].every((id) => lastOf(id) && !lastOf(id).fast),
        'every view ends on a full-quality frame');
  await shot('02-window-level.png');

  // Slab: maximum, 20 mm.
  const thin = await pixels('axial');
  await page.select('#mode', '10');
  await page.$eval('#thickness', (el) => { el.value = '20'; el.dispatchEvent(new Event('change')); });
  await idle();
  const slab = await pixels('axial');
  check(differ(thin, slab), 'the maximum slab differs from the thin slice');
  check(meanGrey(slab) > meanGrey(thin), `the maximum slab is brighter than the thin slice (${meanGrey(slab).toFixed(1)} > ${meanGrey(thin).toFixed(1)})`);
  await shot('03-slab-maximum.png');

  // Two curve points in the axial view, and the curved view.
  await page.click('#curve-place');
  await page.mouse.click(a.x + a.w * 0.3, a.y + a.h * 0.45);
  await page.mouse.click(a.x + a.w * 0.7, a.y + a.h * 0.45);
  await page.click('#curve-place');
  await page.select('#fourth', 'curved');
  await idle();
  const points = await state('curve.points');
  check(points.length === 2, `two curve points placed (${points.length})`);
  const curved = await page.evaluate(() => window.zrViewer.views[3].shown.requests[0]);
  check(curved._bool_IsNonlinear === true && curved._vlist_FLOAT3_CurveInterpolations.length > 10,
        `the fourth view draws a curved reformation (${curved._vlist_FLOAT3_CurveInterpolations?.length} samples)`);
  check(distinctColours(await pixels('fourth')) >= 8, 'the curved view shows a picture');
  await shot('04-curved.png');

  // The readout under the pointer.
  await page.mouse.move(centre[0] + 5, centre[1] + 5);
  await page.waitForFunction(() => /voxel \(/.test(document.getElementById('readout').textContent), { timeout: 10000 });
  const readout = await page.$eval('#readout', (el) => el.textContent);
  check(/LPS \(.*\) mm, voxel \(\d+, \d+, \d+\), value -?[\d.]+/.test(readout), `readout: ${readout}`);
  await page.waitForFunction(() => /winning sample/.test(document.getElementById('readout').textContent), { timeout: 10000 });
  const slabReadout = await page.$eval('#readout', (el) => el.textContent);
  check(/winning sample at LPS .* layer \d+ of \d+/.test(slabReadout), `on the maximum slab the readout names the winning sample: ${slabReadout}`);

  // Save the axial view (a click there makes it the current view) and replay
  // the saved request with zrslice render.
  const planeZ = (await state('cross'))[2];
  const target = [Math.round(a.w / 2 + 10), Math.round(a.h / 2 - 10)];
  const winner = await page.evaluate((t) => window.zrViewer.pick('axial', t[0], t[1]), target);
  await page.mouse.click(a.x + target[0], a.y + target[1]);
  await page.waitForFunction((w) => window.zrViewer.state.cross.every((c, k) => c === w[k]), { timeout: 10000 }, winner.world).catch(() => {});
  await idle();
  const picked = await state('cross');
  check(picked.every((c, k) => c === winner.world[k]) && Math.abs(picked[2] - planeZ) <= 10 + zStep,
        `a click on the maximum slab moves the crosshair to its winning sample, within the slab: (${picked.join(', ')}), z was ${planeZ}`);
  await page.click('#save');
  await page.waitForFunction(() => window.zrViewer.lastSave, { timeout: 60000 });
  const saved = await page.evaluate(() => window.zrViewer.lastSave);
  check(saved.view === 'axial', `the saved view is the one clicked last (${saved.view})`);
  const replay = join(out, 'replay-axial.png');
  execFileSync(args.zrslice, [...pluginArgs, '-q', 'render', saved.request, '-o', replay]);
  const replayed = readPng(replay);
  const canvas = await pixels('axial');
  // The canvas is drawn opaque (its colours are kept premultiplied, so a
  // transparent pixel would lose its colour): compare R, G and B of every
  // pixel, and check the canvas alpha is opaque.
  let rgbDiffer = 0, notOpaque = 0;
  for (let k = 0; k < canvas.length; k += 4) {
    if (canvas[k] !== replayed.pixels[k] || canvas[k + 1] !== replayed.pixels[k + 1] || canvas[k + 2] !== replayed.pixels[k + 2]) ++rgbDiffer;
    if (canvas[k + 3] !== 255) ++notOpaque;
  }
  const size = await page.evaluate(() => [window.zrViewer.views[0].canvas.width, window.zrViewer.views[0].canvas.height]);
  check(replayed.width === size[0] && replayed.height === size[1], `the replay is ${replayed.width} x ${replayed.height}, as the canvas`);
  check(rgbDiffer === 0 && notOpaque === 0,
        `the axial canvas equals zrslice render of ${saved.request} (R, G, B of every pixel): ${rgbDiffer} pixels differ`);
  const savedPicture = readPng(saved.picture);
  check(!differ(savedPicture.pixels, replayed.pixels), 'the picture saved beside the request is the replay\'s');
  const request = JSON.parse(readFileSync(saved.request, 'utf8'));
  check(request.requests[0]._int_VolumeRayCastType === 10 && request.requests[0]._float_PlaneThickness === 20,
        'the saved request is the maximum slab on screen');
  await shot('05-saved.png');

  // Overlays: the labels tint the slices, the meshes' cut lines in their colour.
  const scene = await page.evaluate(() => ({ labels: window.zrViewer.state.scene.labels, meshes: window.zrViewer.state.scene.meshes }));
  await page.select('#mode', '0');
  await idle();
  const plain = await pixels('axial');
  const coloured = (px) => { let n = 0; for (let k = 0; k < px.length; k += 4) if (Math.max(px[k], px[k + 1], px[k + 2]) - Math.min(px[k], px[k + 1], px[k + 2]) > 8) ++n; return n; };
  if (scene.meshes.length) {
    const [r, g, b] = scene.meshes[0].colour.map((c) => Math.round(c * 255));
    let onLine = 0;
    for (let k = 0; k < plain.length; k += 4)
      if (Math.abs(plain[k] - r) <= 2 && Math.abs(plain[k + 1] - g) <= 2 && Math.abs(plain[k + 2] - b) <= 2) ++onLine;
    check(onLine > 20, `the mesh's cut line is drawn in its colour in the axial view (${onLine} pixels)`);
  }
  if (scene.labels) {
    await page.select('#labels', 'overlay');
    await idle();
    const tinted = await pixels('axial');
    check(coloured(tinted) > coloured(plain) + 100, `the label overlay tints the axial slice (${coloured(plain)} -> ${coloured(tinted)} coloured pixels)`);
    await shot('06-labels.png');
  }
  await page.$eval('#iso-on', (el) => { el.checked = true; el.dispatchEvent(new Event('change')); });
  await idle();
  const iso = await page.evaluate(() => window.zrViewer.views[0].shown.requests[0]);
  check(iso._bool_DrawIsoBoundary === true && Number.isInteger(iso._int_Density0), 'the iso-line is asked for at the chosen value (in stored words)');
  await shot('07-iso-line.png');
}

// ---- the frame-time benchmark ----
async function bench() {
  const a = await box('axial');
  await page.mouse.move(a.x + a.w / 2, a.y + a.h / 2);
  // The cases the benchmark filter (a regular expression, as zrbench's) selects.
  const cases = [['thin', '0'], ['maximum', '10']].filter(([name]) => !args.filter || new RegExp(args.filter).test(`View_${name}_512`));
  const results = {};
  for (const [name, mode] of cases) {
    await page.select('#mode', mode);
    await page.$eval('#thickness', (el) => { el.value = '20'; el.dispatchEvent(new Event('change')); });
    await idle();
    const total = [], render = [], parts = { beforeSendMs: [], answerMs: [], transferMs: [], drawMs: [] };
    for (let k = 0; k < 23; ++k) {
      const n = await page.evaluate(() => window.zrViewer.stats.frames);
      await page.mouse.wheel({ deltaY: k % 2 ? -100 : 100 });
      await page.waitForFunction((n) => window.zrViewer.stats.frames > n && window.zrViewer.idle(), { polling: 2 }, n);
      const last = await page.evaluate(() => window.zrViewer.stats.last);
      if (k >= 2) {  // after two warm-up steps
        total.push(last.totalMs);
        render.push(last.renderMs);
        for (const part in parts) parts[part].push(last[part]);
      }
    }
    const split = Object.fromEntries(Object.entries(parts).map(([part, xs]) => [part, median(xs)]));
    results[name] = { actionToPixels: median(total), render: median(render), runs: total.length, ...split };
    console.log(`View_${name}_512: action to pixels ${median(total).toFixed(1)} ms (median of ${total.length}), ` +
                `render in the server ${median(render).toFixed(1)} ms, ` +
                `min ${Math.min(...total).toFixed(1)} max ${Math.max(...total).toFixed(1)} ms; medians of the parts: ` +
                Object.entries(split).map(([part, ms]) => `${part} ${ms.toFixed(1)}`).join(', '));
  }
  // The other way a frame could travel: as PNG, encoded by the server and
  // decoded by the browser. The browser's half, timed on the same kind of
  // frame (a 512 x 512 picture of the viewer).
  const png = join(out, 'bench-frame.png');
  await page.evaluate(() => window.zrViewer.save('axial'));
  const saved = await page.evaluate(() => window.zrViewer.lastSave);
  execFileSync(args.zrslice, [...pluginArgs, '-q', 'render', saved.request, '-o', png]);
  const bytes = readFileSync(png).toString('base64');
  const decode = await page.evaluate(async (b64) => {
    const data = Uint8Array.from(atob(b64), (ch) => ch.charCodeAt(0));
    const times = [];
    const canvas = document.createElement('canvas');
    canvas.width = canvas.height = 512;
    const g = canvas.getContext('2d', { willReadFrequently: true });
    for (let k = 0; k < 15; ++k) {
      const t = performance.now();
      const bitmap = await createImageBitmap(new Blob([data], { type: 'image/png' }), { premultiplyAlpha: 'none' });
      g.drawImage(bitmap, 0, 0);
      g.getImageData(0, 0, 1, 1);
      times.push(performance.now() - t);
    }
    times.sort((x, y) => x - y);
    return times[7];
  }, bytes);
  console.log(`PNG decode and draw in the browser, 512 x 512: ${decode.toFixed(1)} ms (median of 15), ` +
              `${(readFileSync(png).length / 1024).toFixed(0)} KiB against ${512 * 512 * 4 / 1024} KiB raw`);
  console.log(`load: ${readFileSync('/proc/loadavg', 'utf8').split(' ').slice(0, 3).join(' ')}`);
  console.log(JSON.stringify({ viewerFrameTimes: results, pngDecodeMs: decode }));
}
