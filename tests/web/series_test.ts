/** What the page keeps of curves, and what it draws of them. */

import assert from "node:assert/strict";
import test from "node:test";
import { Link, Series } from "../../web/src/series";

function reduced(series: Series, from: number, to: number, width: number): { xs: number[]; ys: (number | null)[] } {
  const out: (number | null)[][] = [[], []];
  series.reduce(["speed"], from, to, width, out);
  return { xs: out[0] as number[], ys: out[1]! };
}

test("a curve of 1 kHz keeps every extreme, in the order of time", () => {
  const series = new Series(10_000, [{ name: "speed", range: true }]);
  for (let t = 1; t <= 9000; ++t) series.push(t, { speed: t === 4321 ? 99 : t === 4322 ? -99 : Math.sin(t / 500) });
  const { xs, ys } = reduced(series, 0, 9000, 90);
  assert.ok(xs.length <= 210);
  assert.ok(xs.every((x, i) => i === 0 || x >= xs[i - 1]!));
  assert.ok(ys.indexOf(99) >= 0 && ys.indexOf(99) < ys.indexOf(-99));
});

test("a merged row contributes its least and its greatest value", () => {
  const series = new Series(4, [{ name: "speed", range: true }]);
  series.push(10, { speed: 5 }, Link.continues, { speed: 1 }, { speed: 9 });
  assert.deepEqual(reduced(series, 0, 100, 50).ys, [1, 9]);
});

test("a gap separates, also within a column; a missing value is no zero", () => {
  const series = new Series(10, [{ name: "speed" }]);
  series.push(1000, { speed: 1 });
  series.push(2000, { speed: 2 }, Link.gap);
  series.push(3000, {});
  series.push(4000, { speed: 4 });
  assert.deepEqual(reduced(series, 0, 5000, 10_000).ys, [1, null, 2, 4]);
  assert.deepEqual(reduced(series, 0, 5000, 100).ys, [1, null, 2, null, 4]);
});

test("a full ring forgets the oldest row and finds the others by time", () => {
  const series = new Series(3, [{ name: "speed", precise: true }]);
  for (const t of [10, 20, 30, 40, 50]) series.push(t, { speed: t });
  assert.equal(series.push(50, { speed: 0 }), false);
  assert.equal(series.length, 3);
  assert.deepEqual([series.time(0), series.last_time], [30, 50]);
  assert.equal(series.value("speed", series.nearest(44, 5)), 40);
  assert.equal(series.nearest(80, 20), -1);
  assert.equal(series.at_or_after(31), 1);
});
