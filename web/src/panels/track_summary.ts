/** What a track consists of, and what its colours mean. */

import { duration } from "../format";
import { metres_of_degree, type Place } from "../places";
import { Link, type Series } from "../series";

const age_steps_ms = [0.1, 1, 10, 100, 1000];

/** What the track is made of. */
export interface Summary {
  pieces: number;
  gaps: number;
  jumps: [from: Place, to: Place][];
  length: number;
}

export function summarise(track: Series, from: number, until: number): Summary {
  const found: Summary = { pieces: 0, gaps: 0, jumps: [], length: 0 };
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

export type Coloring = { name: "ago" | "speed" | "age"; of(row: number): number; low: string; high: string };

/** The step of the ramp for a row of the output, and the words at the ends of the ramp; undefined: one colour. */
export function coloring(track: Series, by: string, window: { from: number; to: number }): Coloring | undefined {
  switch (by) {
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
