/** A source without a server: an hour of a drive in a moment, at any rate, for measuring what the page costs. */

import type { Frame, Record_json, Topics } from "../../web/src/feed";
import { show } from "../../web/src/page";
import type { Any_frame, Sink, Source } from "../../web/src/source";

const inputs = ["gnss", "odometry", "frontCameraPosition", "frontCameraLandmarks", "topViewLandmarks", "lidarLandmarks", "radarLandmarks", "map", "timeMaster", "cameraLaneLines", "frontCameraOdometry"];

/** A lap of 400 m by 250 m each 93 s, at a speed that changes. */
function position(t: number, counter: number): Record_json {
  const turn = (2 * Math.PI * t) / 93_000;
  return {
    messageCounter: counter, LAT: 46.9486 + 0.00225 * Math.sin(turn), LON: 7.4477 + 0.0026 * Math.cos(turn), altitudeMeanSeaLevel: 540 + 8 * Math.sin(turn / 3),
    yawAngle: (360 - (turn * 180) / Math.PI % 360) % 360, speed2D: 14 + 4 * Math.sin(3 * turn), accuracyHorizontal: 0.8 + 0.3 * Math.sin(turn / 5), accuracyVertical: 3,
  };
}

class Synthetic_source implements Source {
  private sink: Sink | undefined;

  constructor(private readonly rate: number, private readonly control: boolean) {}

  start(sink: Sink): void {
    this.sink = sink;
    sink.connection_changed({ state: "open", since: Date.now() });
    this.send("hello", { version: "1", server: "synthetic", source: "live", control: this.control, way: "made here", marks: false, monitorReasons: ["kClear", "kRestart"], componentStates: ["kOn", "kPrepSD"] }, Date.now());
    if (!this.control) return;
    this.send("monitors", { monitors: [{ schema: 1, monitor: "0x83D101", name: "POS_Input_GNSS", status: "Nominal" }] }, Date.now());
    this.send("sourceFaults", {
      schema: 1, present: true, text: "",
      faults: [{ fault: "jump=1000@0+600", inForce: true, sinceS: 4, endsInS: 596 }, { fault: "missing=accuracySpeedVertical@3600", inForce: false, startsInS: 3500, endsInS: null }],
      kinds: [
        { name: "jump", meaning: "the positions are this far north of the true ones", unit: "m", low: -1e7, high: 1e7, choices: [], usual: "1000" },
        { name: "off", meaning: "the service is withdrawn", unit: "", low: 0, high: 0, choices: [], usual: "" },
        { name: "missing", meaning: "a member of positions, or all, is not sent", unit: "", low: 0, high: 0, choices: ["LAT", "accuracySpeedVertical"], usual: "LAT" },
      ],
    }, Date.now());
  }

  retry(): void {}
  act(): boolean {
    return false;
  }

  send<T extends keyof Topics>(topic: T, data: Topics[T], at: number): void {
    this.sink!.frame({ schema: 1, topic, at, data } as Frame<T> as Any_frame);
  }

  /** What the server sends in `ms` of a drive that ends at `end`. Returns the number of frames. */
  drive(end: number, ms: number): number {
    const step = 1000 / this.rate;
    let frames = 0;
    for (let t = end - ms + step; t <= end; t += step) {
      const counter = Math.round(t / step);
      const common = { schema: 1 as const, received: t / 1000, ageS: 0.0004 + 0.0002 * Math.random() };
      this.send("output", { ...common, field: "positions", records: [position(t, counter)] }, t);
      this.send("input", { ...common, field: "positions", records: [{ ...position(t, counter), positionType: "GNSS" }] }, t);
      this.send("quality", { ...common, field: "positionsQuality", records: [{ positionType: "GNSS", satsInUse: 14 + (counter % 3), satsInView: 20, statusFixType: "3D" }] }, t);
      frames += 3;
      if (Math.floor(t / 1000) !== Math.floor((t - step) / 1000)) frames += this.second(t);
    }
    return frames;
  }

  private second(t: number): number {
    const age = { count: 100, minNs: 4e4, p50Ns: 6e4 + 2e4 * Math.random(), p99Ns: 3e5 + 1e5 * Math.random(), p999Ns: 5e5, maxNs: 9e5, sumNs: 1e7 };
    const statuses = Object.fromEntries(inputs.map((name) => [name, name === "gnss" ? "Nominal" : "NotAvailable"] as const)) as Topics["status"]["inputs"];
    this.send("status", {
      schema: 1, verdict: "healthy", reason: `${this.rate} positions a second, 0.1 ms old on arrival`, findings: [], ratePerS: this.rate,
      inputs: statuses, outputs: { mapMatched: "Init", deadReckoning: "Nominal", staticOutput: "Nominal" }, system: { overall: "Nominal", lbl: "Init" },
      sinceS: { inputs: {}, outputs: {}, system: {} }, dataBus: { notAvailable: [], errorValueReceived: [], implausible: [] }, words: { inputs: {}, outputs: {}, system: {} },
    }, t);
    this.send("statistics", {
      schema: 1, process: { residentBytes: 8e6, threads: 9, uptimeMs: t }, clock: { synchronised: true, estimatedErrorUs: 10, maximumErrorUs: 100, taiOffsetS: 37, steps: 0 },
      stamps: { notifications: 0, missing: 0, inFuture: 0, standingStill: 0, jumped: 0 }, ages: { stampToArrival: { sinceStart: age, last10S: age }, handlerToSent: { sinceStart: age, last10S: age } },
      counters: { notificationsReceived: Math.round(t / 100), datagramsReceived: Math.round(t / 90) },
    }, t);
    this.send("satellites", {
      schema: 1, field: "posGnssSatInfos", received: t / 1000,
      records: Array.from({ length: 24 }, (_, i) => ({ satelliteId: i + 1, gnssSystem: ["GPS", "GLONASS", "Galileo", "BeiDou"][i % 4]!, azimuth: (15 * i + t / 60_000) % 360, elevation: (i * 37) % 90, carrierToNoise: 25 + ((i * 7 + t / 1000) % 25), usage: ["in view", "tracked", "in the solution"][i % 3]! })),
    }, t);
    this.send("log", { lines: [{ at: t, level: "info", context: "POS", text: `line of the second ${Math.round(t / 1000)}` }], lost: 0 }, t);
    this.send("offer", { schema: 1, event: "offered", serviceId: "0x2A10", instance: "0x0001", majorVersion: 3, minorVersion: 0, from: "127.0.0.20:30490", ttlS: 3, service: "GNSS" }, t);
    return 5;
  }
}

declare global {
  interface Window {
    source: Synthetic_source;
  }
}

const parameters = new URLSearchParams(location.search);
window.source = new Synthetic_source(Number(parameters.get("rate") ?? 20), parameters.has("control"));
show(window.source);
