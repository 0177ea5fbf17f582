/** The satellites as the antenna sees them: the middle is the zenith, the rim the horizon, north is up. */

import type { Record_json } from "../feed";
import { h, keep_list, set_attribute, set_text, svg } from "../dom";
import { decimal, duration } from "../format";
import { numbers_of } from "../model";
import { Palette, type Context, type Panel } from "../panel";

/** As the records count them, with the letter that receivers print. */
const systems = [
  { name: "GPS", letter: "G", shape: "M0-5.2A5.2 5.2 0 1 1 0 5.2A5.2 5.2 0 1 1 0-5.2Z" },
  { name: "GLONASS", letter: "R", shape: "M-4.8-4.8H4.8V4.8H-4.8Z" },
  { name: "Galileo", letter: "E", shape: "M0-6.2 5.8 4.6H-5.8Z" },
  { name: "BeiDou", letter: "C", shape: "M0-6.6 6.6 0 0 6.6-6.6 0Z" },
  { name: "SBAS", letter: "S", shape: "M0-6 5.7-1.9 3.5 4.9H-3.5L-5.7-1.9Z" },
  { name: "other", letter: "X", shape: "M-2-6H2V-2H6V2H2V6H-2V2H-6V-2H-2Z" },
];
const uses = ["in view", "tracked", "used"];
const most_satellites = 128;
/** dBHz of a bar that fills its column. */
const full_strength = 55;
const old_after_ms = 5000;
/** In units of the plot. */
const name_width = 26;
const name_height = 9;

interface Satellite {
  key: string;
  system: (typeof systems)[number];
  number: number;
  azimuth: number | undefined;
  elevation: number | undefined;
  strength: number | undefined;
  use: number;
}

function satellite(record: Record_json): Satellite {
  const { gnssSystem = 5, satelliteId = 0, azimuth, elevation, carrierToNoise, usage = 0 } = numbers_of(record);
  const system = systems[gnssSystem] ?? systems[5]!;
  return { key: system.letter + satelliteId, system, number: satelliteId, azimuth, elevation, strength: carrierToNoise, use: Math.min(2, usage) };
}

