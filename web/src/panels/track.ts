/** Where the vehicle has been: positions out over positions in, on a metric grid, north up. */

import type { Marks } from "../feed";
import { button, h, select, set_attribute, set_text } from "../dom";
import { compass_point, direction, distance, duration, is_number, latitude, longitude } from "../format";
import { metres_between, metres_of_degree, type Place } from "../places";
import { Palette, Surface, type Context, type Panel } from "../panel";
import { beside } from "../source";
import { Track_picture, type Row } from "./track_picture";
import { coloring, summarise, type Summary } from "./track_summary";
import { Trail, type Line, type View } from "./trail";

const closest = 0.02; // metres a CSS pixel
const farthest = 20_000;
const first_scale = 0.6;
/** An arrow key moves by this part of the view. */
const pan_step = 0.15;
const summary_ms = 300;

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

  function last_place(): Row | undefined {
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
    const view: View = { ...middle, scale: scale(), width, height };
    const picture = new Track_picture(surface, palette, view);
    const step = picture.grid(origin);
    picture.marks(marks);
    const window = context.time_window();
    const colors = coloring(model.output_track, address.get("color"), window);
    const lines: Line[] = [
      { series: model.output_track, width: 0.14 * palette.rem, color: palette.get("accent"), below: false, step: colors?.of },
      ...[...model.input_tracks].map(([type, series]) => (
        { series, width: 0.45 * palette.rem, color: palette.get(type === 2 ? "track-in-dr" : "track-in"), below: true, step: undefined })),
    ];
    // The first word says what cannot be shown in place of the other.
    const style = `${generation}${palette.get("accent")} ${colors ? colors.name + colors.high : ""}`;
    if (trail.draw(paint, view, lines, palette, window.from, window.to, style)) context.redraw();
    if (performance.now() > summary_due) {
      summary = summarise(model.output_track, window.from, window.to);
      summary_due = performance.now() + summary_ms;
      describe(summary, window);
    }
    picture.jumps(summary.jumps);
    picture.cursor(model.output_track, cursor.t);
    const place = last_place();
    if (place && window.live) {
      const heading = place.series === model.output_track ? place.series.value("yawAngle", place.row) : NaN;
      picture.vehicle(place, heading, window.to - place.series.time(place.row) > 2000);
    }
    picture.scale_bar(step);
    picture.north_arrow();
    if (colors) picture.legend(colors);
  }

  function nothing_text(): string {
    if (model.output) return "No position yet: the samples have no coordinates.";
    return model.application?.present === false ? "No application, so no positions." : "No position yet.";
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
