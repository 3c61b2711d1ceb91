// The studio page in headless Chromium: play, recolour, break and fix a catalogue;
// author an animation on the eyes and save it; refusals of strangers.
// STUDIO_BIN names the eyes program, EYE_ASSETS the bundled eye set to copy.
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { spawn, spawnSync } from "node:child_process";
import fs from "node:fs";
import http from "node:http";
import os from "node:os";
import path from "node:path";
import zlib from "node:zlib";
import { chromium } from "playwright-core";

const studioBin = process.env.STUDIO_BIN;
const assets = process.env.EYE_ASSETS;
const wait = { timeout: 15000 };
let dir, studio, browser, page, url, port, token;

before(async () => {
  assert.ok(studioBin && assets, "STUDIO_BIN and EYE_ASSETS must be set");
  dir = fs.mkdtempSync(path.join(os.tmpdir(), "studio-e2e-"));
  fs.cpSync(assets, dir, { recursive: true });
  studio = spawn(studioBin, ["studio", "--config", dir, "--port", "0"], { stdio: ["ignore", "pipe", "inherit"] });
  url = await new Promise((resolve, reject) => {
    let out = "";
    studio.stdout.on("data", (chunk) => {
      out += chunk;
      const m = out.match(/http:\/\/127\.0\.0\.1:(\d+)\/\?token=[0-9a-f]+/);
      if (m) resolve(m[0]);
    });
    studio.on("exit", (code) => reject(new Error("studio exited with " + code)));
  });
  port = Number(new URL(url).port);
  token = new URL(url).searchParams.get("token");
  // No background traffic: the machine's network is closed beyond loopback.
  browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
           "--disable-background-networking", "--disable-component-update"],
  });
  page = await browser.newPage({ viewport: { width: 1000, height: 900 } });
  await page.goto(url);
});

after(async () => {
  await browser?.close();
  studio?.kill();
  if (dir) fs.rmSync(dir, { recursive: true, force: true });
});

// Sum of the left eye's true-size canvas, to notice any change of the picture.
const leftChecksum = `(() => {
  const d = document.getElementById("eye0").getContext("2d").getImageData(0, 0, 240, 240).data;
  let sum = 0;
  for (let i = 0; i < d.length; i += 7) sum = (sum * 31 + d[i]) % 1000000007;
  return sum;
})()`;

// Waits until the left canvas shows `channel` clearly strongest in the iris, off the pupil.
async function waitForIrisChannel(channel) {
  await page.waitForFunction((channel) => {
    const st = window.studio && window.studio.state;
    if (!st) return false;
    const px = document.getElementById("eye0").getContext("2d")
      .getImageData(st.left.x + 35, st.left.y, 1, 1).data;
    const others = [0, 1, 2].filter((c) => c !== channel).map((c) => px[c]);
    return others.every((v) => px[channel] > v + 40);
  }, channel, wait);
}

// Page expression: completions of `name` listed on the page.
const completions = (name) => `[...document.querySelectorAll("#events .complete")]
  .filter((e) => e.textContent.includes(" " + ${JSON.stringify(name)} + " ")).length`;

const playAndComplete = async (name) => {
  const before = await page.evaluate(completions(name));
  await page.click(`button[data-animation="${name}"]`);
  await page.waitForFunction(`${completions(name)} > ${before}`, null, wait);
};

