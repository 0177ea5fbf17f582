/** Distances on the ground. */

export interface Place {
  lat: number;
  lon: number;
}

const earth_radius = 6_371_008.8;
const degree = Math.PI / 180;

/** Metres of a degree north and of a degree east, at a latitude. */
export function metres_of_degree(latitude: number): { lat: number; lon: number } {
  return { lat: earth_radius * degree, lon: earth_radius * degree * Math.max(0.01, Math.cos(latitude * degree)) };
}

/** Metres between two places that are near each other. */
export function metres_between(lat_a: number, lon_a: number, lat_b: number, lon_b: number): number {
  const north = (lat_b - lat_a) * degree;
  const east = (((lon_b - lon_a + 540) % 360) - 180) * degree * Math.cos(((lat_a + lat_b) / 2) * degree);
  return earth_radius * Math.hypot(north, east);
}
