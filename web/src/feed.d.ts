/**
 * Messages between `posctl serve` and its page over the WebSocket `feed` (relative to the page's address).
 * Each text frame from the server is one JSON object of type Frame. The data of a topic is what the posctl command named
 * beside it prints with --json: one shape for one thing. New members and new topics may come at any time: ignore them.
 */

/** Members of a record, by name; absent ones are left out, enumerations are names, or numbers that have none. */
export type Record_json = { [member: string]: number | string | boolean | object };
export type Schema = { schema: 1 };

export interface Frame<T extends keyof Topics = keyof Topics> extends Schema {
  topic: T;
  /** Unix time in ms with fraction: when the server received or made the data. */
  at: number;
  data: Topics[T];
}

export interface Topics {
  /** The first frame of each connection, and when `way` changes. Once in each snapshot. */
  hello: Hello;
  /** The second: what has been. Once a connection. */
  history: History;
  /** The application has gone or is back. Also once in each snapshot. */
  application: Application;
  /** Positions of the Positioning service; `posctl watch --json --field positions`. */
  output: Notification;
  /** Map-matched records of the Positioning service; `posctl watch --json --field posMapInfo`. */
  map: Notification;
  /** Positions of the GNSS service, as the source sends them; both types. Same shape as output. */
  input: Notification;
  /** GNSS field positionsQuality: dilutions, satsInUse, satsInView, statusFixType, … A record for each position type. */
  quality: Notification;
  /** GNSS field posGnssSatInfos: a record for each satellite; the list is complete. */
  satellites: Notification;
  /** Time service: field "times" or "timeSettings". Only where the service is offered. */
  time: Notification;
  /** Whether the services that the server itself looks at are there: "GNSS", "Time", "Positioning", "Statistics". Each second while there is no application. */
  services: { [service: string]: { present: boolean; text: string } };
  /** Verdict and statuses. Within 200 ms of a change, and each second. */
  status: Status;
  /** One input, output or system function has another status than before. An event: kept in history. */
  change: Change;
  /** A data bus fault appeared or went. An event: kept in history. */
  fault: Fault_event;
  /** `posctl stats --json`, each second. `counters` has those that changed since the frame before; all in a snapshot. */
  statistics: Statistics;
  /** `posctl peers --json`, each second. */
  peers: Peers;
  /** `posctl discover --json`: everything that is offered on the network now. In a snapshot. */
  offers: Schema & { offers: Offer[] };
  /** `posctl discover --follow --json`. An event: kept in history. */
  offer: Offer & Schema & { event: "offered" | "changed" | "withdrawn" | "expired" };
  /** The present state of all 23 monitors, as `posctl monitors --json` begins. In a snapshot. */
  monitors: { monitors: Monitor_state[] };
  /** A report of a monitor: `posctl monitors --json --reports-only`. An event: kept in history. */
  monitor: Monitor_report;
  /** Component states over D-Bus. `available` false: `text` says why. An event: kept in history. */
  component: Component;
  /** Faults that the source makes on request; `posctl fault list --json`. Twice a second, only with hello.control. */
  sourceFaults: Source_faults;
  /** Lines of the application's log. An event: kept in history. */
  log: Log_lines;
  /** The answer to an Action. */
  answer: Answer;
  /** The browser was too slow: `frames` frames were left out. A snapshot without history follows. */
  lost: { frames: number };
}

export interface Hello {
  version: string;              // of posctl
  /** Another value: the server has been restarted. Drop what you have and take the history that follows. */
  server: string;
  source: "live" | "recording";
  control: boolean;             // actions are allowed
  /** How the server reaches the application, as posctl says it: "over the network as node posctl". */
  way: string;
  /** GET marks.json has landmarks. */
  marks: boolean;
  monitorReasons: string[];     // for initMonitor: "kClear", …
  componentStates: string[];    // "kOn", "kPrepSD"
}