test("plays, recolours and follows catalogue edits", { timeout: 120000 }, async () => {
  await page.waitForSelector('button[data-animation="look_left"]', wait);
  await page.waitForFunction(() => Number(document.getElementById("frameCounter").textContent) > 0, null, wait);
  assert.ok((await page.textContent("#folder")).startsWith(dir));

  // Playing changes the picture while it runs, its completion is listed, it is highlighted.
  const still = await page.evaluate(leftChecksum);
  const changed = page.waitForFunction(`${leftChecksum} !== ${still}`, null, wait);
  await playAndComplete("look_left");
  await changed;
  assert.ok(await page.locator('#events .start:has-text("look_left")').count() > 0);
  assert.ok(await page.locator('button.current[data-animation="look_left"]').count() === 1);

  // Pause and resume: the same play goes on from where it stopped, nobody hears an abort.
  await page.selectOption("#slowdown", "4");
  await page.click('button[data-animation="look_left"]');
  await page.waitForFunction(() => window.studio.state.playing && window.studio.state.stepFrame >= 1, null, wait);
  await page.click("#pause");
  await page.waitForFunction(() => !window.studio.state.playing, null, wait);
  const pausedAt = await page.evaluate(() => window.studio.state.stepFrame);
  await new Promise((r) => setTimeout(r, 400));
  assert.equal(await page.evaluate(() => window.studio.state.stepFrame), pausedAt);
  await page.click("#pause");
  await page.waitForFunction(completions("look_left") + " >= 2", null, wait);
  assert.equal(await page.locator("#events .abort").count(), 0);
  await page.selectOption("#slowdown", "1");
  // The stepper knows the selected animation's length.
  assert.equal(Number(await page.textContent("#stepCount")),
               await page.evaluate(() => window.studio.catalogue.animations
                 .find((a) => a.name === "look_left").frames));

  // The iris colour, picked on the page, shows on the canvas.
  await page.selectOption("#irisShape", "CLASSIC");
  await page.selectOption("#irisStyle", "RED");
  await waitForIrisChannel(0);
  await page.selectOption("#irisStyle", "BLUE");
  await waitForIrisChannel(2);

  // A broken catalogue is reported in the fixed strip; the eyes keep the previous one.
  const animations = path.join(dir, "eyeanimations.xml");
  const good = fs.readFileSync(animations, "utf8");
  const eyesTop = await page.evaluate(() => document.getElementById("big0").getBoundingClientRect().top);
  fs.writeFileSync(animations, good.slice(0, good.length / 2));
  await page.waitForFunction(
    () => document.getElementById("findings").textContent.includes("eyeanimations.xml"), null, wait);
  assert.match(await page.textContent("#kept"), /previous catalogue kept/);
  assert.equal(await page.evaluate(() => document.getElementById("big0").getBoundingClientRect().top), eyesTop);
  await playAndComplete("blink");

  // Fixed, with one animation more: the error goes and the new catalogue is listed.
  const extra = '<Animation Id="99" Name="studio_nod" Categories="USER_DEFINED">' +
    '<AnimationSide Side="Left"><Event X="100" Y="170" TimeMs="200" Wait="0" ScaleX="555" ' +
    'ScaleY="555" LidTopY="0" LidBotY="240" TopLidIndex="0" BotLidIndex="1" RotateAngle="0" ' +
    'Ellipse_H="0"/></AnimationSide></Animation>';
  fs.writeFileSync(animations, good.replace("<List>", "<List>" + extra));
  await page.waitForSelector('button[data-animation="studio_nod"]', wait);
  assert.equal(await page.textContent("#findings"), "");
  await playAndComplete("studio_nod");
});

// 8-bit RGB PNG (as the renderer writes it) to { width, height, rgb }.
function readPng(file) {
  const data = fs.readFileSync(file);
  let at = 8, width = 0, height = 0;
  const idat = [];
  while (at < data.length) {
    const length = data.readUInt32BE(at), type = data.toString("latin1", at + 4, at + 8);
    const body = data.subarray(at + 8, at + 8 + length);
    if (type === "IHDR") {
      width = body.readUInt32BE(0); height = body.readUInt32BE(4);
      assert.deepEqual([body[8], body[9], body[12]], [8, 2, 0], "8-bit RGB, not interlaced");
    }
    if (type === "IDAT") idat.push(body);
    at += 12 + length;
  }
  const raw = zlib.inflateSync(Buffer.concat(idat));
  const stride = width * 3, rgb = Buffer.alloc(stride * height);
  for (let y = 0; y < height; y++) {
    const filter = raw[y * (stride + 1)];
    for (let x = 0; x < stride; x++) {
      const v = raw[y * (stride + 1) + 1 + x];
      const a = x >= 3 ? rgb[y * stride + x - 3] : 0, b = y ? rgb[(y - 1) * stride + x] : 0;
      const c = x >= 3 && y ? rgb[(y - 1) * stride + x - 3] : 0;
      const p = a + b - c, pa = Math.abs(p - a), pb = Math.abs(p - b), pc = Math.abs(p - c);
      const pred = [0, a, b, (a + b) >> 1, pa <= pb && pa <= pc ? a : pb <= pc ? b : c][filter];
      rgb[y * stride + x] = (v + pred) & 255;
    }
  }
  return { width, height, rgb };
}

