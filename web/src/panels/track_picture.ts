/** Draws the parts of the track's picture that lie below and above its lines. */

import type { Marks } from "../feed";
import { distance } from "../format";
import { metres_of_degree, type Place } from "../places";
import type { Palette, Surface } from "../panel";
import type { Series } from "../series";
import type { Coloring, Summary } from "./track_summary";
import type { View } from "./trail";

const ramp = [0, 1, 2, 3, 4, 5];
const jumps_shown = 50;

/** A place of the track, and its row. */
export interface Row extends Place {
  row: number;
  series: Series;
}

export class Track_picture {
  /** CSS pixels of a degree. */
  private readonly kx: number;
  private readonly ky: number;

  constructor(private readonly surface: Surface, private readonly palette: Palette, private readonly view: View) {
    const m = metres_of_degree(view.lat);
    this.kx = m.lon / view.scale;
    this.ky = m.lat / view.scale;
  }

  private x(lon: number): number {
    const apart = lon - this.view.lon;
    return this.view.width / 2 + (apart > 180 ? apart - 360 : apart < -180 ? apart + 360 : apart) * this.kx;
  }

  private y(lat: number): number {
    return this.view.height / 2 - (lat - this.view.lat) * this.ky;
  }

  /** Draws lines that stand still on the ground, and returns the metres between them. */
  grid(origin: Place): number {
    const paint = this.surface.context;
    const wanted = this.view.scale * 5 * this.palette.rem;
    const power = 10 ** Math.floor(Math.log10(wanted));
    const step = [1, 2, 5, 10].map((one) => one * power).find((one) => one >= wanted)!;
    const pixels = step / this.view.scale;
    paint.strokeStyle = this.palette.get("grid");
    paint.lineWidth = 1;
    paint.beginPath();
    for (let x = ((this.x(origin.lon) % pixels) + pixels) % pixels; x < this.surface.width; x += pixels) {
      paint.moveTo(Math.round(x) + 0.5, 0);
      paint.lineTo(Math.round(x) + 0.5, this.surface.height);
    }
    for (let y = ((this.y(origin.lat) % pixels) + pixels) % pixels; y < this.surface.height; y += pixels) {
      paint.moveTo(0, Math.round(y) + 0.5);
      paint.lineTo(this.surface.width, Math.round(y) + 0.5);
    }
    paint.stroke();
    return step;
  }

  marks(marks: Marks["marks"]): void {
    const paint = this.surface.context;
    paint.strokeStyle = paint.fillStyle = this.palette.get("ink-3");
    paint.lineWidth = 1;
    paint.font = this.palette.font(0.75);
    paint.textAlign = "left";
    paint.textBaseline = "middle";
    for (const { name, points } of marks) {
      const [first] = points;
      if (!first) continue;
      const [x, y] = [this.x(first[0]), this.y(first[1])];
      paint.beginPath();
      if (points.length === 1) paint.rect(x - 3, y - 3, 6, 6);
      points.forEach(([lon, lat], i) => (i ? paint.lineTo(this.x(lon), this.y(lat)) : paint.moveTo(this.x(lon), this.y(lat))));
      paint.stroke();
      if (name && x > -200 && x < this.surface.width && y > 0 && y < this.surface.height) paint.fillText(name.slice(0, 40), x + 7, y);
    }
  }

  /** Draws the last jumps. */
  jumps(jumps: Summary["jumps"]): void {
    const paint = this.surface.context;
    paint.strokeStyle = this.palette.get("warn");
    paint.lineWidth = 1.5;
    for (const places of jumps.slice(-jumps_shown)) {
      const [from, until] = places.map(({ lat, lon }) => [this.x(lon), this.y(lat)] as const) as [[number, number], [number, number]];
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

  cursor(track: Series, time: number): void {
    if (Number.isNaN(time)) return;
    const i = track.nearest(time, 3000);
    if (i < 0) return;
    const paint = this.surface.context;
    paint.strokeStyle = this.palette.get("ink");
    paint.lineWidth = 2;
    paint.beginPath();
    paint.arc(this.x(track.value("LON", i)), this.y(track.value("LAT", i)), 0.45 * this.palette.rem, 0, 2 * Math.PI);
    paint.stroke();
  }

  /** Draws the vehicle with its accuracy; without a heading it is a disc. */
  vehicle(place: Row, heading: number, old: boolean): void {
    const paint = this.surface.context;
    const [x, y] = [this.x(place.lon), this.y(place.lat)];
    const accuracy = place.series.value("accuracyHorizontal", place.row) / this.view.scale;
    if (accuracy > 2) {
      paint.beginPath();
      paint.arc(x, y, accuracy, 0, 2 * Math.PI);
      paint.fillStyle = this.palette.get("accent-faint");
      paint.fill();
      paint.strokeStyle = this.palette.get("accent");
      paint.lineWidth = 1;
      paint.stroke();
    }
    const size = 0.75 * this.palette.rem;
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
    paint.fillStyle = this.palette.get(old ? "paper" : "ink");
    paint.strokeStyle = this.palette.get(old ? "ink-3" : "paper");
    paint.lineWidth = 2;
    paint.fill();
    paint.stroke();
    paint.restore();
  }

  scale_bar(step: number): void {
    const paint = this.surface.context;
    const rem = this.palette.rem;
    const [x, y, length] = [rem, this.surface.height - rem, step / this.view.scale];
    paint.strokeStyle = paint.fillStyle = this.palette.get("ink-2");
    paint.lineWidth = 1.5;
    paint.beginPath();
    paint.moveTo(x, y - 5);
    paint.lineTo(x, y);
    paint.lineTo(x + length, y);
    paint.lineTo(x + length, y - 5);
    paint.stroke();
    paint.font = this.palette.font(0.8125);
    paint.textAlign = "left";
    paint.textBaseline = "bottom";
    paint.fillText(distance(step), x + 6, y - 3);
  }

  north_arrow(): void {
    const paint = this.surface.context;
    const rem = this.palette.rem;
    const [x, y] = [this.surface.width - 1.4 * rem, 2.2 * rem];
    paint.fillStyle = this.palette.get("ink-2");
    paint.beginPath();
    paint.moveTo(x, y - 0.75 * rem);
    paint.lineTo(x + 0.35 * rem, y + 0.3 * rem);
    paint.lineTo(x, y + 0.1 * rem);
    paint.lineTo(x - 0.35 * rem, y + 0.3 * rem);
    paint.fill();
    paint.font = this.palette.font(0.8125, 600);
    paint.textAlign = "center";
    paint.textBaseline = "bottom";
    paint.fillText("N", x, y - 0.8 * rem);
  }

  legend(colors: Coloring): void {
    const paint = this.surface.context;
    const rem = this.palette.rem;
    const width = 1.1 * rem;
    const right = this.surface.width - rem;
    const top = this.surface.height - 1.4 * rem;
    ramp.forEach((step) => {
      paint.fillStyle = this.palette.get(`ramp-${step}`);
      paint.fillRect(right - (6 - step) * width, top, width, 0.4 * rem);
    });
    paint.fillStyle = this.palette.get("ink-2");
    paint.font = this.palette.font(0.75);
    paint.textBaseline = "bottom";
    paint.textAlign = "left";
    paint.fillText(colors.low, right - 6 * width, top - 2);
    paint.textAlign = "right";
    paint.fillText(colors.high, right, top - 2);
  }
}