/** Names of the curves in history; the same names as the members of the records, and a few of our own. */
export interface History {
  series: Series[];
  /** Frames of the event topics, the oldest first, with their own `at`. Feed them to the same functions as live ones. */
  frames: Frame[];
}
export interface Series {
  /** "statistics": curves ratePerS, stampToArrivalP50Ms, stampToArrivalP99Ms, handlerToSentP50Ms, handlerToSentP99Ms.
   *  "quality": satsInView, satsInUse, satsTracked, hDOP, pDOP, statusFixType.
   *  "output", "input": LAT, LON, altitudeMeanSeaLevel, speed2D, yawAngle, courseOverGround, accuracyHorizontal, accuracyVertical,
   *  accuracyYawAngle, ageMs (on arrival here, as ageS of the notification). */
  topic: "output" | "input" | "quality" | "statistics";
  /** 1 GNSS, 2 GNSS-DR, null: not given (a forwarded output position; statistics). A series has one type. */
  positionType: number | null;
  /** Oldest first, one after the other in time without overlap: 5 s, 1 s and 50 ms a row. */
  tiers: Tier[];
}
export interface Tier {
  bucketMs: number;
  /** Unix time in ms of the last sample of the row; ascending. A long difference is a gap: draw none across. */
  t: number[];
  /** Samples in the row. */
  n: number[];
  /** The last sample of each row. null: it has no such member. */
  last: { [curve: string]: (number | null)[] };
  /** Least and greatest of each row; left out if every n is 1. */
  min?: { [curve: string]: (number | null)[] };
  max?: { [curve: string]: (number | null)[] };
}

export interface Application {
  present: boolean;
  /** Unix time in ms since when. */
  since: number;
  /** Gone: why the server thinks so. */
  text: string;
  /** Unix time in ms of the application's start, if it is known: another value is a restart. */
  started?: number;
}

export interface Notification extends Schema {
  field: string;                // "positions", "posMapInfo", "positionsQuality", "posGnssSatInfos", "times", "timeSettings"
  received: number;             // seconds since 1970
  records: Record_json[];
  /** The initial value of a field: it has a stamp and nothing else. It is no position. */
  initial?: true;
  /** Age of the last record with a stamp on this machine's time base. Another machine's clock makes it wrong: see clock. */
  ageS?: number;
  /** Set if several notifications were joined because more than 20 a second came. One for each record, in the same order:
   *  `records` then has the last one of each positionType. */
  merged?: { count: number; from: number /* received of the first */; min: Record_numbers; max: Record_numbers }[];
}
export type Record_numbers = { [member: string]: number };

export type Status_name = "Nominal" | "Error" | "Init" | "NotAvailable";
export type Group = "inputs" | "outputs" | "system";
/** A part of `posctl status --json`, and the words. */
export interface Status extends Schema {
  verdict: "healthy" | "degraded" | "failed" | "no answer";
  reason: string;
  findings: string[];
  ratePerS: number;
  inputs: { [name: string]: Status_name };    // 11: gnss, odometry, frontCameraPosition, …
  outputs: { [name: string]: Status_name };   // 3: mapMatched, deadReckoning, staticOutput
  system: { [name: string]: Status_name };    // 14: overall, pgf, lbl, mapMatching, …; those named "system…" are reserved. All three are empty objects while verdict is "no answer"
  sinceS: { [group in Group]: { [name: string]: number } };
  dataBus: { [kind in Fault_kind]: Fault[] };
  /** What the present status means here ("no data for over 5 s"), and what the thing is ("status of POS_Input_GNSS"). */
  words: { [group in Group]: { [name: string]: { meaning: string; what: string } } };
}
export type Fault_kind = "notAvailable" | "errorValueReceived" | "implausible";
export interface Fault {
  service: string;              // "GNSS", "Time"
  element?: string;
  present: boolean;
  occurrences: number;
  sinceS: number;
  cause?: string;
  text: string;                 // one sentence
}
export interface Change { group: Group; name: string; before: Status_name; status: Status_name; meaning: string }
export interface Fault_event { kind: Fault_kind; service: string; element?: string; present: boolean; text: string }

