/** What has been over the last minutes: strips one below the other with one time axis and one cursor. */

import uPlot from "uplot";
import { h, set_attribute, set_text } from "../dom";
import { clock_time, no_value, rough } from "../format";
import type { Model } from "../model";
import { Palette, type Context, type Panel } from "../panel";
import type { Series } from "../series";

interface Strip {
  title: string;
  unit: string;
  /** The words of the key, one for each curve. */
  curves: readonly (readonly [name: string, word: string])[];
  series(model: Model): Series | undefined;
  factor?: number;
}

const strips: readonly Strip[] = [
  { title: "Rate out", unit: "a second", curves: [["ratePerS", "positions"]], series: (model) => model.statistics_curves },
  { title: "Age on arrival", unit: "ms", curves: [["stampToArrivalP50Ms", "median"], ["stampToArrivalP99Ms", "99 %"]], series: (model) => model.statistics_curves },
  { title: "In the application", unit: "ms", curves: [["handlerToSentP50Ms", "median"], ["handlerToSentP99Ms", "99 %"]], series: (model) => model.statistics_curves },
  { title: "Speed", unit: "km/h", curves: [["speed2D", "over ground"]], series: (model) => model.output_track, factor: 3.6 },
  { title: "Satellites", unit: "", curves: [["satsInUse", "used"], ["satsInView", "in view"]], series: (model) => longest([...model.quality_curves.values()]) },
  { title: "Accuracy", unit: "m", curves: [["accuracyHorizontal", "across, one sigma"]], series: (model) => model.output_track },
];
/** Longer spans move less than a pixel in the time. */
const quick_span_ms = 120_000;
/** Between two drawings of the same curves. */
const least_ms = 200;

function longest(list: Series[]): Series | undefined {
  return list.reduce<Series | undefined>((best, one) => (best && best.last_time >= one.last_time ? best : one), undefined);
}

class Plot {
  readonly values: HTMLElement[];
  readonly element: HTMLElement;
  readonly holder = h("div", { class: "plot" });
  private readonly data: (number | null)[][];
  chart: uPlot | undefined;
  private drawn_span = 0;
  private drawn_to = 0;
  private built_rem = 0;

  constructor(readonly strip: Strip, private readonly context: Context, private readonly palette: Palette, private readonly last: boolean) {
    this.data = [[], ...strip.curves.map((): (number | null)[] => [])];
    this.values = strip.curves.map(() => h("span", { class: "number" }, no_value));
    this.element = h("div", { class: "strip" },
      h("div", { class: "reading" },
        h("h3", {}, strip.title, strip.unit ? h("span", { class: "unit" }, ` ${strip.unit}`) : null),
        h("p", {}, ...strip.curves.map(([, word], i) =>
          h("span", { class: `curve curve-${i}` }, this.values[i]!, " ", h("span", { class: "word" }, word))))),
      this.holder);
    this.holder.addEventListener("pointerleave", () => context.cursor.set(NaN));
  }

  build(): void {
    this.chart?.destroy();
    this.forget();
    const { palette } = this;
    this.built_rem = palette.rem;
    const font = palette.font(0.75);
    const axis = { stroke: palette.get("ink-2"), font, ticks: { show: false }, grid: { stroke: palette.get("grid"), width: 1 } };
    const rem = palette.rem;
    const options: uPlot.Options = {
      width: Math.max(50, this.holder.clientWidth),
      height: Math.max(30, this.holder.clientHeight),
      legend: { show: false },
      padding: [0.6 * rem, 0.6 * rem, this.last ? 0 : 0.5 * rem, 0],
      cursor: { y: false, drag: { x: false, y: false, setScale: false }, points: { show: false } },
      scales: { x: { time: true }, y: { range: (_, low, high) => y_range(low, high) } },
      axes: [
        { ...axis, show: this.last, size: 1.6 * rem, space: 5 * rem, gap: 2, values: (_, splits) => splits.map((t) => axis_time(t, this.context)) },
        { ...axis, size: 3.2 * rem, space: 1.5 * rem, gap: 4 },
      ],
      series: [
        {},
        ...this.strip.curves.map(([name], i) => ({
          label: name,
          stroke: palette.get(i ? "ink-3" : "accent"),
          width: (i ? 1 : 1.5) * Math.max(1, rem / 16),
          points: { show: false },
          spanGaps: false,
        })),
      ],
      hooks: {
        setCursor: [(chart) => {
          // Only the pointer moves the cursor from here; what the page sets comes back too.
          if (!this.holder.matches(":hover")) return;
          const left = chart.cursor.left ?? -1;
          this.context.cursor.set(left < 0 ? NaN : chart.posToVal(left, "x") * 1000);
        }],
      },
    };
    this.chart = new uPlot(options, this.data as unknown as uPlot.AlignedData, this.holder);
  }

  resize(): void {
    const [width, height] = [this.holder.clientWidth, this.holder.clientHeight];
    if (!width || !height) return;
    // Axes keep the type that they were made with.
    if (!this.chart || this.built_rem !== this.palette.rem) return this.build();
    if (this.chart.width !== width || this.chart.height !== height) this.chart.setSize({ width, height });
  }

  /** The past is another one. */
  forget(): void {
    this.drawn_span = 0;
  }

  /** Whether the curves have moved by a pixel, or show another time. */
  is_due(from: number, to: number): boolean {
    const moved = to - this.drawn_to;
    return this.chart !== undefined && (to - from !== this.drawn_span || moved < 0 || moved >= Math.max(least_ms, (to - from) / this.chart.width));
  }

