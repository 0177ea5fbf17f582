/** All that the page knows, in bounded memory. Panels read it and follow its topics; only frames of the source change it. */

import type { Answer, Application, Change, Component, Hello, Known_fault, Monitor_state, Notification, Offer, Peers, Record_json, Source_faults } from "./feed";
import type { Statistics, Status, Topics } from "./feed";
import { is_number, position_types } from "./format";
import { Journal } from "./journal";
import { metres_between } from "./places";
import { Rate } from "./rate";
import { Link, Series, type Curve, type Values } from "./series";
import type { Any_frame, Connection, Sink } from "./source";

/** An hour at the 20 frames a second to which the server limits a topic. */
const rows = 72_000;
const rows_each_second = 4_000;
const offers_kept = 256;
const physical_value = "PhysicalValue";

const output_curves: readonly Curve[] = [
  { name: "LAT", precise: true },
  { name: "LON", precise: true },
  { name: "yawAngle" },
  { name: "ageMs" },
  { name: "speed2D", range: true },
  { name: "accuracyHorizontal", range: true },
];
const input_curves: readonly Curve[] = [
  { name: "LAT", precise: true },
  { name: "LON", precise: true },
  { name: "speed2D" },
  { name: "accuracyHorizontal" },
];
const quality_curves: readonly Curve[] = [
  { name: "satsInUse", range: true },
  { name: "satsInView", range: true },
];
const statistics_curves: readonly Curve[] = [
  "ratePerS", "stampToArrivalP50Ms", "stampToArrivalP99Ms", "handlerToSentP50Ms", "handlerToSentP99Ms",
].map((name) => ({ name, range: true }));

export interface Counter {
  value: number;
  /** What it has grown by since the page knows it. */
  grown: number;
  /** Server time of the last growth. */
  changed: number;
}
/** The last data of a topic, and the server time in ms at which the server received it. */
export interface Latest<T> {
  at: number;
  data: T;
}

export type Channel = keyof Topics | "connection" | "events" | "reset";

export class Model implements Sink {
  connection: Connection = { state: "connecting", since: Date.now() };
  hello: Hello | undefined;
  application: Application | undefined;
  status: Status | undefined;
  /** Server time in ms of that status. */
  status_at = 0;
  statistics: Statistics | undefined;
  peers: Peers | undefined;
  component: Component | undefined;
  /** The last change of a status that came live. */
  last_change: Change | undefined;
  /** Local Unix time in ms since when the page has no server. */
  lost_since = Date.now();
  services: Topics["services"] | undefined;
  readonly monitors = new Map<string, Monitor_state>();
  readonly offers = new Map<string, Offer>();
  readonly counters = new Map<string, Counter>();
  /** The last one. */
  answer: Answer | undefined;
  source_faults: Latest<Source_faults> | undefined;
  fault_kinds: readonly Known_fault[] = [];

  output: Latest<Notification> | undefined;
  map: Latest<Notification> | undefined;
  satellites: Latest<Notification> | undefined;
  times: Latest<Notification> | undefined;
  /** The last record of each position type. */
  readonly input = new Map<number, Latest<Record_json>>();
  readonly quality = new Map<number, Latest<Record_json>>();
  readonly rates = { input: new Rate(), output: new Rate() };

  readonly output_track = new Series(rows, output_curves);
  readonly input_tracks = new Map<number, Series>();
  readonly quality_curves = new Map<number, Series>();
  readonly statistics_curves = new Series(rows_each_second, statistics_curves);

  readonly journal = new Journal();

  private readonly listeners = new Map<Channel, (() => void)[]>();
  private readonly spacing = new Map<Series, number>();
  private readonly message_counters = new Map<Series, number>();
  private skew: number | undefined;
  private clock_compared = false; // on this connection
  private old_frames = 0;

  /** The server's Unix time in ms, which all times of frames are on. */
  now(): number {
    return Date.now() - (this.skew ?? 0);
  }

  follow(channels: readonly Channel[], listener: () => void): void {
    for (const channel of channels) {
      const list = this.listeners.get(channel) ?? [];
      list.push(listener);
      this.listeners.set(channel, list);
    }
  }

  // Sink

  connection_changed(connection: Connection): void {
    if (connection.state === "lost" && this.connection.state === "open") {
      this.lost_since = connection.since;
      this.interrupt();
    }
    if (connection.state === "open") this.clock_compared = false;
    this.connection = connection;
    this.tell("connection");
  }

  frame(frame: Any_frame): void {
    if (frame.topic === "history") {
      for (const series of frame.data.series) this.take_history(series);
      for (const old of frame.data.frames) this.journal.take(old as Any_frame);
      this.tell("events");
      this.tell("log");
    } else {
      this.take(frame);
      this.take_clock(frame);
      if (this.journal.take(frame)) this.tell("events");
    }
    this.tell(frame.topic);
  }

