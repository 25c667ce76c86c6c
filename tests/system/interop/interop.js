// Lets companions of an independent library follow the reference host: node interop.js RECEIVER
// Prints a table of what was seen; exit status 1 when a companion did not follow.
"use strict";

const { spawn } = require("child_process");
const dgram = require("dgram");
const { once } = require("events");
const net = require("net");
const readline = require("readline");
const WebSocket = require("ws");
const clocks = require("dvbcss-clocks");
const { CII, TimelineSynchronisation, WallClock } = require("dvbcss-protocols");

const COMPANIONS = 10;
const PTS = { timelineSelector: "urn:dvb:css:timeline:pts", tickRate: 90000 };
const LIMIT_MS = 20; // these clients read a clock of whole milliseconds
const SETTLE_MS = 700;
const CLOCK_MS = 3000; // a wall clock needs some exchanges before it is exact
const PATIENCE_MS = 10000;
const UNAVAILABLE = null;

const STEPS = [
  // command, speed that the companions must see
  ["play", 1],
  ["pause", 0],
  ["seek +600", 0],
  ["speed 2", 2],
  ["service 2", 1],
  ["seek 90", 1],
  ["blackout on", UNAVAILABLE],
  ["blackout off", 1],
];

const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

async function until(what, isTrue) {
  for (const end = Date.now() + PATIENCE_MS; !isTrue(); await sleep(20)) {
    if (Date.now() > end) throw new Error(`not within ${PATIENCE_MS} ms: ${what}`);
  }
}

async function freePort() {
  const probe = net.createServer().listen(0, "127.0.0.1");
  await once(probe, "listening");
  const { port } = probe.address();
  probe.close();
  return String(port);
}

/// The television under test.
class Host {
  async start(receiver) {
    const words = ["--log", "/dev/null"];
    for (const option of ["--port", "--wc-port", "--page-port"]) words.push(option, await freePort());
    this.process = spawn(receiver, words, { stdio: ["pipe", "pipe", "inherit"] });
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
}

/// One companion: learns from CII where the rest is, keeps the wall clock, follows the PTS timeline of any content.
class Companion {
  constructor(ciiUrl) {
    this.clock = new clocks.CorrelatedClock(new clocks.DateNowClock(), { tickRate: 1e9 });
    this.timeline = new clocks.CorrelatedClock(this.clock, { tickRate: PTS.tickRate });
    this.timeline.availabilityFlag = false;
    this.sockets = [new WebSocket(ciiUrl)];
    CII.createCIIClient(this.sockets[0], { callback: (cii) => this.onCii(cii) });
  }
  onCii({ contentId, tsUrl, wcUrl }) {
    this.contentId = contentId;
    if (this.sockets.length > 1 || !tsUrl || !wcUrl) return;
    const [, address, port] = /^udp:\/\/(.+):(\d+)$/.exec(wcUrl);
    const udp = dgram.createSocket("udp4");
    udp.bind(() => WallClock.createBinaryUdpClient(udp, this.clock, { dest: { address, port: Number(port) } }));
    const ts = new WebSocket(tsUrl);
    TimelineSynchronisation.createTSClient(ts, this.timeline, { contentIdStem: "", ...PTS });
    this.sockets.push(udp, ts);
  }
  get speed() {
    return this.timeline.availabilityFlag ? this.timeline.speed : UNAVAILABLE;
  }
}

/// How far the worst companion is from the television, in milliseconds: its position is taken half-way between the
/// request and its answer, and the least of a few looks counts, since only a late answer can add to it.
async function look(host, companions) {
  const least = companions.map(() => Infinity);
  let status;
  for (let i = 0; i < 5; ++i) {
    const before = performance.now();
    status = await (await fetch(host.url("page") + "status")).json();
    const halfWayMs = (performance.now() - before) / 2;
    const { contentTime } = status.timelines.find((each) => each.timelineSelector === PTS.timelineSelector);
    const now = Number(contentTime) + status.speed * (halfWayMs / 1000) * PTS.tickRate;
    companions.forEach(({ timeline }, i) => {
      least[i] = Math.min(least[i], (Math.abs(timeline.now() - now) / PTS.tickRate) * 1000);
    });
  }
  return { contentId: status.contentId, worst: Math.max(...least) };
}

async function carryOut(host, companions, [command, speed]) {
  await host.say(command);
  await sleep(SETTLE_MS);
  const { contentId, worst } = await look(host, companions);
  const following = companions.filter((each) => each.speed === speed && each.contentId === contentId).length;
  const isGood = following === COMPANIONS && (speed === UNAVAILABLE || worst <= LIMIT_MS);
  const distance = speed === UNAVAILABLE ? "no timeline" : worst.toFixed(1);
  console.log(`| ${command} | ${following} of ${COMPANIONS} | ${distance} | ${isGood ? "good" : "NOT GOOD"} |`);
  return isGood;
}

async function main(receiver) {
  const host = new Host();
  await host.start(receiver);
  const companions = Array.from({ length: COMPANIONS }, () => new Companion(host.url("css-cii")));
  let isGood = true;
  try {
    await until("all follow", () => companions.every(({ speed }) => speed !== UNAVAILABLE));
    await sleep(CLOCK_MS);
    console.log("| command | companions that follow | worst distance, ms | |\n|---|---|---|---|");
    for (const step of STEPS) isGood = (await carryOut(host, companions, step)) && isGood;
  } finally {
    for (const socket of companions.flatMap(({ sockets }) => sockets)) socket.close();
    host.process.kill("SIGTERM");
    await once(host.process, "exit");
  }
  process.exit(isGood ? 0 : 1);
}

main(process.argv[2]).catch((error) => {
  console.error(`interop: ${error.message}`);
  process.exit(1);
});
