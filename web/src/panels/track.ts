/** Where the vehicle has been: positions out over positions in, on a metric grid, north up. */

import type { Marks } from "../feed";
import { button, h, select, set_attribute, set_text } from "../dom";
import { compass_point, direction, distance, duration, is_number, latitude, longitude } from "../format";
import { metres_between, metres_of_degree } from "../model";
import { Palette, Surface, type Context, type Panel } from "../panel";
import { Link, type Series } from "../series";
import { beside } from "../source";
import { Trail, type Line } from "./trail";

const closest = 0.02; // metres a CSS pixel
const farthest = 20_000;
const first_scale = 0.6;
const ramp = [0, 1, 2, 3, 4, 5];
const age_steps_ms = [0.1, 1, 10, 100, 1000];
/** An arrow key moves by this part of the view. */
const pan_step = 0.15;
const summary_ms = 300;
const jumps_shown = 50;

interface Place {
  lat: number;
  lon: number;
}
/** What the track is made of. */
interface Summary {
  pieces: number;
  gaps: number;
  jumps: [from: Place, to: Place][];
  length: number;
}

export function track_panel(context: Context): Panel {
  const { model, address, cursor } = context;
  const palette = new Palette(context.redraw);
  const canvas = h("canvas", { class: "map", tabindex: 0, role: "img", "aria-label": "Track", "aria-describedby": "track-keys" });
  const caption = h("p", { class: "caption" });
  const nothing = h("p", { class: "nothing" });
  const surface = new Surface(canvas, context.redraw);
  let marks: Marks["marks"] = [];
  let marks_asked = "";
  /** Grid lines stand still on the ground, whatever the view does. */
  let origin: Place | undefined;
  const trail = new Trail();
  let generation = 0;
  let summary: Summary = { pieces: 0, gaps: 0, jumps: [], length: 0 };
  let summary_due = 0;

  const follows = () => address.get("center") === "";
  const scale = () => {
    const value = address.number("scale", closest, farthest);
    return Number.isNaN(value) ? first_scale : value;
  };

  function last_place(): (Place & { row: number; series: Series }) | undefined {
    for (const series of [model.output_track, ...model.input_tracks.values()]) {
      // Rows of samples without a fix have no place.
      for (let i = series.length - 1; i >= Math.max(0, series.length - 2000); --i) {
        const lat = series.value("LAT", i);
        const lon = series.value("LON", i);
        if (Math.abs(lat) <= 90 && Math.abs(lon) <= 180) return { lat, lon, row: i, series };
      }
    }
    return undefined;
  }

  function center(): Place | undefined {
    if (!follows()) {
      const [lat, lon] = address.get("center").split(",").map(Number);
      if (is_number(lat) && is_number(lon) && Math.abs(lat) <= 90 && Math.abs(lon) <= 180) return { lat, lon };
    }
    const { to, live } = context.time_window();
    if (live) return last_place();
    const i = model.output_track.nearest(to, 5000);
    return i < 0 ? last_place() : { lat: model.output_track.value("LAT", i), lon: model.output_track.value("LON", i) };
  }

  function move(right: number, down: number): void {
    const middle = center();
    if (!middle) return;
    const m = metres_of_degree(middle.lat);
    const lat = Math.max(-89, Math.min(89, middle.lat - (down * scale()) / m.lat));
    const lon = ((middle.lon + (right * scale()) / m.lon + 540) % 360) - 180;
    address.set({ center: `${lat.toFixed(7)},${lon.toFixed(7)}` });
  }

  /** Zooms so that the place under (x, y), from the middle, stays there. */
  function zoom(factor: number, x = 0, y = 0): void {
    const before = scale();
    const after = Math.max(closest, Math.min(farthest, before * factor));
    if (!follows() && (x || y)) move(x * (1 - after / before), y * (1 - after / before));
    address.set({ scale: after.toPrecision(4) });
  }

  function fit(): void {
    const { from, to } = context.time_window();
    let [south, north, west, east] = [Infinity, -Infinity, Infinity, -Infinity];
    const track = model.output_track;
    for (let i = track.at_or_after(from); i < track.length && track.time(i) <= to; ++i) {
      const lat = track.value("LAT", i);
      const lon = track.value("LON", i);
      if (!(Math.abs(lat) <= 90 && Math.abs(lon) <= 180)) continue;
      [south, north] = [Math.min(south, lat), Math.max(north, lat)];
      [west, east] = [Math.min(west, lon), Math.max(east, lon)];
    }
    if (south > north) return;
    const lat = (south + north) / 2;
    const m = metres_of_degree(lat);
    const needed = Math.max(((north - south) * m.lat) / (surface.height * 0.85), ((east - west) * m.lon) / (surface.width * 0.85));
    address.set({
      center: `${lat.toFixed(7)},${((west + east) / 2).toFixed(7)}`,
      scale: Math.max(closest, Math.min(farthest, needed)).toPrecision(4),
    });
  }

  // Pointer, wheel and keys

  const pointers = new Map<number, { x: number; y: number }>();
  canvas.addEventListener("pointerdown", (event) => {
    canvas.setPointerCapture(event.pointerId);
    pointers.set(event.pointerId, { x: event.offsetX, y: event.offsetY });
  });
  canvas.addEventListener("pointermove", (event) => {
    const before = pointers.get(event.pointerId);
    if (!before) return;
    const here = { x: event.offsetX, y: event.offsetY };
    const other = [...pointers].find(([id]) => id !== event.pointerId)?.[1];
    if (other) {
      const apart = (at: { x: number; y: number }) => Math.hypot(at.x - other.x, at.y - other.y);
      zoom(apart(before) / Math.max(1, apart(here)));
    } else if (Math.hypot(here.x - before.x, here.y - before.y) > 1) {
      move(before.x - here.x, before.y - here.y);
    } else {
      return;
    }
    pointers.set(event.pointerId, here);
  });
  for (const end of ["pointerup", "pointercancel"] as const) canvas.addEventListener(end, (event) => pointers.delete(event.pointerId));
  canvas.addEventListener("wheel", (event) => {
    // Without the focus the wheel scrolls the page.
    if (document.activeElement !== canvas) return;
    event.preventDefault();
    zoom(Math.exp(event.deltaY * (event.deltaMode ? 0.05 : 0.0015)), event.offsetX - surface.width / 2, event.offsetY - surface.height / 2);
  }, { passive: false });
  canvas.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const action = {
      ArrowLeft: () => move(-surface.width * pan_step, 0),
      ArrowRight: () => move(surface.width * pan_step, 0),
      ArrowUp: () => move(0, -surface.height * pan_step),
      ArrowDown: () => move(0, surface.height * pan_step),
      "+": () => zoom(0.8),
      "-": () => zoom(1.25),
      f: () => address.set({ center: "" }),
      "0": fit,
    }[event.key];
    if (!action) return;
    event.preventDefault();
    action();
  });

  const follow = button("Follow", () => address.set({ center: follows() && center() ? place_text(center()!) : "" }));
  const color = select("Colour of the track", [["plain", "one colour"], ["ago", "by time"], ["speed", "by speed"], ["age", "by age"]] as const,
    (value) => address.set({ color: value }));
  color.element.firstElementChild!.className = "unseen";
  address.follow((view) => {
    set_attribute(follow, "aria-pressed", String(view.center === ""));
    color.set(view.color as "plain");
    context.redraw();
  });
  cursor.follow(context.redraw);
  model.follow(["output", "input", "history", "reset", "lost", "application"], context.redraw);
  model.follow(["hello"], () => {
    if (!model.hello?.marks || marks_asked === model.hello.server) return;
    marks_asked = model.hello.server;
    void fetch(beside("marks.json")).then((answer) => (answer.ok ? (answer.json() as Promise<Marks>) : undefined)).then((found) => {
      marks = found?.marks ?? [];
      context.redraw();
    }, () => undefined);
  });
  // Rows that come in an old time, and those of another server, are not on the layer.
  model.follow(["reset", "history"], () => {
    ++generation;
    summary_due = 0;
  });
  model.follow(["reset"], () => (origin = undefined));

  // Drawing

  interface Projection {
    x(lon: number): number;
    y(lat: number): number;
  }

  function draw(): void {
    const paint = surface.context;
    const { width, height } = surface;
    if (width === 0 || height === 0) return;
    paint.fillStyle = palette.get("paper");
    paint.fillRect(0, 0, width, height);
    const middle = center();
    nothing.hidden = middle !== undefined;
    set_text(nothing, nothing_text());
    if (!middle) {
      set_text(caption, "");
      set_attribute(canvas, "aria-label", `Track: ${nothing_text()}`);
      return;
    }
    origin ??= { lat: middle.lat, lon: middle.lon };
    const m = metres_of_degree(middle.lat);
    const kx = m.lon / scale();
    const ky = m.lat / scale();
    const to: Projection = {
      x: (lon) => {
        const apart = lon - middle.lon;
        return width / 2 + (apart > 180 ? apart - 360 : apart < -180 ? apart + 360 : apart) * kx;
      },
      y: (lat) => height / 2 - (lat - middle.lat) * ky,
    };
    const step = grid(to, kx, ky);
    draw_marks(to);
    const window = context.time_window();
    const colors = coloring(window);
    const lines: Line[] = [
      { series: model.output_track, width: 0.14 * palette.rem, color: palette.get("accent"), below: false, step: colors?.of },
      ...[...model.input_tracks].map(([type, series]) => (
        { series, width: 0.45 * palette.rem, color: palette.get(type === 2 ? "track-in-dr" : "track-in"), below: true, step: undefined })),
    ];
    // The first word says what cannot be shown in place of the other.
    const style = `${generation}${palette.get("accent")} ${colors ? colors.name + colors.high : ""}`;
    if (trail.draw(paint, { ...middle, scale: scale(), width, height }, lines, palette, window.from, window.to, style)) context.redraw();
    if (performance.now() > summary_due) {
      summary = summarise(window.from, window.to);
      summary_due = performance.now() + summary_ms;
      describe(summary, window);
    }
    draw_jumps(to);
    draw_cursor(to);
    draw_vehicle(to, window);
    scale_bar(step);
    north_arrow();
    if (colors) legend(colors);
  }

  function nothing_text(): string {
    if (model.output) return "No position yet: the samples have no coordinates.";
    return model.application?.present === false ? "No application, so no positions." : "No position yet.";
  }

  /** Draws the grid and returns the metres between its lines. */
  function grid(to: Projection, kx: number, ky: number): number {
    const paint = surface.context;
    const wanted = scale() * 5 * palette.rem;
    const power = 10 ** Math.floor(Math.log10(wanted));
    const step = [1, 2, 5, 10].map((one) => one * power).find((one) => one >= wanted)!;
    const pixels = step / scale();
    paint.strokeStyle = palette.get("grid");
    paint.lineWidth = 1;
    paint.beginPath();
    for (let x = ((to.x(origin!.lon) % pixels) + pixels) % pixels; x < surface.width; x += pixels) {
      paint.moveTo(Math.round(x) + 0.5, 0);
      paint.lineTo(Math.round(x) + 0.5, surface.height);
    }
    for (let y = ((to.y(origin!.lat) % pixels) + pixels) % pixels; y < surface.height; y += pixels) {
      paint.moveTo(0, Math.round(y) + 0.5);
      paint.lineTo(surface.width, Math.round(y) + 0.5);
    }
    if (kx > 0 && ky > 0) paint.stroke();
    return step;
  }

  function draw_marks(to: Projection): void {
    const paint = surface.context;
    paint.strokeStyle = paint.fillStyle = palette.get("ink-3");
    paint.lineWidth = 1;
    paint.font = palette.font(0.75);
    paint.textAlign = "left";
    paint.textBaseline = "middle";
    for (const { name, points } of marks) {
      const [first] = points;
      if (!first) continue;
      const [x, y] = [to.x(first[0]), to.y(first[1])];
      paint.beginPath();
      if (points.length === 1) paint.rect(x - 3, y - 3, 6, 6);
      points.forEach(([lon, lat], i) => (i ? paint.lineTo(to.x(lon), to.y(lat)) : paint.moveTo(to.x(lon), to.y(lat))));
      paint.stroke();
      if (name && x > -200 && x < surface.width && y > 0 && y < surface.height) paint.fillText(name.slice(0, 40), x + 7, y);
    }
  }

  type Coloring = { name: "ago" | "speed" | "age"; of(row: number): number; low: string; high: string };

  /** The step of the ramp for a row of the output, and the words at the ends of the ramp; undefined: one colour. */
  function coloring(window: { from: number; to: number }): Coloring | undefined {
    const track = model.output_track;
    switch (address.get("color")) {
      case "ago": {
        const span = window.to - window.from;
        return {
          name: "ago",
          of: (i) => Math.max(0, Math.min(5, Math.floor((6 * (track.time(i) - window.from)) / span))),
          low: `${duration(span / 1000)} ago`,
          high: "now",
        };
      }
      case "speed": {
        let most = 0;
        for (let i = track.at_or_after(window.from); i < track.length; i += 5) {
          const speed = track.value("speed2D", i);
          if (speed > most) most = speed;
        }
        const top = [10, 30, 60, 100, 150, 250, 400, 1000].find((one) => one >= most * 3.6) ?? 1000;
        return {
          name: "speed",
          of: (i) => Math.max(0, Math.min(5, Math.floor((6 * 3.6 * track.value("speed2D", i)) / top) || 0)),
          low: "0",
          high: `${top} km/h`,
        };
      }
      case "age":
        return {
          name: "age",
          of: (i) => {
            const age = track.value("ageMs", i);
            return age >= 0 ? age_steps_ms.filter((step) => age >= step).length : 0;
          },
          low: "0.1 ms",
          high: "1 s old",
        };
      default:
        return undefined;
    }
  }

  function summarise(from: number, until: number): Summary {
    const found: Summary = { pieces: 0, gaps: 0, jumps: [], length: 0 };
    const track = model.output_track;
    const lats = track.array("LAT");
    const lons = track.array("LON");
    let [lat, lon, open] = [NaN, NaN, false];
    let m = { lat: 0, lon: 0 };
    const end = track.at_or_after(until + 1);
    for (let i = track.at_or_after(from); i < end; ++i) {
      const slot = track.slot(i);
      const next_lat = lats[slot]!;
      const next_lon = lons[slot]!;
      const link = track.link(i);
      if (!(Math.abs(next_lat) <= 90 && Math.abs(next_lon) <= 180)) open = false;
      else {
        if (!open || link !== Link.continues) {
          if (open && link === Link.jump) found.jumps.push([{ lat, lon }, { lat: next_lat, lon: next_lon }]);
          else if (found.pieces) ++found.gaps;
          ++found.pieces;
          m = metres_of_degree(next_lat);
        } else found.length += Math.hypot((next_lat - lat) * m.lat, (next_lon - lon) * m.lon);
        [lat, lon, open] = [next_lat, next_lon, true];
      }
    }
    return found;
  }

  function draw_jumps(to: Projection): void {
    const paint = surface.context;
    paint.strokeStyle = palette.get("warn");
    paint.lineWidth = 1.5;
    for (const places of summary.jumps.slice(-jumps_shown)) {
      const [from, until] = places.map(({ lat, lon }) => [to.x(lon), to.y(lat)] as const) as [[number, number], [number, number]];
      paint.setLineDash([2, 5]);
      paint.beginPath();
      paint.moveTo(...from);
      paint.lineTo(...until);
      paint.stroke();
      paint.setLineDash([]);
      for (const [x, y] of [from, until]) {
        paint.beginPath();
        paint.arc(x, y, 5, 0, 2 * Math.PI);
        paint.stroke();
      }
    }
  }

  function draw_cursor(to: Projection): void {
    if (Number.isNaN(cursor.t)) return;
    const i = model.output_track.nearest(cursor.t, 3000);
    if (i < 0) return;
    const paint = surface.context;
    paint.strokeStyle = palette.get("ink");
    paint.lineWidth = 2;
    paint.beginPath();
    paint.arc(to.x(model.output_track.value("LON", i)), to.y(model.output_track.value("LAT", i)), 0.45 * palette.rem, 0, 2 * Math.PI);
    paint.stroke();
  }

  function draw_vehicle(to: Projection, window: { to: number; live: boolean }): void {
    const place = last_place();
    if (!place || !window.live) return;
    const paint = surface.context;
    const [x, y] = [to.x(place.lon), to.y(place.lat)];
    const accuracy = place.series.value("accuracyHorizontal", place.row) / scale();
    if (accuracy > 2) {
      paint.beginPath();
      paint.arc(x, y, accuracy, 0, 2 * Math.PI);
      paint.fillStyle = palette.get("accent-faint");
      paint.fill();
      paint.strokeStyle = palette.get("accent");
      paint.lineWidth = 1;
      paint.stroke();
    }
    const heading = place.series === model.output_track ? place.series.value("yawAngle", place.row) : NaN;
    const old = window.to - place.series.time(place.row) > 2000;
    const size = 0.75 * palette.rem;
    paint.save();
    paint.translate(x, y);
    paint.beginPath();
    if (Number.isNaN(heading)) paint.arc(0, 0, size / 2, 0, 2 * Math.PI);
    else {
      paint.rotate((heading * Math.PI) / 180);
      paint.moveTo(0, -size);
      paint.lineTo(0.62 * size, 0.75 * size);
      paint.lineTo(0, 0.4 * size);
      paint.lineTo(-0.62 * size, 0.75 * size);
      paint.closePath();
    }
    paint.fillStyle = palette.get(old ? "paper" : "ink");
    paint.strokeStyle = palette.get(old ? "ink-3" : "paper");
    paint.lineWidth = 2;
    paint.fill();
    paint.stroke();
    paint.restore();
  }

  function scale_bar(step: number): void {
    const paint = surface.context;
    const rem = palette.rem;
    const [x, y, length] = [rem, surface.height - rem, step / scale()];
    paint.strokeStyle = paint.fillStyle = palette.get("ink-2");
    paint.lineWidth = 1.5;
    paint.beginPath();
    paint.moveTo(x, y - 5);
    paint.lineTo(x, y);
    paint.lineTo(x + length, y);
    paint.lineTo(x + length, y - 5);
    paint.stroke();
    paint.font = palette.font(0.8125);
    paint.textAlign = "left";
    paint.textBaseline = "bottom";
    paint.fillText(distance(step), x + 6, y - 3);
  }

  function north_arrow(): void {
    const paint = surface.context;
    const rem = palette.rem;
    const [x, y] = [surface.width - 1.4 * rem, 2.2 * rem];
    paint.fillStyle = palette.get("ink-2");
    paint.beginPath();
    paint.moveTo(x, y - 0.75 * rem);
    paint.lineTo(x + 0.35 * rem, y + 0.3 * rem);
    paint.lineTo(x, y + 0.1 * rem);
    paint.lineTo(x - 0.35 * rem, y + 0.3 * rem);
    paint.fill();
    paint.font = palette.font(0.8125, 600);
    paint.textAlign = "center";
    paint.textBaseline = "bottom";
    paint.fillText("N", x, y - 0.8 * rem);
  }

  function legend(colors: Coloring): void {
    const paint = surface.context;
    const rem = palette.rem;
    const width = 1.1 * rem;
    const right = surface.width - rem;
    const top = surface.height - 1.4 * rem;
    ramp.forEach((step) => {
      paint.fillStyle = palette.get(`ramp-${step}`);
      paint.fillRect(right - (6 - step) * width, top, width, 0.4 * rem);
    });
    paint.fillStyle = palette.get("ink-2");
    paint.font = palette.font(0.75);
    paint.textBaseline = "bottom";
    paint.textAlign = "left";
    paint.fillText(colors.low, right - 6 * width, top - 2);
    paint.textAlign = "right";
    paint.fillText(colors.high, right, top - 2);
  }

  function describe(summary: Summary, window: { from: number; to: number }): void {
    const words = [summary.pieces === 1 ? "1 piece" : `${summary.pieces} pieces`];
    if (summary.gaps) words.push(summary.gaps === 1 ? "1 gap" : `${summary.gaps} gaps`);
    const jumps = summary.jumps.map(([a, b]) => metres_between(a.lat, a.lon, b.lat, b.lon));
    if (jumps.length) words.push(`${jumps.length === 1 ? "1 jump" : `${jumps.length} jumps, longest`} of ${distance(Math.max(...jumps))}`);
    const text = `${distance(summary.length)} in ${duration((window.to - window.from) / 1000)}: ${words.join(", ")}`;
    set_text(caption, text);
    const place = last_place();
    const heading = place ? place.series.value("yawAngle", place.row) : NaN;
    set_attribute(canvas, "aria-label", `Track, ${text}.` + (place
      ? ` Last at ${latitude(place.lat)} ${longitude(place.lon)}${Number.isNaN(heading) ? "" : `, heading ${direction(heading)}, ${compass_point(heading)}`}.`
      : ""));
  }

  return {
    id: "track",
    title: "Track",
    tools: [
      color.element,
      follow,
      button("+", () => zoom(0.7), { "aria-label": "Zoom in" }),
      button("\u2212", () => zoom(1.4), { "aria-label": "Zoom out" }),
      button("Fit", fit),
    ],
    body: h("div", { class: "body" },
      h("div", { class: "canvas" }, canvas, nothing),
      h("div", { class: "foot" },
        caption,
        h("p", { class: "key" }, h("span", { class: "swatch out" }), "out ", h("span", { class: "swatch in" }), "in")),
      h("p", { class: "unseen", id: "track-keys" }, "Arrow keys move the view, plus and minus zoom, F follows the vehicle, 0 shows the whole track.")),
    draw,
  };

  function place_text(place: Place): string {
    return `${place.lat.toFixed(7)},${place.lon.toFixed(7)}`;
  }
}
