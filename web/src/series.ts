/** Curves over time in memory that never grows: rings of typed arrays, and what is drawn of them. */

export interface Curve {
  name: string;
  /** Least and greatest of each row are kept too. */
  range?: boolean;
  /** 64 bits instead of 32. */
  precise?: boolean;
}

interface Column {
  last: Float32Array | Float64Array;
  min: Float32Array | undefined;
  max: Float32Array | undefined;
}

/** A row continues the one before it, comes after a pause, or contradicts it (a position that the vehicle cannot have reached). */
export enum Link {
  continues,
  gap,
  jump,
}

export type Values = { [curve: string]: number | null | undefined };

export class Series {
  readonly t: Float64Array;
  private readonly columns = new Map<string, Column>();
  private readonly links: Uint8Array;
  private first = 0;
  private count = 0;
  private gap_next = false;

  constructor(readonly capacity: number, curves: readonly Curve[]) {
    this.t = new Float64Array(capacity);
    this.links = new Uint8Array(capacity);
    for (const curve of curves) {
      this.columns.set(curve.name, {
        last: curve.precise ? new Float64Array(capacity) : new Float32Array(capacity),
        min: curve.range ? new Float32Array(capacity) : undefined,
        max: curve.range ? new Float32Array(capacity) : undefined,
      });
    }
  }

  get length(): number {
    return this.count;
  }

  /** Row `i`, the oldest being 0, as index into the arrays. */
  slot(i: number): number {
    const at = this.first + i;
    return at < this.capacity ? at : at - this.capacity;
  }

  time(i: number): number {
    return this.t[this.slot(i)] ?? NaN;
  }

  get last_time(): number {
    return this.count ? this.time(this.count - 1) : -Infinity;
  }

  /** How row `i` follows the one before it. */
  link(i: number): Link {
    return this.links[this.slot(i)] as Link;
  }

  /** The value of a curve in row `i`; NaN if it has none. */
  value(curve: string, i: number): number {
    return this.columns.get(curve)?.last[this.slot(i)] ?? NaN;
  }

  array(curve: string): Float32Array | Float64Array {
    return this.columns.get(curve)!.last;
  }

  /** No line leads to the row that comes next. */
  interrupt(): void {
    this.gap_next = true;
  }

  clear(): void {
    this.first = this.count = 0;
    this.gap_next = false;
  }

  /** Appends a row. Returns false for a row that is not newer than the last: it is dropped. */
  push(t: number, last: Values, link = Link.continues, min: Values = last, max: Values = last): boolean {
    if (!(t > this.last_time)) return false;
    let slot: number;
    if (this.count < this.capacity) slot = this.slot(this.count++);
    else {
      slot = this.first;
      this.first = this.first + 1 === this.capacity ? 0 : this.first + 1;
    }
    this.t[slot] = t;
    this.links[slot] = this.gap_next ? Link.gap : link;
    this.gap_next = false;
    for (const [name, column] of this.columns) {
      const value = last[name] ?? NaN;
      column.last[slot] = value;
      if (column.min) column.min[slot] = min[name] ?? value;
      if (column.max) column.max[slot] = max[name] ?? value;
    }
    return true;
  }

  /** The first row that is not before `t`. */
  at_or_after(t: number): number {
    let low = 0;
    let high = this.count;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.time(middle) < t) low = middle + 1;
      else high = middle;
    }
    return low;
  }

  /** The row nearest to `t`, or -1 if none is within `reach`. */
  nearest(t: number, reach: number): number {
    const after = this.at_or_after(t);
    let best = -1;
    for (const i of [after - 1, after]) {
      if (i < 0 || i >= this.count) continue;
      const distance = Math.abs(this.time(i) - t);
      if (distance <= reach && (best < 0 || distance < Math.abs(this.time(best) - t))) best = i;
    }
    return best;
  }

  /**
   * Reduces curves to columns of `width` ms: `out[0]` gets times in seconds, `out[k + 1]` the values of curve `k`. A column
   * keeps the least and the greatest value of each curve, in the order in which they came; a gap and a column without a value are
   * null. Columns lie at multiples of their width, so that an extreme does not wander while time goes on.
   */
  reduce(curves: readonly string[], from: number, to: number, width: number, out: (number | null)[][]): void {
    const extremes = curves.map((name) => new Extremes(this.columns.get(name)!));
    const xs = out[0]!;
    let n = 0;
    let rows = 0;
    let index = NaN;
    let first_t = 0;
    let last_t = 0;
    const flush = () => {
      if (rows === 0) return;
      const two = rows > 1 || extremes.some((one) => one.low < one.high);
      xs[n] = first_t / 1000;
      if (two) xs[n + 1] = last_t / 1000;
      extremes.forEach((one, k) => one.write(out[k + 1]!, n, two));
      n += two ? 2 : 1;
      rows = 0;
    };
    const end = Math.min(this.count, this.at_or_after(to) + 1);
    for (let i = Math.max(0, this.at_or_after(from) - 1); i < end; ++i) {
      const slot = this.slot(i);
      const t = this.t[slot]!;
      const column = Math.floor(t / width);
      const gap = this.links[slot] === Link.gap && n + rows > 0;
      if (column !== index || gap) flush();
      if (gap) {
        xs[n] = (t - 1e-3) / 1000;
        for (let k = 1; k < out.length; ++k) out[k]![n] = null;
        ++n;
      }
      index = column;
      if (rows++ === 0) first_t = t;
      last_t = t;
      for (const one of extremes) one.take(slot, i);
    }
    flush();
    for (const list of out) list.length = n;
  }
}

class Extremes {
  low = NaN;
  high = NaN;
  private low_row = 0;
  private high_row = 0;
  private readonly least: Float32Array | Float64Array;
  private readonly most: Float32Array | Float64Array;

  constructor(column: Column) {
    this.least = column.min ?? column.last;
    this.most = column.max ?? column.last;
  }

  take(slot: number, row: number): void {
    const least = this.least[slot]!;
    const most = this.most[slot]!;
    // A comparison with NaN is false: the first value always counts, a NaN never.
    if (!(this.low <= least) && least === least) {
      this.low = least;
      this.low_row = row;
    }
    if (!(this.high >= most) && most === most) {
      this.high = most;
      this.high_row = row;
    }
  }

  write(ys: (number | null)[], n: number, two: boolean): void {
    const none = this.low !== this.low;
    const rising = this.low_row <= this.high_row;
    ys[n] = none ? null : rising ? this.low : this.high;
    if (two) ys[n + 1] = none ? null : rising ? this.high : this.low;
    this.low = this.high = NaN;
  }
}
