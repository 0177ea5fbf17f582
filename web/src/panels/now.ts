/** This moment in numbers, large enough to be read from the back seat. */

import { button, h, keep_list, set_attribute, set_text, svg } from "../dom";
import { clock_time, compass_point, decimal, direction, duration, is_number, latitude, longitude, no_value, position_types, rough, short_service } from "../format";
import { glyph, set_glyph, type Tone } from "../glyph";
import { numbers_of } from "../model";
import type { Context, Panel } from "../panel";
import type { Record_json } from "../feed";

interface Row {
  name: string;
  value: string;
  unit?: string;
  /** A word beside the value that needs a look. */
  mark?: { tone: Tone; text: string } | undefined;
}

/** Without a new position for this long, the values are of the past. */
const old_after_ms = 2000;

export function now_panel(context: Context): Panel {
  const { model } = context;
  const speed = h("span", { class: "number" });
  const heading = h("span", { class: "number" });
  const point = h("span", { class: "unit" });
  const needle = svg("path", { d: "M0-42 9 12 0 5-9 12Z", class: "needle" });
  const dial = svg("svg", { class: "dial", viewBox: "-50 -50 100 100", "aria-hidden": "true", focusable: "false" },
    svg("circle", { r: 47, class: "ring" }),
    ...[0, 45, 90, 135, 180, 225, 270, 315].map((angle) =>
      svg("path", { d: angle % 90 ? "M0-47V-43" : "M0-47V-39", class: "tick", transform: `rotate(${angle})` })),
    needle);
  const place = h("p", { class: "place" });
  const copy = button("Copy", () => {
    const text = place.dataset["plain"];
    if (text) void navigator.clipboard?.writeText(text).then(() => context.announce("Position copied"), () => undefined);
  }, { "aria-label": "Copy the position" });
  const banner = h("p", { class: "banner" });
  const banner_light = glyph("warn");
  const banner_text = h("span");
  banner.append(banner_light, banner_text);
  const rows = h("dl", { class: "rows" });

  model.follow(["output", "input", "quality", "status", "statistics", "peers", "application", "connection", "reset", "time"], context.redraw);

  /** What stands in place of a present position; undefined: the position is of now. */
  function problem(record: Record_json | undefined): { tone: Tone; text: string } | undefined {
    const output = model.output;
    if (!output || !record) return { tone: "off", text: model.application?.present === false ? "No application" : "No position yet" };
    const silent = model.now() - output.at;
    if (model.connection.state !== "open") return { tone: "warn", text: `As of ${clock_time(output.at)}` };
    if (silent > old_after_ms) return { tone: "bad", text: `Last position ${duration(silent / 1000)} ago` };
    if (!is_number(record["LAT"]) || !is_number(record["LON"])) return { tone: "bad", text: "No fix: the sample has no coordinates" };
    return undefined;
  }

  function draw(): void {
    const record = model.output?.data.records.at(-1);
    const trouble = problem(record);
    banner.hidden = trouble === undefined;
    if (trouble) {
      set_glyph(banner_light, trouble.tone);
      set_text(banner_text, trouble.text);
    }
    set_attribute(body, "data-old", trouble ? "" : null);
    const value = (name: string) => (record && is_number(record[name]) ? record[name] : undefined);
    const metres_a_second = value("speed2D");
    set_text(speed, metres_a_second === undefined ? no_value : decimal(metres_a_second * 3.6, metres_a_second < 27 ? 1 : 0));
    const yaw = value("yawAngle");
    set_text(heading, yaw === undefined ? no_value : direction(yaw));
    set_text(point, yaw === undefined ? "" : compass_point(yaw));
    set_attribute(needle, "transform", `rotate(${yaw ?? 0})`);
    set_attribute(dial, "data-none", yaw === undefined ? "" : null);
    const [lat, lon] = [value("LAT"), value("LON")];
    const known = lat !== undefined && lon !== undefined;
    set_text(place, known ? `${latitude(lat)}  ${longitude(lon)}` : "No coordinates");
    if (known) place.dataset["plain"] = `${lat.toFixed(7)}, ${lon.toFixed(7)}`;
    else delete place.dataset["plain"];
    copy.disabled = !known;
    keep_list(rows, list(record), (row) => row.name, make_row, update_row);
  }

  function list(record: Record_json | undefined): Row[] {
    const now = model.now();
    const clock = model.statistics?.clock;
    const unsure = clock !== undefined && !clock.synchronised;
    const age = model.output?.data.ageS;
    // The forwarded position does not say its type; the source's is the one that comes.
    const type = [1, 2].filter((one) => now - (model.input.get(one)?.at ?? 0) < 5000);
    const quality = [...model.quality.values()].sort((a, b) => b.at - a.at)[0];
    const fix = quality && now - quality.at < 5000 ? quality.data["statusFixType"] : undefined;
    const { satsInUse: used, satsInView: seen } = quality ? numbers_of(quality.data) : {};
    const gnss = model.peers?.consumed.find((one) => short_service(one.service) === "GNSS");
    const rate = (value: number) => (Number.isNaN(value) ? no_value : decimal(value, 1));
    // Only where a Time service is offered.
    const utc = model.times && now - model.times.at < 5000 ? model.times.data.records.find((one) => is_number(one["utcSeconds"])) : undefined;
    const accuracy = (name: string) => (record && is_number(record[name]) ? rough(record[name]) : no_value);
    return [
      { name: "Altitude", value: decimal(record?.["altitudeMeanSeaLevel"], 1), unit: "m" },
      { name: "Accuracy", value: accuracy("accuracyHorizontal"), unit: `m across, ${accuracy("accuracyVertical")} m up` },
      {
        name: "Age",
        value: is_number(age) ? rough(Math.abs(age) * 1000) : no_value,
        unit: unsure ? "ms" : "ms on arrival",
        mark: unsure ? { tone: "warn", text: "clock not synchronised" } : undefined,
      },
      { name: "Rate in", value: rate(model.rates.input.value(now)), unit: "a second" },
      { name: "Rate out", value: rate(model.rates.output.value(now)), unit: "a second" },
      {
        name: "Fix",
        value: fix === "none" ? "no fix" : String(fix ?? no_value),
        mark: fix === "none" ? { tone: "bad", text: "" } : undefined,
      },
      { name: "Satellites", value: is_number(used) ? `${used}${is_number(seen) ? ` of ${seen}` : ""}` : no_value, unit: "used" },
      {
        name: "Source",
        value: type.map((one) => position_types[one]).join(" and ") || no_value,
        unit: gnss?.found ? `from ${gnss.address}` : "",
        mark: gnss && !gnss.found ? { tone: "bad", text: gnss.cause || "not found" } : undefined,
      },
      ...(utc ? [{
        name: "Time service",
        value: new Date(1000 * Number(utc["utcSeconds"])).toISOString().slice(11, 19),
        unit: "UTC",
        mark: utc["syncState"] === "free running" ? { tone: "warn" as const, text: "free running" } : undefined,
      }] : []),
    ];
  }

  const body = h("div", { class: "body" },
    banner,
    h("div", { class: "large" },
      h("p", { class: "quantity speed" }, h("span", { class: "name" }, "Speed"), speed, h("span", { class: "unit" }, "km/h")),
      h("p", { class: "quantity heading" }, h("span", { class: "name" }, "Heading"), heading, point),
      dial),
    h("div", { class: "line" }, place, copy),
    rows);

  return { id: "now", title: "Now", body, draw };
}

function make_row(row: Row): Element {
  const light = glyph("warn");
  return h("div", {},
    h("dt", {}, row.name),
    h("dd", {}, h("span", { class: "value" }), " ", h("span", { class: "unit" }), h("span", { class: "mark" }, light, h("span"))));
}

function update_row(element: Element, row: Row): void {
  const [value, unit, mark] = element.lastElementChild!.children as unknown as [HTMLElement, HTMLElement, HTMLElement];
  set_text(value, row.value);
  set_text(unit, row.unit && row.value !== no_value ? row.unit : "");
  mark.hidden = !row.mark;
  if (row.mark) {
    set_glyph(mark.firstElementChild as SVGSVGElement, row.mark.tone);
    set_text(mark.lastElementChild!, row.mark.text);
  }
}
