// Reads an 8-bit RGBA or RGB PNG (what zrslice writes) into RGBA bytes, with
// node's own zlib: the comparison needs the file's exact bytes, so the
// browser's image decoder (colour management, premultiplied alpha) stays out.
import { readFileSync } from 'node:fs';
import { inflateSync } from 'node:zlib';

export function readPng(path) {
  const file = readFileSync(path);
  let at = 8, width = 0, height = 0, channels = 0;
  const data = [];
  while (at < file.length) {
    const length = file.readUInt32BE(at), type = file.toString('latin1', at + 4, at + 8);
    const body = file.subarray(at + 8, at + 8 + length);
    if (type === 'IHDR') {
      width = body.readUInt32BE(0);
      height = body.readUInt32BE(4);
      const depth = body[8], colour = body[9], interlace = body[12];
      if (depth !== 8 || (colour !== 6 && colour !== 2) || interlace !== 0)
        throw new Error(`${path}: only 8-bit RGB(A), non-interlaced PNG is read here`);
      channels = colour === 6 ? 4 : 3;
    } else if (type === 'IDAT') data.push(body);
    at += 12 + length;
  }
  const raw = inflateSync(Buffer.concat(data));
  const stride = width * channels, out = new Uint8Array(width * height * 4);
  let previous = new Uint8Array(stride);
  for (let y = 0; y < height; ++y) {
    const filter = raw[y * (stride + 1)];
    const line = raw.subarray(y * (stride + 1) + 1, (y + 1) * (stride + 1));
    const row = new Uint8Array(stride);
    for (let x = 0; x < stride; ++x) {
      const a = x >= channels ? row[x - channels] : 0, b = previous[x], c = x >= channels ? previous[x - channels] : 0;
      let predictor = 0;
      if (filter === 1) predictor = a;
      else if (filter === 2) predictor = b;
      else if (filter === 3) predictor = (a + b) >> 1;
      else if (filter === 4) {
        const p = a + b - c, pa = Math.abs(p - a), pb = Math.abs(p - b), pc = Math.abs(p - c);
        predictor = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
      }
      row[x] = (line[x] + predictor) & 255;
    }
    for (let x = 0; x < width; ++x)
      for (let k = 0; k < 4; ++k) out[(y * width + x) * 4 + k] = k < channels ? row[x * channels + k] : 255;
    previous = row;
  }
  return { width, height, pixels: out };
}