  /** Compares the clocks: the least delay of a frame is the best measure of their difference. */
  private take_clock(frame: Any_frame): void {
    const skew = Date.now() - frame.at;
    const more = skew - (this.skew ?? Infinity);
    // What a snapshot repeats is old; only if everything is, the server's clock was set back.
    this.old_frames = more > 2000 ? this.old_frames + 1 : 0;
    if (!this.clock_compared || this.old_frames > 50 || more < 0) this.skew = skew;
    else if (more < 2000) this.skew! += more / 1000;
    this.clock_compared = true;
  }

  private take(frame: Any_frame): void {
    const latest = <T>(data: T): Latest<T> => ({ at: frame.at, data });
    switch (frame.topic) {
      case "hello":
        if (this.hello && this.hello.server !== frame.data.server) this.reset();
        this.hello = frame.data;
        break;
      case "application":
        this.application = frame.data;
        if (!frame.data.present) this.interrupt();
        break;
      case "output":
        if (frame.data.initial) break;
        this.output = latest(frame.data);
        this.rates.output.take(frame.data);
        this.take_positions(frame.data, () => this.output_track);
        break;
      case "map":
        if (!frame.data.initial) this.map = latest(frame.data);
        break;
      case "input":
        if (frame.data.initial) break;
        for (const record of frame.data.records) this.input.set(type_of(record), latest(record));
        this.rates.input.take(frame.data);
        this.take_positions(frame.data, (type) => this.input_track(type));
        break;
      case "quality":
        for (const record of frame.data.records) {
          this.quality.set(type_of(record), latest(record));
          this.push(this.quality_series(type_of(record)), frame.data.received * 1000, numbers_of(record));
        }
        break;
      case "satellites":
        this.satellites = latest(frame.data);
        break;
      case "time":
        if (frame.data.field === "times") this.times = latest(frame.data);
        break;
      case "services":
        this.services = frame.data;
        break;
      case "status":
        if (frame.data.verdict === "no answer") {
          // The lights stay as they were, and the page says of when they are.
          const { verdict, reason, findings, ratePerS } = frame.data;
          if (this.status) this.status = { ...this.status, verdict, reason, findings, ratePerS };
        } else {
          this.status = frame.data;
          this.status_at = frame.at;
        }
        break;
      case "statistics":
        this.take_statistics(frame.data, frame.at);
        break;
      case "change":
        this.last_change = frame.data;
        break;
      case "peers":
        this.peers = frame.data;
        break;
      case "offers":
        this.offers.clear();
        for (const offer of frame.data.offers.slice(0, offers_kept)) this.offers.set(offer_key(offer), offer);
        break;
      case "offer":
        if (frame.data.event === "withdrawn" || frame.data.event === "expired") this.offers.delete(offer_key(frame.data));
        else if (this.offers.size < offers_kept || this.offers.has(offer_key(frame.data))) {
          this.offers.set(offer_key(frame.data), frame.data);
        }
        break;
      case "monitors":
        for (const monitor of frame.data.monitors) this.monitors.set(monitor.name, monitor);
        break;
      case "component":
        this.component = frame.data;
        break;
      case "answer":
        this.answer = frame.data;
        break;
      case "sourceFaults":
        this.source_faults = latest(frame.data);
        if (frame.data.kinds?.length) this.fault_kinds = frame.data.kinds;
        break;
      case "lost":
        this.interrupt();
        break;
    }
  }

  private take_statistics(data: Statistics, at: number): void {
    const last = this.statistics;
    // A smaller uptime is another process, whose counters begin anew.
    if (last && data.process.uptimeMs < last.process.uptimeMs) this.counters.clear();
    const first = this.counters.size === 0;
    this.statistics = data;
    for (const [name, value] of Object.entries(data.counters)) {
      const known = this.counters.get(name);
      const more = known ? value - known.value : first ? 0 : value;
      this.counters.set(name, { value, grown: (known?.grown ?? 0) + more, changed: more ? at : (known?.changed ?? 0) });
    }
    const ms = (name: string, rank: "p50Ns" | "p99Ns") => {
      const age = data.ages[name]?.last10S;
      return age && age.count > 0 ? age[rank] / 1e6 : null;
    };
    this.push(this.statistics_curves, at, {
      ratePerS: this.status?.ratePerS,
      stampToArrivalP50Ms: ms("stampToArrival", "p50Ns"),
      stampToArrivalP99Ms: ms("stampToArrival", "p99Ns"),
      handlerToSentP50Ms: ms("handlerToSent", "p50Ns"),
      handlerToSentP99Ms: ms("handlerToSent", "p99Ns"),
    });
  }

  private take_positions(notification: Notification, series_of: (type: number) => Series): void {
    notification.records.forEach((record, i) => {
      const merged = notification.merged?.[i];
      const values: Values = { ...numbers_of(record), ageMs: notification.ageS === undefined ? null : 1000 * notification.ageS };
      const series = series_of(type_of(record));
      const [before, counter] = [this.message_counters.get(series), values["messageCounter"]];
      // Lost samples take time too, also where a busy machine received the others at once.
      const missed = is_number(before) && is_number(counter) ? Math.max(0, Math.min(100, (counter - before) / (merged?.count ?? 1))) : 0;
      if (is_number(counter)) this.message_counters.set(series, counter);
      this.push(series, 1000 * notification.received, values, merged?.min, merged?.max, 0, missed);
    });
  }