// The studio's canvases, both eyes, as 8-bit RGB.
const canvasesRgb = () => page.evaluate(() => [0, 1].map((i) => {
  const d = document.getElementById("eye" + i).getContext("2d").getImageData(0, 0, 240, 240).data;
  return Array.from(d.filter((_, k) => k % 4 !== 3));
}));

test("authors an animation on the eyes and saves it", { timeout: 120000 }, async () => {
  const file = path.join(dir, "eyeanimations.xml");
  const original = fs.readFileSync(file, "utf8");
  await page.click("#newAnimation");
  await page.fill("#animName", "studio_wave");
  // Three events on the left track.
  await page.click("#addEvent");
  await page.click("#addEvent");
  assert.equal(await page.locator("#track0 .block").count(), 3);

  // Event 2: drag the iris on the enlarged left eye, give it a move time and a lid.
  await page.click('#track0 .block[data-index="1"]');
  await page.uncheck("#keepX");
  await page.evaluate(() => window.scrollTo(0, 0));
  const box = await page.locator("#big0").boundingBox();
  await page.mouse.move(box.x + box.width * 0.3, box.y + box.height * 0.5);
  await page.mouse.down();
  // The middle of panel pixel (60, 96).
  await page.mouse.move(box.x + box.width * 60.2 / 240, box.y + box.height * 96.2 / 240, { steps: 4 });
  await page.mouse.up();
  const dragged = await page.evaluate(() => window.studio.draft.left[1]);
  assert.deepEqual([dragged.X, dragged.Y], [60, 96]);
  await page.fill("#fieldTimeMs", "100");
  await page.selectOption("#fieldTopLidIndex", { index: 2 });
  await page.fill("#fieldLidTopY", "60");
  await page.waitForFunction(() => /plays 120 ms = 3 frames/.test(document.getElementById("eventForm").textContent),
                             null, wait);
  // The eyes show the event's frame while it is edited.
  await page.waitForFunction(() => window.studio.state.left.x === 60 && window.studio.state.left.y === 96,
                             null, wait);
  // Undo the lid line, redo it.
  await page.click("#undo");
  assert.notEqual(await page.evaluate(() => window.studio.draft.left[1].LidTopY), 60);
  await page.click("#redo");
  assert.equal(await page.evaluate(() => window.studio.draft.left[1].LidTopY), 60);
  // The right eye mirrors the left.
  await page.check("#mirror");
  await page.click("#copyLR");
  assert.equal(await page.evaluate(() => window.studio.draft.right[1].X), 180);

  await page.click("#save");
  await page.waitForFunction(() => document.getElementById("saveState").textContent.startsWith("saved"), null, wait);
  assert.equal(fs.readFileSync(file + ".bak", "utf8"), original);
  const saved = fs.readFileSync(file, "utf8");
  // The rest of the file is untouched: without the new element it is the old file.
  const added = saved.match(/\n  <Animation [^>]*Name="studio_wave"[\s\S]*?<\/Animation>\n/);
  assert.ok(added);
  assert.equal(saved.replace(added[0], ""), original);
  const lint = spawnSync(studioBin, ["lint", dir], { encoding: "utf8" });
  assert.equal(lint.status, 0, lint.stdout + lint.stderr);

  // After a reload of the page the saved animation is listed and plays frame for frame
  // as `eyes render` draws it.
  await page.reload();
  await page.waitForSelector('button[data-animation="studio_wave"]', wait);
  await playAndComplete("studio_wave");
  await page.waitForFunction(() => window.studio.timelineName === "studio_wave" &&
                                   window.studio.draft && window.studio.draft.name === "studio_wave", null, wait);
  const iris = await page.evaluate(() => window.studio.state.iris);
  const out = fs.mkdtempSync(path.join(os.tmpdir(), "studio-render-"));
  const render = spawnSync(studioBin, ["render", "--config", dir, "--animation", "studio_wave",
                                       "--iris", iris.shape + ":" + iris.style, "--out", out], { encoding: "utf8" });
  assert.equal(render.status, 0, render.stderr);
  const frames = fs.readdirSync(out).filter((f) => f.endsWith(".png")).sort();
  assert.equal(frames.length, await page.evaluate(() => window.studio.timeline.length));
  for (const k of [0, 3, frames.length - 1]) {
    const counter = Number(await page.textContent("#frameCounter"));
    await page.evaluate((k) => { document.getElementById("scrub").value = k;
                                 document.getElementById("scrub").dispatchEvent(new Event("input")); }, k);
    // Both panels redrawn after the step, and the page painted them.
    await page.waitForFunction(([k, c]) => window.studio.state.stepFrame === k &&
      Number(document.getElementById("frameCounter").textContent) >= c + 2, [k, counter], wait);
    const png = readPng(path.join(out, frames[k]));
    const shown = await canvasesRgb();
    for (const [panel, left] of [[0, 20], [1, 300]]) {
      let same = true;
      for (let y = 0; y < 240 && same; y++)
        for (let x = 0; x < 720 && same; x++)
          same = shown[panel][y * 720 + x] === png.rgb[((20 + y) * png.width + left) * 3 + x];
      assert.ok(same, `frame ${k}, panel ${panel} differs from eyes render`);
    }
  }
  fs.rmSync(out, { recursive: true, force: true });
});