  draw(from: number, to: number): void {
    const { chart, strip } = this;
    if (!chart) return;
    this.drawn_span = to - from;
    this.drawn_to = to;
    const series = strip.series(this.context.model);
    const columns = Math.max(50, chart.bbox.width / (devicePixelRatio || 1));
    if (series) series.reduce(strip.curves.map(([name]) => name), from, to, (to - from) / columns, this.data);
    else for (const list of this.data) list.length = 0;
    if (strip.factor) {
      for (const list of this.data.slice(1)) list.forEach((value, i) => (list[i] = value === null ? null : value * strip.factor!));
    }
    chart.batch(() => {
      chart.setData(this.data as unknown as uPlot.AlignedData, false);
      chart.setScale("x", { min: from / 1000, max: to / 1000 });
    });
  }

  show_cursor(): void {
    const t = this.context.cursor.t;
    if (!this.chart) return;
    const left = Number.isNaN(t) ? -10 : this.chart.valToPos(t / 1000, "x");
    if (!this.holder.matches(":hover")) this.chart.setCursor({ left, top: left < 0 ? -10 : 0 }, false);
  }

  /** Writes the values at the cursor, or the last ones, and returns them in words. */
  read(from: number, to: number): string {
    const series = this.strip.series(this.context.model);
    const t = this.context.cursor.t;
    const at = Number.isNaN(t) ? to : t;
    const row = series?.nearest(at, Math.max(2500, (to - from) / 100)) ?? -1;
    const words = this.strip.curves.map(([name, word], i) => {
      const value = row < 0 ? NaN : series!.value(name, row) * (this.strip.factor ?? 1);
      const text = Number.isNaN(value) ? no_value : this.strip.title === "Satellites" ? String(value) : rough(value);
      set_text(this.values[i]!, text);
      return `${word} ${text}`;
    });
    return `${this.strip.title}${this.strip.unit ? ` in ${this.strip.unit}` : ""}: ${words.join(", ")}`;
  }
}

function y_range(low: number | null, high: number | null): [number, number] {
  if (low === null || high === null || !Number.isFinite(high)) return [0, 1];
  // From zero, so that a small change does not look like a large one.
  return [Math.min(0, low), high <= 0 ? 1 : high * 1.15];
}

function axis_time(t: number, context: Context): string {
  const { from, to } = context.time_window();
  const text = clock_time(t * 1000);
  return to - from > 5 * 60_000 ? text.slice(0, 5) : text;
}

export function time_panel(context: Context): Panel {
  const { model, cursor } = context;
  const palette = new Palette(() => {
    for (const plot of plots) plot.build();
    context.redraw();
  });
  const plots = strips.map((strip, i) => new Plot(strip, context, palette, i === strips.length - 1));
  const when = h("p", { class: "caption when" });
  const stack = h("div", {
    class: "strips", tabindex: 0, role: "slider", "aria-label": "Cursor in time", "aria-orientation": "horizontal",
    "aria-describedby": "time-keys", "aria-valuemin": 0, "aria-valuemax": 0, "aria-valuenow": 0,
  }, ...plots.map((plot) => plot.element));
  const body = h("div", { class: "body" }, stack, when,
    h("p", { class: "unseen", id: "time-keys" }, "Left and right arrow keys move the cursor, Page Up and Page Down move it far, Escape takes it away."));

  new ResizeObserver(() => {
    for (const plot of plots) plot.resize();
    context.redraw();
  }).observe(stack);
  cursor.follow(context.redraw);
  model.follow(["statistics"], context.redraw);
  model.follow(["history", "reset"], () => {
    for (const plot of plots) plot.forget();
    context.redraw();
  });
  model.follow(["output"], () => {
    const { from, to, live } = context.time_window();
    if (live && to - from <= quick_span_ms) context.redraw();
  });

  stack.addEventListener("keydown", (event) => {
    const { from, to } = context.time_window();
    const span = to - from;
    const step = { ArrowLeft: -0.005, ArrowDown: -0.005, ArrowRight: 0.005, ArrowUp: 0.005, PageDown: -0.1, PageUp: 0.1 }[event.key];
    const start = Number.isNaN(cursor.t) ? to : cursor.t;
    let t: number;
    if (step) t = Math.max(from, Math.min(to, start + step * span));
    else if (event.key === "Home") t = from;
    else if (event.key === "End") t = to;
    else if (event.key === "Escape" && !Number.isNaN(cursor.t)) t = NaN;
    else return;
    event.preventDefault();
    cursor.set(t);
  });

  function draw(): void {
    const { from, to, live } = context.time_window();
    // One plot a frame, so that no frame takes long.
    const due = plots.filter((plot) => plot.is_due(from, to));
    due[0]?.draw(from, to);
    if (due.length > 1) context.redraw();
    for (const plot of plots) plot.show_cursor();
    const words = plots.map((plot) => plot.read(from, to));
    const pointed = !Number.isNaN(cursor.t);
    const moment = pointed ? clock_time(cursor.t, 1) : "now";
    set_text(when, pointed ? `Values at ${moment}` : live ? "Latest values" : `Values at ${clock_time(to)}`);
    set_attribute(stack, "aria-valuemin", String(Math.round(from / 1000)));
    set_attribute(stack, "aria-valuemax", String(Math.round(to / 1000)));
    set_attribute(stack, "aria-valuenow", String(Math.round((pointed ? cursor.t : to) / 1000)));
    set_attribute(stack, "aria-valuetext", `${moment}. ${words.join(". ")}`);
  }

  return { id: "time", title: "Time", body, draw };
}
