// The studio page in headless Chromium: play, recolour, break and fix a catalogue.
// STUDIO_BIN names the eyes program, EYE_ASSETS the bundled eye set to copy.
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { chromium } from "playwright-core";

const studioBin = process.env.STUDIO_BIN;
const assets = process.env.EYE_ASSETS;
const wait = { timeout: 15000 };
let dir, studio, browser, page;

before(async () => {
  assert.ok(studioBin && assets, "STUDIO_BIN and EYE_ASSETS must be set");
  dir = fs.mkdtempSync(path.join(os.tmpdir(), "studio-e2e-"));
  fs.cpSync(assets, dir, { recursive: true });
  studio = spawn(studioBin, ["studio", "--config", dir, "--port", "0"], { stdio: ["ignore", "pipe", "inherit"] });
  const url = await new Promise((resolve, reject) => {
    let out = "";
    studio.stdout.on("data", (chunk) => {
      out += chunk;
      const m = out.match(/http:\/\/127\.0\.0\.1:\d+\//);
      if (m) resolve(m[0]);
    });
    studio.on("exit", (code) => reject(new Error("studio exited with " + code)));
  });
  // No background traffic: the machine's network is closed beyond loopback.
  browser = await chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
           "--disable-background-networking", "--disable-component-update"],
  });
  page = await browser.newPage();
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

  // Playing changes the picture while it runs, and its completion is listed.
  const still = await page.evaluate(leftChecksum);
  const changed = page.waitForFunction(`${leftChecksum} !== ${still}`, null, wait);
  await playAndComplete("look_left");
  await changed;
  assert.ok(await page.locator('#events .start:has-text("look_left")').count() > 0);

  // The iris colour, picked on the page, shows on the canvas.
  await page.selectOption("#irisShape", "CLASSIC");
  await page.selectOption("#irisStyle", "RED");
  await waitForIrisChannel(0);
  await page.selectOption("#irisStyle", "BLUE");
  await waitForIrisChannel(2);

  // A broken catalogue is reported; the eyes keep playing what was loaded.
  const animations = path.join(dir, "eyeanimations.xml");
  const good = fs.readFileSync(animations, "utf8");
  fs.writeFileSync(animations, good.slice(0, good.length / 2));
  await page.waitForFunction(
    () => document.getElementById("findings").textContent.includes("eyeanimations.xml"), null, wait);
  const counter = Number(await page.textContent("#frameCounter"));
  await playAndComplete("blink");
  assert.ok(Number(await page.textContent("#frameCounter")) > counter);

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