export interface Statistics extends Schema {
  process: { residentBytes: number; threads: number; uptimeMs: number };
  clock: { synchronised: boolean; estimatedErrorUs: number; maximumErrorUs: number; taiOffsetS: number; steps: number };
  stamps: { notifications: number; missing: number; inFuture: number; standingStill: number; jumped: number };
  /** stampToArrival, arrivalToHandler, handlerToSent, betweenArrivals */
  ages: { [name: string]: { sinceStart: Age; last10S: Age } };
  counters: { [name: string]: number };
}
export interface Age { count: number; minNs: number; p50Ns: number; p99Ns: number; p999Ns: number; maxNs: number; sumNs: number }

export interface Endpoint { address: string; udpPort: number; tcpPort: number }
export interface Subscriber extends Endpoint {
  serviceId: string; instance: string; eventGroup: string;
  subscribed: boolean; sinceMs: number | null; ttlLeftMs: number | null; sent: number; refused: number; cause: string;
}
export interface Peers extends Schema {
  offered: (Endpoint & { service: string; serviceId: string; instance: string; majorVersion: number; minorVersion: number; subscribers: Subscriber[] })[];
  consumed: (Endpoint & {
    service: string; serviceId: string; instance: string; majorVersion: number; found: boolean;
    sinceMs: number | null; ttlLeftMs: number | null; cause: string;
    eventGroups: { serviceId: string; instance: string; eventGroup: string; connected: boolean; subscribed: boolean;
                   sinceMs: number | null; lastNotificationMs: number | null; cause: string }[];
  })[];
  otherSubscribers: Subscriber[];
}
export interface Offer {
  serviceId: string; instance: string; majorVersion: number; minorVersion: number;
  from: string; udp?: string; tcp?: string; ttlS: number | null;
  service: string | null;       // null: not in the manifest
  manifestMajorVersion?: number;
}

export interface Monitor_state extends Schema { monitor: string; name: string; status: Status_name | null; sinceS?: number }
export interface Monitor_report extends Schema { received: number; monitor: string; name: string; action: string }

/** `state` and what follows are missing until the first confirmation. */
export interface Component { available: boolean; text: string; state?: string; sequenceNumber?: number; result?: number }

export interface Source_faults extends Schema {
  /** Whether a gateway offers its faults; otherwise `text` says why not. */
  present: boolean;
  text: string;
  faults: Planned_fault[];
  /** Those that it knows: in a snapshot, and when they are others than before. */
  kinds?: Known_fault[];
}
export interface Planned_fault { fault: string /* its order */; inForce: boolean; sinceS?: number; startsInS?: number; endsInS: number | null }
/** A kind with `choices` has one of them as value; one with a `usual` value and no choices has a number; another one has none. */
export interface Known_fault { name: string; meaning: string; unit: string; low: number; high: number; choices: string[]; usual: string }

export interface Log_lines {
  /** Plain text: show it as text, never as markup. */
  lines: { at: number /* Unix ms */; level: "fatal" | "error" | "warn" | "info" | "debug" | "verbose"; context: string; text: string }[];
  /** Lines that were left out before these, because more came than the application keeps. */
  lost: number;
}

/** From the page to the server: one JSON object a text frame, at most 4 KiB. Refused unless hello.control. */
export type Action =
  | { action: "initMonitor"; id: number; monitor: string /* name or identifier */; reason: string }
  | { action: "componentState"; id: number; state: string }
  | { action: "makeFault"; id: number; fault: string /* NAME[=VALUE][@START[+DURATION]] */ }
  | { action: "endFaults"; id: number; fault: string /* a name or an order; empty: all */ };
/** An action before it has its id. */
export type Action_wish = Action extends infer A ? (A extends unknown ? Omit<A, "id"> : never) : never;
export interface Answer { id: number; ok: boolean; text: string }

/** GET marks.json: landmarks from --marks, whichever format the file has. 404 without. */
export interface Marks extends Schema { marks: { name: string; points: [lon: number, lat: number][] }[] }
