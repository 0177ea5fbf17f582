/** Numbers, times and names as people read them. Every text is in English, whatever the browser's language is. */

export const no_value = "–";
const minus = "\u2212";
const thin = "\u202f";

export function is_number(value: unknown): value is number {
  return typeof value === "number" && Number.isFinite(value);
}

export function decimal(value: unknown, digits: number): string {
  if (!is_number(value)) return no_value;
  const text = value.toFixed(digits);
  return text.startsWith("-") ? minus + text.slice(1) : text;
}

/** 1234567 as 1 234 567. */
export function grouped(value: number): string {
  return String(Math.round(value)).replace(/\B(?=(\d{3})+$)/g, thin);
}

/** As many digits as the number has. */
export function plain_number(value: number): string {
  return (Number.isInteger(value) ? grouped(value) : String(value)).replace("-", minus);
}

/** Three digits whatever the size: 0.42, 4.2, 42, 420. */
export function rough(value: unknown): string {
  if (!is_number(value)) return no_value;
  const size = Math.abs(value);
  return decimal(value, size >= 100 ? 0 : size >= 10 ? 1 : 2);
}

/** Seconds as 0.4 s, 12 s, 3 min 20 s, 2 h 5 min, 3 d 4 h. */
export function duration(seconds: unknown): string {
  if (!is_number(seconds)) return no_value;
  const s = Math.max(0, seconds);
  if (s < 9.95) return `${s.toFixed(1)} s`;
  if (s < 59.5) return `${Math.round(s)} s`;
  if (s < 3570) return pair(Math.round(s), 60, "min", "s");
  if (s < 86_000) return pair(Math.round(s / 60), 60, "h", "min");
  return pair(Math.round(s / 3600), 24, "d", "h");
}

function pair(whole: number, base: number, large: string, small: string): string {
  const rest = whole % base;
  return `${Math.floor(whole / base)} ${large}${rest ? ` ${rest} ${small}` : ""}`;
}

export function distance(metres: number): string {
  return metres >= 999.5 ? `${decimal(metres / 1000, metres >= 99_950 ? 0 : 1)} km` : `${decimal(metres, metres >= 9.95 ? 0 : 1)} m`;
}

const two = (n: number) => String(n).padStart(2, "0");

/** Local time of day of a Unix time in ms. */
export function clock_time(ms: number, fraction = 0): string {
  const date = new Date(ms);
  const text = `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
  return fraction ? `${text}.${String(date.getMilliseconds()).padStart(3, "0").slice(0, fraction)}` : text;
}

export function latitude(value: number): string {
  return `${Math.abs(value).toFixed(6)}° ${value < 0 ? "S" : "N"}`;
}

export function longitude(value: number): string {
  return `${Math.abs(value).toFixed(6)}° ${value < 0 ? "W" : "E"}`;
}

/** An angle from north: 359.6 is 0, not 360. */
export function direction(degrees: number): string {
  return `${((Math.round(degrees) % 360) + 360) % 360}°`;
}

const points = ["north", "north-east", "east", "south-east", "south", "south-west", "west", "north-west"];

export function compass_point(degrees: number): string {
  return points[Math.round((((degrees % 360) + 360) % 360) / 45) % 8]!;
}

/** "frontCameraPosition" as "front camera position"; capitals that belong together stay. */
export function spaced(name: string): string {
  return name.replace(/([a-z0-9])([A-Z])/g, (_, a: string, b: string) => `${a} ${b.toLowerCase()}`);
}

/** A capital first, a full stop last. */
export function sentence(text: string): string {
  const first = text.charAt(0).toUpperCase() + text.slice(1);
  return text === "" || /[.!?]$/.test(text) ? first : `${first}.`;
}

/** Names of the positionType of a record, by the number that the history has. */
export const position_types = ["", "GNSS", "GNSS-DR"];

const labels: { [name: string]: string } = {
  gnss: "GNSS",
  lbl: "LBL",
  pgf: "PGF",
  bvLines: "camera lane lines",
  staticOutput: "static",
};

/** The name of an input, output or function as it stands beside its light. */
export function label_of(name: string): string {
  return labels[name] ?? spaced(name);
}

export function group_word(group: string): string {
  return { inputs: "input", outputs: "output", system: "system function" }[group] ?? group;
}

export function status_word(status: string): string {
  return status === "NotAvailable" ? "not available" : status;
}

/** "lumo::services::gnss::GNSS" as "GNSS". */
export function short_service(name: string): string {
  return name.slice(name.lastIndexOf(":") + 1);
}
