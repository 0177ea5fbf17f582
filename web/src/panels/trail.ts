/**
 * The drawn lines of a track. An hour at 20 Hz is too much to draw in a frame, so the lines lie on a layer that is larger
 * than the view, and only the newest rows are drawn in each frame. Another layer is made, some rows a frame, when the view
 * leaves the layer, its scale or colours change, or old rows are to go. Until it is complete the first one is shown, scaled
 * where needed.
 */

import { metres_of_degree } from "../places";
import type { Palette } from "../panel";
import { Link, type Series } from "../series";

/** Of the view's size, on each side. */
const margin = 0.3;
const rows_each_frame = 2500;
/** A layer that changes is copied as a whole by the browser, so rows come to it seldom. */
const extend_ms = 4000;
const overlap_rows = 40;
/** Shorter moves are not drawn, in CSS pixels. */
const least_move = 1;

export interface View {
  lat: number;
  lon: number;
  /** Metres a CSS pixel. */
  scale: number;
  width: number;
  height: number;
}

export interface Line {
  series: Series;
  /** CSS pixels. */
  width: number;
  color: string;
  /** Below the lines that have been drawn. */
  below: boolean;
  /** Step of the ramp for a row, instead of `color`. */
  step: ((row: number) => number) | undefined;
}

/** A view with what has been drawn of it. */
class Layer {
  readonly canvas = document.createElement("canvas");
  readonly paint = this.canvas.getContext("2d")!;
  view: View = { lat: 0, lon: 0, scale: 1, width: 0, height: 0 };
  from = 0;
  style = "";
  complete = false;
  private readonly drawn = new Map<Series, number>();

  begin(view: View, from: number, style: string): void {
    const ratio = Math.min(devicePixelRatio || 1, 3);
    this.view = { ...view, width: Math.round(view.width * (1 + 2 * margin)), height: Math.round(view.height * (1 + 2 * margin)) };
    this.canvas.width = this.view.width * ratio;
    this.canvas.height = this.view.height * ratio;
    this.paint.setTransform(ratio, 0, 0, ratio, 0, 0);
    this.paint.lineCap = this.paint.lineJoin = "round";
    this.from = from;
    this.style = style;
    this.complete = false;
    this.drawn.clear();
  }

  /** Draws the next rows; returns whether there are more. */
  extend(lines: readonly Line[], palette: Palette, until: number): boolean {
    let left = rows_each_frame;
    for (const line of lines) {
      const { series } = line;
      const start = this.next(series);
      const end = Math.min(series.at_or_after(until + 1), start + left);
      if (end <= start) continue;
      this.paint.globalCompositeOperation = line.below ? "destination-over" : "source-over";
      stroke(this.paint, this.view, line, palette, start, end);
      this.drawn.set(series, series.time(end - 1) + 1e-3);
      left -= end - start;
      if (left <= 0) return true;
    }
    this.complete = true;
    return false;
  }

  /** The first row that is not drawn yet. */
  next(series: Series): number {
    return series.at_or_after(this.drawn.get(series) ?? this.from);
  }
}

/** Draws rows of a line; the one before the first is where the line comes from. */
function stroke(paint: CanvasRenderingContext2D, view: View, line: Line, palette: Palette, start: number, end: number): void {
  const { series, step } = line;
  const lats = series.array("LAT");
  const lons = series.array("LON");
  const m = metres_of_degree(view.lat);
  const kx = m.lon / view.scale;
  const ky = m.lat / view.scale;
  paint.lineWidth = line.width;
  paint.strokeStyle = line.color;
  paint.beginPath();
  let [pen_x, pen_y] = [NaN, NaN];
  let inside = false;
  let color = -1;
  for (let i = Math.max(0, start - 1); i < end; ++i) {
    const slot = series.slot(i);
    let apart = lons[slot]! - view.lon;
    apart = apart > 180 ? apart - 360 : apart < -180 ? apart + 360 : apart;
    const x = view.width / 2 + apart * kx;
    const y = view.height / 2 - (lats[slot]! - view.lat) * ky;
    if (x !== x || y !== y) {
      pen_x = NaN;
      continue;
    }
    if (step && i >= start) {
      const next = step(i);
      if (next !== color) {
        if (color >= 0) paint.stroke();
        color = next;
        paint.strokeStyle = palette.get(`ramp-${next}`);
        paint.beginPath();
        if (pen_x === pen_x) paint.moveTo(pen_x, pen_y);
      }
    }
    const visible = x > -20 && x < view.width + 20 && y > -20 && y < view.height + 20;
    if (pen_x !== pen_x || series.link(i) !== Link.continues || i < start) {
      paint.moveTo(x, y);
      // A piece of one position is a dot.
      if (i >= start) paint.lineTo(x + 0.01, y);
    } else if (Math.abs(x - pen_x) < least_move && Math.abs(y - pen_y) < least_move && i < end - 1) {
      continue;
    } else if (visible || inside) paint.lineTo(x, y);
    else paint.moveTo(x, y);
    pen_x = x;
    pen_y = y;
    inside = visible;
  }
  paint.stroke();
}

export class Trail {
  private front = new Layer();
  private back = new Layer();
  private building = false;
  private extended = 0;

  /** Draws onto `paint`; returns whether another frame has more to draw. */
  draw(paint: CanvasRenderingContext2D, view: View, lines: readonly Line[], palette: Palette, from: number, until: number, style: string): boolean {
    const stale_ms = Math.max(2000, (until - from) / 50);
    const fits = (layer: Layer, part: number) => {
      const m = metres_of_degree(view.lat);
      return layer.style === style && layer.view.scale === view.scale && layer.from <= from && from - layer.from < stale_ms
        && layer.view.width === Math.round(view.width * (1 + 2 * margin)) && layer.view.height === Math.round(view.height * (1 + 2 * margin))
        && Math.abs(view.lon - layer.view.lon) * m.lon < part * margin * view.width * view.scale
        && Math.abs(view.lat - layer.view.lat) * m.lat < part * margin * view.height * view.scale;
    };
    if (!fits(this.front, 0.6) && !(this.building && fits(this.back, 0.6))) {
      this.back.begin(view, from, style);
      this.building = true;
    }
    if (this.front.complete && performance.now() - this.extended > extend_ms) {
      this.front.extend(lines, palette, until);
      this.extended = performance.now();
    }
    if (this.building && !this.back.extend(lines, palette, until)) {
      [this.front, this.back] = [this.back, this.front];
      this.building = false;
      this.extended = performance.now();
    }
    const shown = this.front.complete && this.front.style.split(" ")[0] === style.split(" ")[0] ? this.front : this.back;
    const m = metres_of_degree(view.lat);
    const zoom = shown.view.scale / view.scale;
    const [width, height] = [shown.view.width * zoom, shown.view.height * zoom];
    const x = view.width / 2 + ((shown.view.lon - view.lon) * m.lon) / view.scale - width / 2;
    const y = view.height / 2 - ((shown.view.lat - view.lat) * m.lat) / view.scale - height / 2;
    if (width > 0 && height > 0) paint.drawImage(shown.canvas, x, y, width, height);
    if (shown.complete) {
      for (const line of [...lines].sort((a, b) => Number(b.below) - Number(a.below))) {
        // The wide lines below cover the end of what the layer has; the line above them begins a little earlier.
        const start = shown.next(line.series) - (line.below ? 0 : overlap_rows);
        stroke(paint, view, line, palette, Math.max(start, line.series.at_or_after(from)), line.series.at_or_after(until + 1));
      }
    }
    return this.building;
  }
}