  private take_history(old: Topics["history"]["series"][number]): void {
    const type = old.positionType ?? 0;
    const series =
      old.topic === "output" ? this.output_track
      : old.topic === "input" ? this.input_track(type)
      : old.topic === "quality" ? this.quality_series(type)
      : this.statistics_curves;
    for (const tier of old.tiers) {
      const row = (columns: { [curve: string]: (number | null)[] } | undefined, i: number): Values | undefined => {
        if (!columns) return undefined;
        const values: Values = {};
        for (const name in columns) values[name] = columns[name]![i];
        return values;
      };
      tier.t.forEach((t, i) => {
        this.push(series, t, row(tier.last, i)!, row(tier.min, i), row(tier.max, i), tier.bucketMs);
      });
    }
  }

  /** Appends a row and decides how it follows the last one. */
  private push(series: Series, t: number, last: Values, min?: Values, max?: Values, bucket_ms = 0, missed = 0): void {
    const dt = t - series.last_time;
    let link = Link.continues;
    if (series.length > 0) {
      const usual = this.spacing.get(series) ?? Math.min(dt, 5000);
      if (dt > Math.max(1500, 3 * usual, 2.5 * bucket_ms)) link = Link.gap;
      else if (is_jump(series, last, Math.max(dt, missed * usual))) link = Link.jump;
      this.spacing.set(series, usual + 0.2 * (Math.min(dt, 5000) - usual));
    }
    // Member by member, a merged row may lack what only some of its samples had.
    series.push(t, last, link, min ? { ...last, ...min } : last, max ? { ...last, ...max } : last);
  }

  private input_track(type: number): Series {
    return series_of(this.input_tracks, type, rows, input_curves);
  }

  private quality_series(type: number): Series {
    return series_of(this.quality_curves, type, rows, quality_curves);
  }

  private interrupt(): void {
    for (const series of this.all_series()) series.interrupt();
  }

  private all_series(): Series[] {
    return [this.output_track, ...this.input_tracks.values(), ...this.quality_curves.values(), this.statistics_curves];
  }

  /** Another server has its own history. */
  private reset(): void {
    for (const series of this.all_series()) series.clear();
    for (const map of [this.spacing, this.message_counters, this.counters, this.monitors, this.offers, this.input, this.quality]) map.clear();
    this.journal.clear();
    this.output = this.map = this.satellites = this.times = undefined;
    this.application = this.status = this.statistics = this.peers = this.component = this.services = this.source_faults = undefined;
    this.fault_kinds = [];
    this.skew = undefined;
    this.tell("reset");
  }

  private tell(channel: Channel): void {
    for (const listener of this.listeners.get(channel) ?? []) listener();
  }
}

/** Whether the vehicle cannot have come there from the last row: faster than three times its speed and 20 m/s. */
function is_jump(series: Series, next: Values, dt: number): boolean {
  if (!is_number(next["LAT"]) || !is_number(next["LON"])) return false;
  const i = series.length - 1;
  const lat = series.value("LAT", i);
  const lon = series.value("LON", i);
  if (!(Math.abs(lat) <= 90)) return false;
  const or_zero = (value: number | null | undefined) => (is_number(value) ? value : 0);
  const speed = Math.max(or_zero(next["speed2D"]), or_zero(series.value("speed2D", i)));
  const accuracy = or_zero(next["accuracyHorizontal"]) + or_zero(series.value("accuracyHorizontal", i));
  const reach = Math.max(30, 3 * accuracy) + ((3 * speed + 20) * dt) / 1000;
  return metres_between(lat, lon, next["LAT"], next["LON"]) > reach;
}

function series_of(map: Map<number, Series>, type: number, capacity: number, curves: readonly Curve[]): Series {
  let series = map.get(type);
  if (!series) {
    // A peer can send any number as type; the page keeps room for the two that exist and one more.
    if (map.size >= 3) return [...map.values()][0]!;
    series = new Series(capacity, curves);
    map.set(type, series);
  }
  return series;
}

function type_of(record: Record_json): number {
  return Math.max(0, position_types.indexOf(String(record["positionType"])));
}

/** The numbers of a record, without those that the source itself does not call physical values. */
export function numbers_of(record: Record_json): { [member: string]: number } {
  const values: { [member: string]: number } = {};
  for (const [name, value] of Object.entries(record)) {
    if (is_number(value) && (record[`${name}_valueType`] ?? physical_value) === physical_value) values[name] = value;
  }
  return values;
}

function offer_key(offer: Offer): string {
  return `${offer.serviceId} ${offer.instance} ${offer.majorVersion} ${offer.from}`;
}
