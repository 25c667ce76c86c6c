// Lets companions of an independent library follow the reference host: node interop.js RECEIVER
// Prints a table of what was seen; exit status 1 when a companion did not follow.
"use strict";

const { spawn } = require("child_process");
const dgram = require("dgram");
const net = require("net");
const readline = require("readline");
const WebSocket = require("ws");
const clocks = require("dvbcss-clocks");
const { CII, TimelineSynchronisation, WallClock } = require("dvbcss-protocols");

const COMPANIONS = 10;
const PTS = { selector: "urn:dvb:css:timeline:pts", rate: 90000 };
const LIMIT_MS = 20; // these clients read a clock of whole milliseconds
const SETTLE_MS = 700;
const CLOCK_MS = 3000; // a wall clock needs some exchanges before it is exact
const PATIENCE_MS = 10000;

const STEPS = [
  // command, what the companions must see
  ["play", { speed: 1, available: true }],
  ["pause", { speed: 0, available: true }],
  ["seek +600", { speed: 0, available: true }],
  ["speed 2", { speed: 2, available: true }],
  ["service 2", { speed: 1, available: true }],
  ["seek 90", { speed: 1, available: true }],
  ["blackout on", { available: false }],
  ["blackout off", { speed: 1, available: true }],
];

const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

async function until(what, isTrue) {
  const end = Date.now() + PATIENCE_MS;
  while (!isTrue()) {
    if (Date.now() > end) throw new Error(`not within ${PATIENCE_MS} ms: ${what}`);
    await sleep(20);
  }
}

function freePort() {
  return new Promise((done) => {
    const probe = net.createServer().listen(0, "127.0.0.1", () => {
      const { port } = probe.address();
      probe.close(() => done(port));
    });
  });
}

/// The television under test.
class Host {
  async start(receiver) {
    const [port, wcPort, pagePort] = [await freePort(), await freePort(), await freePort()];
    const words = ["--port", port, "--wc-port", wcPort, "--page-port", pagePort, "--log", "/dev/null"];
    this.process = spawn(receiver, words.map(String), { stdio: ["pipe", "pipe", "inherit"] });
    this.lines = [];
    readline.createInterface({ input: this.process.stdout }).on("line", (line) => this.lines.push(line));
    await until("the host is ready", () => this.lines.includes("ready"));
  }
  url(name) {
    return this.lines.find((line) => line.startsWith(name + " ")).slice(name.length + 1);
  }
  async say(command) {
    const before = this.lines.length;
    this.process.stdin.write(command + "\n");
    await until(`an answer to ${command}`, () => this.lines.slice(before).some((line) => /^(ok|error)/.test(line)));
  }
  async status() {
    return (await fetch(this.url("page") + "status")).json();
  }
  stop() {
    return new Promise((done) => this.process.once("exit", done) && this.process.kill("SIGTERM"));
  }
}

/// One companion: learns from CII where the rest is, keeps the wall clock, follows the PTS timeline of any content.
class Companion {
  constructor(ciiUrl) {
    this.clock = new clocks.CorrelatedClock(new clocks.DateNowClock(), { tickRate: 1e9 });
    this.timeline = new clocks.CorrelatedClock(this.clock, { tickRate: PTS.rate });
    this.timeline.availabilityFlag = false;
    this.sockets = [new WebSocket(ciiUrl)];
    CII.createCIIClient(this.sockets[0], { callback: (cii) => this.onCii(cii) });
  }
  onCii(cii) {
    this.contentId = cii.contentId;
    if (this.sockets.length > 1 || !cii.tsUrl || !cii.wcUrl) return;
    const [, address, port] = /^udp:\/\/(.+):(\d+)$/.exec(cii.wcUrl);
    const udp = dgram.createSocket("udp4");
    udp.bind(() => WallClock.createBinaryUdpClient(udp, this.clock, { dest: { address, port: Number(port) } }));
    const ts = new WebSocket(cii.tsUrl);
    const options = { contentIdStem: "", timelineSelector: PTS.selector, tickRate: PTS.rate };
    TimelineSynchronisation.createTSClient(ts, this.timeline, options);
    this.sockets.push(udp, ts);
  }
  leave() {
    for (const socket of this.sockets) socket.close();
  }
}

/// How far a companion is from the television, in milliseconds: the television's position is taken half-way between the
/// request and its answer, and the least of a few looks counts, since only a late answer can add to it.
async function distances(host, companions) {
  const least = companions.map(() => Infinity);
  let status;
  for (let look = 0; look < 5; ++look) {
    const before = performance.now();
    status = await host.status();
    const halfWayMs = (performance.now() - before) / 2;
    const told = Number(status.timelines.find((each) => each.timelineSelector === PTS.selector).contentTime);
    companions.forEach((companion, i) => {
      const now = told + status.speed * (halfWayMs / 1000) * PTS.rate;
      least[i] = Math.min(least[i], (Math.abs(companion.timeline.now() - now) / PTS.rate) * 1000);
    });
  }
  return { status, worst: Math.max(...least) };
}

async function carryOut(host, companions, command, expected) {
  await host.say(command);
  await sleep(SETTLE_MS);
  const { status, worst } = await distances(host, companions);
  const following = companions.filter(
    ({ timeline, contentId }) =>
      timeline.availabilityFlag === expected.available &&
      contentId === status.contentId &&
      (!expected.available || timeline.speed === expected.speed)
  ).length;
  const isGood = following === companions.length && (!expected.available || worst <= LIMIT_MS);
  const distance = expected.available ? worst.toFixed(1) : "no timeline";
  console.log(`| ${command} | ${following} of ${companions.length} | ${distance} | ${isGood ? "good" : "NOT GOOD"} |`);
  return isGood;
}

async function main(receiver) {
  const host = new Host();
  await host.start(receiver);
  const companions = Array.from({ length: COMPANIONS }, () => new Companion(host.url("css-cii")));
  let isGood = true;
  try {
    await until("all follow", () => companions.every(({ timeline }) => timeline.availabilityFlag));
    await sleep(CLOCK_MS);
    console.log("| command | companions that follow | worst distance, ms | |\n|---|---|---|---|");
    for (const [command, expected] of STEPS) isGood = (await carryOut(host, companions, command, expected)) && isGood;
  } finally {
    for (const companion of companions) companion.leave();
    await host.stop();
  }
  process.exit(isGood ? 0 : 1);
}

main(process.argv[2]).catch((error) => {
  console.error(`interop: ${error.message}`);
  process.exit(1);
});