export function sky_panel(context: Context): Panel {
  const { model } = context;
  const palette = new Palette(context.redraw);
  const dots = svg("g");
  const radius = 90;
  const plot = svg("svg", { class: "sky-plot", viewBox: "-112 -104 224 208", role: "img", "aria-labelledby": "sky-words" },
    ...[90, 60, 30].map((distance) => svg("circle", { r: (radius * distance) / 90, class: "ring" })),
    svg("path", { d: `M0-${radius}V${radius}M-${radius} 0H${radius}`, class: "ring" }),
    ...[["N", 0], ["E", 90], ["S", 180], ["W", 270]].map(([text, angle]) => {
      const turn = (Number(angle) * Math.PI) / 180;
      return svg("text", { x: 99 * Math.sin(turn), y: -98 * Math.cos(turn), class: "rim" }, String(text));
    }),
    ...[30, 60].map((elevation) => svg("text", { x: 2, y: -(radius * (90 - elevation)) / 90 + 8, class: "elevation" }, `${elevation}°`)),
    dots);
  const words = h("p", { class: "caption", id: "sky-words" });
  const bars = h("ol", { class: "bars", "aria-hidden": "true" });
  const rows = h("tbody");
  const table = h("div", { class: "unseen" },
    h("table", {},
      h("caption", {}, "Satellites"),
      h("thead", {}, h("tr", {}, ...["Satellite", "System", "Azimuth", "Elevation", "Signal", "Use"].map((text) => h("th", { scope: "col" }, text)))),
      rows));
  const key = h("ul", { class: "key" }, ...systems.slice(0, 5).map((one) =>
    h("li", {}, svg("svg", { viewBox: "-8 -8 16 16", class: "symbol", "aria-hidden": "true" }, svg("path", { d: one.shape })), one.name)));
  const use_key = h("ul", { class: "key" }, ...[2, 1, 0].map((use) =>
    h("li", {}, svg("svg", { viewBox: "-8 -8 16 16", class: "symbol", "data-use": use, "aria-hidden": "true" }, svg("path", { d: systems[0]!.shape })), uses[use]!)));
  /** Of the satellites' names. */
  const places = new WeakMap<Element, { x: number; y: number; use: number }>();
  let drawn: object | undefined;
  let table_due = 0;

  model.follow(["satellites", "reset", "application", "services"], context.redraw);

  function draw(): void {
    const latest = model.satellites;
    const silent = latest ? model.now() - latest.at : 0;
    const old = !latest || silent > old_after_ms;
    set_attribute(body, "data-old", old ? "" : null);
    const list = (latest?.data.records ?? []).slice(0, most_satellites).map(satellite).sort(order);
    const used = list.filter((one) => one.use === 2).length;
    const count = list.length === 0 ? "No satellites" : `${used} used of ${list.length} in view`;
    set_text(words, !latest ? "No satellite data yet" : old ? `${count}, ${duration(silent / 1000)} ago` : count);
    if (drawn === latest) return;
    drawn = latest;
    keep_list(dots, list.filter((one) => one.azimuth !== undefined && one.elevation !== undefined), (one) => one.key, make_dot, update_dot);
    declutter();
    keep_list(bars, list, (one) => one.key, make_bar, update_bar);
    set_attribute(bars, "data-dense", bars.clientWidth < 1.6 * palette.rem * list.length ? "" : null);
    // A screen reader needs no ten tables a second.
    if (performance.now() >= table_due) {
      table_due = performance.now() + 1000;
      keep_list(rows, list, (one) => one.key, () => h("tr", {}, ...Array.from({ length: 6 }, () => h("td"))), update_row);
    }
  }

  /** Where names would lie on each other, only one of them is written, a used one if there is one. The bars have all. */
  function declutter(): void {
    const written: { x: number; y: number }[] = [];
    const elements = [...dots.children].map((element) => ({ element, ...places.get(element)! })).sort((a, b) => b.use - a.use);
    for (const { element, x, y } of elements) {
      const crowded = written.some((one) => Math.abs(one.x - x) < name_width && Math.abs(one.y - y) < name_height);
      set_attribute(element, "data-crowded", crowded ? "" : null);
      if (!crowded) written.push({ x, y });
    }
  }

  function make_dot(one: Satellite): Element {
    return svg("g", { class: "satellite" }, svg("path", { d: one.system.shape }), svg("text", { x: 8, y: 3.5 }, one.key));
  }

  function update_dot(element: Element, one: Satellite): void {
    const turn = (one.azimuth! * Math.PI) / 180;
    const away = (radius * (90 - Math.max(0, Math.min(90, one.elevation!)))) / 90;
    const x = away * Math.sin(turn);
    const y = -away * Math.cos(turn);
    set_attribute(element, "transform", `translate(${x.toFixed(2)} ${y.toFixed(2)})`);
    // Near the eastern rim the name stands on the inner side.
    const outer = x > 0.6 * radius;
    set_attribute(element, "data-east", outer ? "" : null);
    set_attribute(element.lastElementChild!, "x", outer ? "-8" : "8");
    places.set(element, { x: outer ? x - name_width : x, y, use: one.use });
    set_attribute(element, "data-use", String(one.use));
  }

  const body = h("div", { class: "body" },
    plot,
    h("div", { class: "side" }, words, bars, h("div", { class: "keys" }, key, use_key)),
    table);
  return { id: "sky", title: "Sky", body, draw };
}

function order(a: Satellite, b: Satellite): number {
  return systems.indexOf(a.system) - systems.indexOf(b.system) || a.number - b.number;
}

function make_bar(one: Satellite): Element {
  return h("li", {}, h("span", { class: "strength" }), h("span", { class: "bar" }, h("span")), h("span", { class: "id" }, one.key));
}

function update_bar(element: Element, one: Satellite): void {
  const [strength, bar] = element.children as unknown as [HTMLElement, HTMLElement];
  set_text(strength!, one.strength === undefined ? "" : decimal(one.strength, 0));
  const part = Math.max(0, Math.min(1, (one.strength ?? 0) / full_strength));
  (bar!.firstElementChild as HTMLElement).style.transform = `scaleY(${part.toFixed(3)})`;
  set_attribute(element, "data-use", String(one.use));
}

function update_row(element: Element, one: Satellite): void {
  const with_unit = (value: number | undefined, unit: string) => (value === undefined ? "unknown" : `${decimal(value, 0)}${unit}`);
  const texts = [one.key, one.system.name, with_unit(one.azimuth, "°"), with_unit(one.elevation, "°"), with_unit(one.strength, " dBHz"), uses[one.use]!];
  texts.forEach((text, i) => set_text(element.children[i]!, text));
}