// A raw request with chosen headers (fetch would not let us set Host).
const raw = (method, pathname, headers, body = "") => new Promise((resolve, reject) => {
  const req = http.request({ host: "127.0.0.1", port, method, path: pathname, headers }, (res) => {
    let text = "";
    res.on("data", (c) => { text += c; });
    res.on("end", () => resolve({ status: res.statusCode, text }));
  });
  req.on("error", reject);
  req.end(body);
});

test("refuses strangers, a port in use and a missing folder", { timeout: 60000 }, async () => {
  const file = path.join(dir, "eyeanimations.xml");
  const before = fs.readFileSync(file, "utf8");
  const save = JSON.stringify({ replaces: "", animation: { name: "intruder", id: 7, categories: [],
                                                            left: [], right: [] } });
  const own = { Host: `127.0.0.1:${port}`, "Content-Type": "application/json" };
  for (const headers of [
    own,                                                              // no token
    { ...own, "X-Studio-Token": "0".repeat(32) },                     // wrong token
    { ...own, "X-Studio-Token": token, Origin: "http://evil.example" },
    { ...own, "X-Studio-Token": token, Host: `evil.example:${port}` }, // DNS rebinding
  ]) {
    const res = await raw("POST", "/api/save", headers, save);
    assert.equal(res.status, 403, JSON.stringify(headers));
    assert.ok(JSON.parse(res.text).error);
  }
  assert.equal((await raw("GET", "/api/state", { Host: `evil.example:${port}` })).status, 403);
  assert.equal(fs.readFileSync(file, "utf8"), before);

  const run = (args) => new Promise((resolve) => {
    const p = spawn(studioBin, ["studio", ...args], { stdio: ["ignore", "pipe", "pipe"] });
    let err = "";
    p.stderr.on("data", (c) => { err += c; });
    const timer = setTimeout(() => p.kill(), 5000);
    p.on("exit", (code) => { clearTimeout(timer); resolve({ code, err }); });
  });
  const taken = await run(["--config", dir, "--port", String(port)]);
  assert.equal(taken.code, 2);
  assert.match(taken.err, new RegExp(`port ${port}.*in use`));
  const missing = await run(["--config", path.join(dir, "no-such-folder"), "--port", "0"]);
  assert.equal(missing.code, 2);
  assert.match(missing.err, /no catalogue folder/);
});
